// Upload: one changed answer until the cloud has it, against tarvo-cloud's HTTPS agreement port.
// Each round changes one answer through the host's socket ("set one agreement", which posts event
// 38410 before it replies); the clock starts before the request is sent, since the upload may run
// while the reply is on its way, and stops when "set agreement success!" is written (the cloud's
// answer is in; inotify wakes the reader). The next round waits for the upload's end
// ("m_easyHandle reset").
// Floor, in the same run: what no implementation can skip, the answer's row written durably (one
// autocommit UPDATE with bare SQLite on a copy of the store) and then, since the document reports
// the stored answers, one bare libcurl PUT of the same document with the same headers over a new
// TLS connection verified against the same CA, as the service makes one per upload.
#include "bare_store.h"
#include "report.h"
#include "television.h"

#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <vector>

namespace {
const char* const kAnswered = "viewing";
}  // namespace

int main(int argc, char** argv) {
    const tarvo::bench::Options options = tarvo::bench::ParseOptions(argc, argv);
    tarvo::bench::TempDir data("tarvo-bench-data");
    tarvo::bench::TempDir root("tarvo-bench-upload");
    tarvo::bench::Cloud cloud;
    std::string error;
    if (!tarvo::bench::SeededTelevision(root, data.Path(), cloud, error)) {
        std::fprintf(stderr, "bench_upload: %s\n", error.c_str());
        return 1;
    }
    const std::string floor_file = tarvo::bench::FloorStore(root, error);
    tarvo::bench::BareStore store;
    tarvo::bench::Host host;
    tarvo::bench::HostLink link;
    if (floor_file.empty() || !store.Open(floor_file) || !tarvo::bench::SetNetwork(root, true) ||
        !host.Start(root, error) || !link.Connect(host.SocketPath())) {
        std::fprintf(stderr, "bench_upload: %s\n", error.c_str());
        return 1;
    }
    tarvo::bench::LogTail log(root);
    // The agreement service's first upload, at the network's first event, finds nothing new.
    log.WaitQuiet(std::chrono::milliseconds(500));
    tarvo::bench::LetFilesSettle();

    bool agree = true;
    const auto upload = [&]() -> double {
        Json::Value request(Json::objectValue);
        request["method"] = "set one agreement";
        request["request_item"] = kAnswered;
        request["is_agreed"] = agree;
        agree = !agree;
        const auto start = std::chrono::steady_clock::now();
        const auto reply = link.Call(request);
        if (!reply || !(*reply)["result"].asBool()) return -1;
        if (!log.WaitFor("set agreement success!")) return -1;
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        return log.WaitFor("m_easyHandle reset") ? seconds : -1;
    };
    // One upload first: the cloud then holds the service's own PUT to replay.
    if (!cloud.AdminDelete("/admin/requests") || upload() < 0) {
        std::fprintf(stderr, "bench_upload: the first upload did not succeed\n");
        return 1;
    }
    const std::vector<tarvo::bench::BareRequest> puts = cloud.Recorded("PUT");
    if (puts.empty()) {
        std::fprintf(stderr, "bench_upload: the cloud recorded no PUT\n");
        return 1;
    }
    std::printf("document: %zu bytes to %s\n", puts.back().body.size(), puts.back().url.c_str());
    tarvo::bench::Row row = store.DisclaimerRow(kAnswered);
    const int agreed = store.Column("isAgreed");
    if (row.empty() || agreed < 0) {
        std::fprintf(stderr, "bench_upload: no row %s in the store\n", kAnswered);
        return 1;
    }
    std::vector<double> put_seconds;
    const auto bare_put = [&] {
        row[static_cast<size_t>(agreed)].integer ^= 1;
        if (!store.UpdateDisclaimer(row)) return false;
        const auto start = std::chrono::steady_clock::now();
        std::string answer;
        const bool put =
            tarvo::bench::BareTransfer(puts.back(), answer) && answer.find("ok") != std::string::npos;
        put_seconds.push_back(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        return put;
    };
    tarvo::bench::Paired paired;
    if (!tarvo::bench::RunPaired("upload", options.quick ? 1 : 40, upload, tarvo::bench::Timed(bare_put),
                                 paired, error)) {
        std::fprintf(stderr, "bench_upload: %s\n", error.c_str());
        return 1;
    }
    std::printf("the bare PUT alone: median %.3f ms\n", tarvo::bench::Median(put_seconds) * 1e3);
    tarvo::bench::Figure figure;
    figure.road = "Upload";
    figure.name = "set one agreement to set agreement success";
    figure.unit = "ms";
    figure.value = paired.figure * 1e3;
    figure.floor = paired.floor * 1e3;
    figure.target = 1.5;
    tarvo::bench::Emit(options, figure);
    return 0;
}
