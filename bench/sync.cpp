// Sync: from "request update disclaimers" to the notification "new_disclaimer_got", against
// tarvo-cloud on loopback, with the store out of date: each round the set's language changes
// (English, French, English...), so the service fetches the update notice and the 21-record
// answer (about 400 KB) and writes every record, the raw answer and the language to its file.
// Floor, in the same run: the same two GETs (the service's own request lines, as the cloud recorded
// them) with bare libcurl, one JsonCpp parse of each body, and the same row writes (21 records,
// the raw answer, the language) as autocommit UPDATEs with bare SQLite on a copy of the store.
// Network and disk drift, so the two run by turns and their medians are compared. Beside the wall
// time each round's CPU time is measured: the host's threads for the figure, the calling thread
// for the floor (the cloud's is in neither). After each sync the agreement service looks for
// answers to upload (it finds none: the seeded answers are reported); the next step waits until
// the service is idle, so that nothing of one round runs into the next, and the run fails if the
// cloud got an upload during the rounds.
#include "bare_store.h"
#include "report.h"
#include "television.h"

#include <vconf.h>

#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <memory>

namespace {

const char* const kLanguages[2] = {"fr_FR.utf8", "en_US.utf8"};

bool Parse(const std::string& text, Json::Value& value) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &value, &errors);
}

}  // namespace

