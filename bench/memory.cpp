// Memory: the host's peak resident memory through its start on an empty store, the sync that
// start makes (21 records, about 400 KB), one upload after an answer, and 10,000 queries through
// its socket; and whether the queries leave it flat (resident memory after 10,000 against after
// 1,000).
// Floor: a bare process that has loaded the same libraries (the module, the platform, JsonCpp,
// SQLite, libcurl, libxml2, OpenSSL) and does nothing.
#include "report.h"
#include "television.h"

#include <vconf.h>

#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

double MiB(long kib) { return static_cast<double>(kib) / 1024.0; }

}  // namespace

int main(int argc, char** argv) {
    const tarvo::bench::Options options = tarvo::bench::ParseOptions(argc, argv);
    tarvo::bench::TempDir data("tarvo-bench-data");
    tarvo::bench::TempDir root("tarvo-bench-memory");
    tarvo::bench::Cloud cloud;
    std::string error;
    if (!tarvo::bench::WriteDataSet(data.Path()) ||
        !tarvo::bench::PrepareTelevision(root, "http://127.0.0.1:9", true) ||
        !cloud.Start(data.Path(), root, error) ||
        vconf_set_str("db/nimbra/gpmurl/apps", cloud.OpenApiUrl().c_str()) != 0) {
        std::fprintf(stderr, "bench_memory: %s\n", error.c_str());
        return 1;
    }
    tarvo::bench::Host host;
    tarvo::bench::HostLink link;
    if (!host.Start(root, error) || !link.Connect(host.SocketPath())) {
        std::fprintf(stderr, "bench_memory: %s\n", error.c_str());
        return 1;
    }
    tarvo::bench::LogTail log(root);
    Json::Value number(Json::objectValue);
    number["method"] = "get disclaimer number";
    number["requester"] = 4;
    const bool synced = tarvo::bench::WaitUntil(
        [&] {
            const auto reply = link.Call(number);
            return reply && (*reply)["number"].asUInt() == tarvo::bench::ListedCount();
        },
        std::chrono::seconds(60));
    log.WaitQuiet(std::chrono::milliseconds(500));
    std::printf("after start and sync: RSS %.1f MiB, peak %.1f MiB\n",
                MiB(tarvo::bench::ResidentKiB(host.Pid(), "VmRSS")),
                MiB(tarvo::bench::ResidentKiB(host.Pid(), "VmHWM")));
    Json::Value answer(Json::objectValue);
    answer["method"] = "set one agreement";
    answer["request_item"] = "viewing";
    answer["is_agreed"] = true;
    const auto answered = link.Call(answer);
    if (!synced || !answered || !log.WaitFor("set agreement success!")) {
        std::fprintf(stderr, "bench_memory: the start's sync or the upload did not come\n");
        return 1;
    }
    log.WaitQuiet(std::chrono::milliseconds(300));
    std::printf("after the upload: RSS %.1f MiB, peak %.1f MiB\n",
                MiB(tarvo::bench::ResidentKiB(host.Pid(), "VmRSS")),
                MiB(tarvo::bench::ResidentKiB(host.Pid(), "VmHWM")));

    const int queries = options.quick ? 1000 : 10000;
    long after_first_thousand = 0;
    const auto& ids = tarvo::bench::DisclaimerIds();
    for (int i = 0; i < queries; ++i) {
        Json::Value request(Json::objectValue);
        switch (i % 3) {
            case 0:
                request = number;
                break;
            case 1:
                request["method"] = "get disclaimer by order";
                request["requester"] = 4;
                request["request_index"] = static_cast<int>(i % tarvo::bench::ListedCount());
                break;
            default:
                request["method"] = "get disclaimer by term id";
                request["request_item"] = ids[static_cast<size_t>(i) % ids.size()];
                break;
        }
        if (!link.Call(request)) {
            std::fprintf(stderr, "bench_memory: query %d got no answer\n", i);
            return 1;
        }
        if (i + 1 == 1000) after_first_thousand = tarvo::bench::ResidentKiB(host.Pid(), "VmRSS");
    }
    const long after_all = tarvo::bench::ResidentKiB(host.Pid(), "VmRSS");
    const long peak = tarvo::bench::ResidentKiB(host.Pid(), "VmHWM");

    tarvo::bench::ChildProcess idle({TARVO_IDLE_BIN}, {}, root.Path() + "/idle");
    const auto code = idle.Wait(std::chrono::seconds(30));
    long idle_peak = -1;
    std::sscanf(idle.Stdout().c_str(), "VmHWM %ld", &idle_peak);
    if (!code || *code != 0 || idle_peak <= 0 || peak <= 0) {
        std::fprintf(stderr, "bench_memory: cannot read the peaks\n");
        return 1;
    }
    tarvo::bench::Figure figure;
    figure.road = "Memory";
    figure.name = "host peak RSS: start, sync, upload, queries";
    figure.unit = "MiB";
    figure.value = MiB(peak);
    figure.floor = MiB(idle_peak);
    figure.target = 2;
    tarvo::bench::Emit(options, figure);
    figure.name = "RSS after " + std::to_string(queries) + " queries vs after 1,000";
    figure.value = MiB(after_all);
    figure.floor = MiB(after_first_thousand);
    figure.target = 1.05;
    figure.note = "the floor here is the same host's resident memory after the first 1,000 queries";
    tarvo::bench::Emit(options, figure);
    return 0;
}
