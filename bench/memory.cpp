// Memory: the host's peak resident memory through its start on an empty store, the sync that
// follows when the network comes up (Records() records, about 400 KB for 21), one upload after an
// answer, and 10,000 queries through its socket; and whether the queries leave it flat (resident
// memory after 10,000 against after 1,000).
// Floor: a bare process that has loaded the same libraries (the module, the platform, JsonCpp,
// SQLite, libcurl, libxml2, OpenSSL) and does nothing.
// Beside it, what the sync leaves held: resident memory after the sync above that before it,
// against what the service keeps by its rules (the records and the raw answer, as its file holds
// them), and the sync's peak above the start against the answer's size.
#include "bare_store.h"
#include "report.h"
#include "television.h"

#include <vconf.h>

#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

double MiB(long kib) { return static_cast<double>(kib) / 1024.0; }

// What the service keeps by its rules once a sync is done: the records' texts and the raw answer,
// as its store file holds them.
struct Kept {
    size_t records = 0;
    size_t answer = 0;
};

Kept KeptInStore(const tarvo::bench::TempDir& root) {
    Kept kept;
    tarvo::bench::BareStore store;
    if (!store.Open(root.At(tarvo::bench::kStoreFile))) return kept;
    for (const tarvo::bench::Row& row : store.DisclaimerRows()) {
        for (const tarvo::bench::Cell& cell : row) kept.records += cell.text.size();
    }
    for (const tarvo::bench::Row& row : store.InfoRows()) {
        if (row.size() >= 2 && row[0].integer == 0) kept.answer = row[1].text.size();
    }
    return kept;
}

}  // namespace

int main(int argc, char** argv) {
    const tarvo::bench::Options options = tarvo::bench::ParseOptions(argc, argv);
    tarvo::bench::TempDir data("tarvo-bench-data");
    tarvo::bench::TempDir root("tarvo-bench-memory");
    tarvo::bench::Cloud cloud;
    std::string error;
    if (!tarvo::bench::WriteDataSet(data.Path()) ||
        !tarvo::bench::PrepareTelevision(root, "http://127.0.0.1:9", false) ||
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
    log.WaitQuiet(std::chrono::milliseconds(500));
    // Held memory is the anonymous part: the libraries' pages that the first sync runs are the
    // system's file cache, shared, and come to any implementation that talks HTTPS.
    const long started = tarvo::bench::ResidentKiB(host.Pid(), "VmRSS");
    const long started_anon = tarvo::bench::ResidentKiB(host.Pid(), "RssAnon");
    std::printf("started, network down, empty store: RSS %.1f MiB, anonymous %.1f MiB\n", MiB(started),
                MiB(started_anon));
    // The network comes up as a network manager brings it: the profile, then the status key.
    if (!tarvo::bench::SetNetwork(root, true) || vconf_set_int("memory/dnet/status", 3) != 0) {
        std::fprintf(stderr, "bench_memory: cannot bring the network up\n");
        return 1;
    }
    Json::Value number(Json::objectValue);
    number["method"] = "get disclaimer number";
    number["requester"] = 4;
    const bool synced = tarvo::bench::WaitUntil(
        [&] {
            const auto reply = link.Call(number);
            return reply && (*reply)["number"].asUInt() == tarvo::bench::ListedCount();
        },
        std::chrono::seconds(120));
    log.WaitQuiet(std::chrono::milliseconds(500));
    const long after_sync = tarvo::bench::ResidentKiB(host.Pid(), "VmRSS");
    const long after_sync_anon = tarvo::bench::ResidentKiB(host.Pid(), "RssAnon");
    const long sync_peak = tarvo::bench::ResidentKiB(host.Pid(), "VmHWM");
    const Kept kept = KeptInStore(root);
    std::printf(
        "after the sync: RSS %.1f MiB, anonymous %.1f MiB, peak %.1f MiB; kept by the rules: %.1f MiB of "
        "records, %.1f MiB of raw answer\n",
        MiB(after_sync), MiB(after_sync_anon), MiB(sync_peak), kept.records / 1048576.0,
        kept.answer / 1048576.0);
    if (!synced || kept.answer == 0) {
        std::fprintf(stderr, "bench_memory: the sync did not come\n");
        return 1;
    }
    const double kept_mib = static_cast<double>(kept.records + kept.answer) / 1048576.0;
    tarvo::bench::Figure held;
    held.road = "Memory";
    held.name = "held after a sync, above the start (anonymous)";
    held.unit = "MiB";
    held.value = MiB(after_sync_anon - started_anon);
    held.floor = kept_mib;
    held.target = 1.1;
    held.note = "the floor is what the service keeps by its rules: the records and the raw answer";
    tarvo::bench::Emit(options, held);
    held.name = "sync's peak above the start";
    held.value = MiB(sync_peak - started);
    held.floor = kept.answer / 1048576.0;
    held.target = 0;
    held.note = "the floor here is the raw answer's size";
    tarvo::bench::Emit(options, held);

    Json::Value answer(Json::objectValue);
    answer["method"] = "set one agreement";
    answer["request_item"] = "viewing";
    answer["is_agreed"] = true;
    const auto answered = link.Call(answer);
    if (!answered || !log.WaitFor("set agreement success!")) {
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
