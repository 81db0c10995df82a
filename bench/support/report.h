// What every benchmark program shares: its own options (--quick, --report FILE), a Google Benchmark
// run that keeps the mean time of each benchmark, and the figures it reports, each beside its
// floor. Used from the main thread.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tarvo {
namespace bench {

struct Options {
    bool quick = false;   // a tiny iteration count: proves the program runs, measures nothing
    std::string report;   // JSON lines appended here, one per figure
    size_t records = 21;  // how many records the data set and the store hold (see television.h)
};

// Takes --quick, --report FILE and --records N out of argv (TARVO_BENCH_REPORT also names the
// file, TARVO_BENCH_RECORDS the count); the count is set for the whole program.
Options ParseOptions(int& argc, char** argv);

// One measured figure and the floor measured beside it in the same run. Times are per operation.
struct Figure {
    std::string road;  // "Client queries", "Answers", ...
    std::string name;  // what was measured
    std::string unit;  // "us", "ms", "calls/s", "MiB"
    double value = 0;  // the figure
    double floor = 0;  // the same work done by the bare libraries
    bool higherIsBetter = false;
    double target = 0;  // the largest acceptable ratio; 0: none
    std::string note;
};

// The cost ratio: how many times the floor's cost the figure is (1 is as cheap as the floor).
double Ratio(const Figure& figure);
// Prints the figure's row and appends it to the report file when there is one.
void Emit(const Options& options, const Figure& figure);

// Runs the registered Google Benchmarks (argv carries their flags; --quick adds a tiny minimum
// time) and gives each one's median real time per iteration in seconds, by name, and its median
// CPU time of the benchmark's thread under the name + kCpuSuffix.
extern const char* const kCpuSuffix;
std::map<std::string, double> RunBenchmarks(int argc, char** argv, const Options& options);

// The median of `samples` (in place).
double Median(std::vector<double>& samples);

// For roads bound by the disk or the network, whose speed drifts while they run: the figure's
// step and the floor's step run by turns, `rounds` times after one warm-up each; each step gives
// the seconds its measured part took (negative: it failed). The medians in seconds; false (with
// the road's name in `error`) when a step failed.
struct Paired {
    double figure = 0;
    double floor = 0;
};
using Step = std::function<double()>;
bool RunPaired(const char* name, int rounds, const Step& figure, const Step& floor, Paired& result,
               std::string& error);
// A step timed whole: the seconds `work` took, or -1 when it returned false.
Step Timed(std::function<bool()> work);

}  // namespace bench
}  // namespace tarvo