int main(int argc, char** argv) {
    const tarvo::bench::Options options = tarvo::bench::ParseOptions(argc, argv);
    tarvo::bench::TempDir data("tarvo-bench-data");
    tarvo::bench::TempDir root("tarvo-bench-sync");
    tarvo::bench::Cloud cloud;
    std::string error;
    if (!tarvo::bench::SeededTelevision(root, data.Path(), cloud, error)) {
        std::fprintf(stderr, "bench_sync: %s\n", error.c_str());
        return 1;
    }
    const std::string floor_file = tarvo::bench::FloorStore(root, error);
    tarvo::bench::Host host;
    tarvo::bench::HostLink calls;
    tarvo::bench::HostLink events;
    tarvo::bench::BareStore store;
    // A television on the network, as it is when a user asks for an update.
    if (floor_file.empty() || !tarvo::bench::SetNetwork(root, true) || !host.Start(root, error) ||
        !calls.Connect(host.SocketPath()) || !events.Connect(host.SocketPath()) || !events.Subscribe() ||
        !store.Open(floor_file)) {
        std::fprintf(stderr, "bench_sync: %s\n", error.c_str());
        return 1;
    }
    // The network's first event makes a sync of its own (its update notice finds nothing new).
    tarvo::bench::LogTail log(root);
    log.WaitQuiet(std::chrono::milliseconds(500));
    const std::vector<tarvo::bench::Row> rows = store.DisclaimerRows();
    if (rows.size() != tarvo::bench::Records()) {
        std::fprintf(stderr, "bench_sync: the store holds %zu records\n", rows.size());
        return 1;
    }

    Json::Value request(Json::objectValue);
    request["method"] = "request update disclaimers";
    request["request_from"] = "wizard-easy";
    size_t round = 0;
    const auto sync = [&] {
        if (vconf_set_str("db/menu_widget/language", kLanguages[round++ % 2]) != 0) return false;
        const auto reply = calls.Call(request);
        return reply && (*reply)["result"].asBool() && events.WaitNotification("new_disclaimer_got");
    };
    // One round in each language first: the cloud then holds the service's own requests for both.
    // The rows as each language leaves them: the floor writes what the service wrote, since SQLite
    // skips the write of a row that an UPDATE leaves as it was.
    std::vector<tarvo::bench::Row> language_rows[2];
    const auto copy_rows = [&](std::vector<tarvo::bench::Row>& into) {
        tarvo::bench::BareStore live;
        if (!live.Open(root.At(tarvo::bench::kStoreFile))) return false;
        into = live.DisclaimerRows();
        return into.size() == rows.size();
    };
    if (!cloud.AdminDelete("/admin/requests") || !sync() || !copy_rows(language_rows[0]) || !sync() ||
        !copy_rows(language_rows[1])) {
        std::fprintf(stderr, "bench_sync: the first updates did not come\n");
        return 1;
    }
    // The rows a sync changes: the known records, which alternate between the languages (the extra
    // rows of a larger store stay as they are, and a sync leaves them alone).
    std::vector<const tarvo::bench::Row*> changed_rows[2];
    for (size_t i = 0; i < rows.size(); ++i) {
        const tarvo::bench::Row& in_french = language_rows[0][i];
        const tarvo::bench::Row& in_english = language_rows[1][i];
        bool same = in_french.size() == in_english.size();
        for (size_t c = 0; same && c < in_french.size(); ++c) {
            same = in_french[c].type == in_english[c].type && in_french[c].integer == in_english[c].integer &&
                   in_french[c].text == in_english[c].text;
        }
        if (same) continue;
        changed_rows[0].push_back(&in_french);
        changed_rows[1].push_back(&in_english);
    }
    std::vector<tarvo::bench::BareRequest> gets = cloud.Recorded("GET");
    if (gets.size() > 4) gets.erase(gets.begin(), gets.end() - 4);
    if (gets.size() != 4 || gets[1].url.find("/disclaimers/") == std::string::npos) {
        std::fprintf(stderr, "bench_sync: the service made %zu requests, not 4\n", gets.size());
        return 1;
    }
    size_t floor_round = 0;
    const auto bare_sync = [&] {
        const size_t first = (floor_round++ % 2) * 2;
        std::string notice;
        std::string disclaimers;
        Json::Value parsed;
        if (!tarvo::bench::BareTransfer(gets[first], notice) || !Parse(notice, parsed) ||
            !tarvo::bench::BareTransfer(gets[first + 1], disclaimers) || !Parse(disclaimers, parsed)) {
            return false;
        }
        if (!store.UpdateInfo(0, disclaimers) || !store.UpdateInfo(1, kLanguages[first / 2])) return false;
        for (const tarvo::bench::Row* row : changed_rows[first / 2]) {
            if (!store.UpdateDisclaimer(*row)) return false;
        }
        return true;
    };
    std::string answer;
    if (tarvo::bench::BareTransfer(gets[1], answer)) {
        std::printf("answer: %zu records, %zu KB; the store: %zu records, %zu of them changed by a sync\n",
                    tarvo::bench::Records(), answer.size() / 1024, rows.size(), changed_rows[0].size());
    }
    std::vector<double> figure_cpu;
    std::vector<double> floor_cpu;
    const auto timed_sync = [&]() -> double {
        const double cpu_before = tarvo::bench::ThreadsCpuSeconds(host.Pid());
        const auto start = std::chrono::steady_clock::now();
        if (!sync()) return -1;
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        // The agreement service's look for answers to upload, which follows the merge, ends first.
        if (!log.WaitQuiet(std::chrono::milliseconds(100))) return -1;
        figure_cpu.push_back(tarvo::bench::ThreadsCpuSeconds(host.Pid()) - cpu_before);
        return seconds;
    };
    const auto timed_bare_sync = [&]() -> double {
        const double cpu_before = tarvo::bench::CallingThreadCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        if (!bare_sync()) return -1;
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        floor_cpu.push_back(tarvo::bench::CallingThreadCpuSeconds() - cpu_before);
        return seconds;
    };
    tarvo::bench::Paired paired;
    // A round of 2,000 records moves about 37 MB three times (the answer, the store, the log line
    // that carries the raw answer): fewer rounds there.
    const int rounds = options.quick ? 1 : (tarvo::bench::Records() > 21 ? 9 : 30);
    const size_t puts_before = cloud.Recorded("PUT").size();
    if (!tarvo::bench::RunPaired("sync", rounds, timed_sync, timed_bare_sync, paired, error)) {
        std::fprintf(stderr, "bench_sync: %s\n", error.c_str());
        return 1;
    }
    const size_t uploads = cloud.Recorded("PUT").size() - puts_before;
    if (uploads != 0) {
        std::fprintf(stderr, "bench_sync: %zu uploads ran during the rounds\n", uploads);
        return 1;
    }
    // The warm-up rounds are left out, as RunPaired leaves them out.
    figure_cpu.erase(figure_cpu.begin());
    floor_cpu.erase(floor_cpu.begin());
    tarvo::bench::Figure figure;
    figure.road = "Sync";
    figure.name = "request update to new_disclaimer_got";
    figure.unit = "ms";
    figure.value = paired.figure * 1e3;
    figure.floor = paired.floor * 1e3;
    figure.target = 1.5;
    tarvo::bench::Emit(options, figure);
    figure.name = "the same, CPU time";
    figure.value = tarvo::bench::Median(figure_cpu) * 1e3;
    figure.floor = tarvo::bench::Median(floor_cpu) * 1e3;
    figure.target = 0;
    figure.note = "CPU time of the host's threads against the floor's thread; the cloud's in neither";
    tarvo::bench::Emit(options, figure);
    return 0;
}
