#include "report.h"

#include "television.h"

#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace tarvo {
namespace bench {

const char* const kCpuSuffix = "#cpu";

namespace {

class Collector : public benchmark::ConsoleReporter {
  public:
    explicit Collector(std::map<std::string, double>& seconds)
        : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular), m_seconds(seconds) {}

    // Keeps each benchmark's median over its repetitions, or its one run when it has no repetitions.
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!median && (run.run_type != Run::RT_Iteration || run.iterations == 0)) continue;
            const double unit = benchmark::GetTimeUnitMultiplier(run.time_unit);
            m_seconds[run.run_name.function_name] = run.GetAdjustedRealTime() / unit;
            m_seconds[run.run_name.function_name + kCpuSuffix] = run.GetAdjustedCPUTime() / unit;
        }
    }

  private:
    std::map<std::string, double>& m_seconds;
};

}  // namespace

Options ParseOptions(int& argc, char** argv) {
    Options options;
    if (const char* file = std::getenv("TARVO_BENCH_REPORT")) options.report = file;
    if (const char* records = std::getenv("TARVO_BENCH_RECORDS"))
        options.records = std::strtoul(records, nullptr, 10);
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) {
            options.quick = true;
        } else if (std::strcmp(argv[i], "--report") == 0 && i + 1 < argc) {
            options.report = argv[++i];
        } else if (std::strcmp(argv[i], "--records") == 0 && i + 1 < argc) {
            options.records = std::strtoul(argv[++i], nullptr, 10);
        } else {
            argv[kept++] = argv[i];
        }
    }
    argc = kept;
    argv[argc] = nullptr;
    SetRecords(options.records);
    options.records = Records();
    return options;
}

double Ratio(const Figure& figure) {
    if (figure.value <= 0 || figure.floor <= 0) return 0;
    return figure.higherIsBetter ? figure.floor / figure.value : figure.value / figure.floor;
}

void Emit(const Options& options, const Figure& figure) {
    const double ratio = Ratio(figure);
    const bool meets = figure.target <= 0 || (ratio > 0 && ratio <= figure.target);
    char target[32] = "-";
    if (figure.target > 0) std::snprintf(target, sizeof(target), "<=%g", figure.target);
    std::printf("%-15s %-44s %12.1f %-8s floor %12.1f  ratio %5.2f  target %s%s\n", figure.road.c_str(),
                figure.name.c_str(), figure.value, figure.unit.c_str(), figure.floor, ratio, target,
                meets ? "" : "  MISSED");
    std::fflush(stdout);
    if (options.report.empty()) return;
    Json::Value line(Json::objectValue);
    line["road"] = figure.road;
    line["figure"] = figure.name;
    line["unit"] = figure.unit;
    line["value"] = figure.value;
    line["floor"] = figure.floor;
    line["ratio"] = ratio;
    line["target"] = figure.target;
    line["meets"] = meets;
    line["quick"] = options.quick;
    line["records"] = Json::UInt64(options.records);
    if (!figure.note.empty()) line["note"] = figure.note;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::ofstream out(options.report, std::ios::app);
    out << Json::writeString(builder, line) << "\n";
}

std::map<std::string, double> RunBenchmarks(int argc, char** argv, const Options& options) {
    std::vector<char*> args(argv, argv + argc);
    static char quick_time[] = "--benchmark_min_time=0.01";
    // The machine's speed drifts between runs: figure and floor are repeated in a shuffled order
    // and their medians compared, as the other roads run by turns.
    static char repetitions[] = "--benchmark_repetitions=9";
    static char interleaved[] = "--benchmark_enable_random_interleaving=true";
    static char aggregates[] = "--benchmark_display_aggregates_only=true";
    static char repetition_time[] = "--benchmark_min_time=0.1";
    if (options.quick) {
        args.push_back(quick_time);
    } else {
        for (char* arg : {repetitions, interleaved, aggregates, repetition_time}) args.push_back(arg);
        // Flags given on the command line win: they come last.
        for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    }
    int count = static_cast<int>(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
    std::map<std::string, double> seconds;
    Collector collector(seconds);
    benchmark::RunSpecifiedBenchmarks(&collector);
    benchmark::Shutdown();
    return seconds;
}

double Median(std::vector<double>& samples) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const size_t middle = samples.size() / 2;
    return samples.size() % 2 == 1 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2;
}

bool RunPaired(const char* name, int rounds, const Step& figure, const Step& floor, Paired& result,
               std::string& error) {
    std::vector<double> figures;
    std::vector<double> floors;
    for (int round = 0; round <= rounds; ++round) {
        const double measured = figure();
        if (measured < 0) {
            error = std::string(name) + ": the measured step failed";
            return false;
        }
        const double bare = floor();
        if (bare < 0) {
            error = std::string(name) + ": the floor's step failed";
            return false;
        }
        if (round == 0) continue;  // warm-up
        figures.push_back(measured);
        floors.push_back(bare);
    }
    result.figure = Median(figures);
    result.floor = Median(floors);
    std::printf("%s: %d rounds by turns, median %.3f ms, floor %.3f ms\n", name, rounds, result.figure * 1e3,
                result.floor * 1e3);
    return true;
}

Step Timed(std::function<bool()> work) {
    return [work] {
        const auto start = std::chrono::steady_clock::now();
        if (!work()) return -1.0;
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
}

}  // namespace bench
}  // namespace tarvo
