// Answers: "set one agreement" through the host's socket, each answer changed and in the file
// (its row updated, synced by SQLite) before the reply is sent. The network is down, so no upload
// follows an answer: the upload road is measured on its own.
// Floor, in the same run: one autocommit UPDATE of the same row, all its columns, with bare SQLite
// on a copy of the store in the same folder and SQLite's default journal and sync settings, as
// the service uses them. The disk's speed drifts, so the two run by turns and their medians are
// compared.
#include "bare_store.h"
#include "report.h"
#include "television.h"

#include <json/json.h>

#include <cstdio>

namespace {
const char* const kAnswered = "viewing";
}  // namespace

int main(int argc, char** argv) {
    const tarvo::bench::Options options = tarvo::bench::ParseOptions(argc, argv);
    tarvo::bench::TempDir data("tarvo-bench-data");
    tarvo::bench::TempDir root("tarvo-bench-answers");
    std::string error;
    {
        tarvo::bench::Cloud cloud;
        if (!tarvo::bench::SeededTelevision(root, data.Path(), cloud, error)) {
            std::fprintf(stderr, "bench_answers: %s\n", error.c_str());
            return 1;
        }
    }
    const std::string floor_file = tarvo::bench::FloorStore(root, error);
    tarvo::bench::Host host;
    tarvo::bench::HostLink link;
    tarvo::bench::BareStore store;
    if (floor_file.empty() || !host.Start(root, error) || !link.Connect(host.SocketPath()) ||
        !store.Open(floor_file)) {
        std::fprintf(stderr, "bench_answers: %s\n", error.c_str());
        return 1;
    }
    tarvo::bench::Row row = store.DisclaimerRow(kAnswered);
    const int agreed = store.Column("isAgreed");
    if (row.empty() || agreed < 0) {
        std::fprintf(stderr, "bench_answers: no row %s in the store\n", kAnswered);
        return 1;
    }
    tarvo::bench::LetFilesSettle();

    const std::string lines[2] = {
        std::string(R"({"id": 1, "call": {"method": "set one agreement", "request_item": ")") + kAnswered +
            R"(", "is_agreed": true}})",
        std::string(R"({"id": 1, "call": {"method": "set one agreement", "request_item": ")") + kAnswered +
            R"(", "is_agreed": false}})"};
    size_t sent = 0;
    const auto answer = [&] { return link.SendLine(lines[sent++ % 2]) && link.ReadLine().has_value(); };
    const auto bare_update = [&] {
        row[static_cast<size_t>(agreed)].integer ^= 1;
        return store.UpdateDisclaimer(row);
    };
    tarvo::bench::Paired paired;
    if (!tarvo::bench::RunPaired("set one agreement", options.quick ? 3 : 400, tarvo::bench::Timed(answer),
                                 tarvo::bench::Timed(bare_update), paired, error)) {
        std::fprintf(stderr, "bench_answers: %s\n", error.c_str());
        return 1;
    }
    tarvo::bench::Figure figure;
    figure.road = "Answers";
    figure.name = "set one agreement, socket, durable";
    figure.unit = "calls/s";
    figure.value = 1 / paired.figure;
    figure.floor = 1 / paired.floor;
    figure.higherIsBetter = true;
    figure.target = 1.5;
    tarvo::bench::Emit(options, figure);
    return 0;
}
