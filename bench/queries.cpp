// Client queries on a 21-record store (about 400 KB of texts, as the cloud serves them): "get
// disclaimer number", "get disclaimer by order" over every index and "get disclaimer by term id",
// in-process through g_service_proxy and through the host's socket.
// Floors, in the same run: copying the same records, writing the same reply with JsonCpp and writing
// as many bytes as the call logs with one write(2); for the socket, a bare Unix-socket server
// (bench_bare_echo) that reads each request line and writes back the very bytes the host answered
// it with, measured by turns with the host through the same client. Beside the socket figures, the
// host's CPU time a call: what the same call costs when it runs between a client's turns.
#include "report.h"
#include "television.h"

#include <TarvoDataControlService.h>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace {

using tarvo::bench::HostLink;

// A disclaimer record as plain data: the fields the store keeps for each one.
struct Record {
    std::string id;
    int disorder = 0;
    int displayWindow = 0;
    std::string version, title, intro, details;
    std::string button1, button2, button3, button4, button5, button6, button7, button8, button9, button10;
    bool isAgreed = false, isAgreementPut = false;
    std::string countryCode;
    bool isOnlyNotice = false, isVisibleAtPnP = true, isVisibleAtMenu = true, isVisibleAtHotel = true;
    std::string agreeDependency;
    bool isCheckVoiceRec = false, isCheckUHDRM = false, isCheckUHD = false, isPPused = false;
    bool isReverse = false, hasRevised = false;
    std::vector<std::string> reservedStrings;
    std::string subLink;
    bool isForOstrel = false;
};

enum class Query { kNumber, kByOrder, kByTermId };

struct State {
    std::vector<Record> listed;  // what requester 4 lists, in its order
    std::vector<Json::Value> requests[3];
    std::vector<std::string> lines[3];  // the same requests as host frames
    std::string socket;                 // the host's
    std::string floorSocket;            // the bare server's
    size_t logBytes[3] = {0, 0, 0};     // what one call of each query adds to the log
    int floorLog = -1;                  // the in-process floor writes its log bytes here
};

State* g_state = nullptr;

Json::Value Request(Query query, size_t index) {
    Json::Value request(Json::objectValue);
    switch (query) {
        case Query::kNumber:
            request["method"] = "get disclaimer number";
            request["requester"] = 4;
            break;
        case Query::kByOrder:
            request["method"] = "get disclaimer by order";
            request["requester"] = 4;
            request["request_index"] = static_cast<int>(index);
            break;
        case Query::kByTermId:
            request["method"] = "get disclaimer by term id";
            request["request_item"] = g_state->listed[index].id;
            break;
    }
    return request;
}

Json::Value CallInProcess(const Json::Value& request) {
    Sedge::TCMessage message;
    message.json = request;
    message.type = "tarvodatacontrol";
    return g_service_proxy->CallAPI(message).json;
}

void UiInfo(const Record& item, Json::Value& out) {
    out["id"] = item.id;
    out["order"] = item.disorder;
    out["version"] = item.version;
    out["title"] = item.title;
    out["intro"] = item.intro;
    out["details"] = item.details;
    out["button1"] = item.button1;
    out["button2"] = item.button2;
    out["button3"] = item.button3;
    out["button4"] = item.button4;
    out["button5"] = item.button5;
    out["button6"] = item.button6;
    out["button7"] = item.button7;
    out["button8"] = item.button8;
    out["button9"] = item.button9;
    out["button10"] = item.button10;
    out["is_agreed"] = item.isAgreed;
    out["only_notice"] = item.isOnlyNotice;
    out["ppused"] = item.isPPused;
    out["reverse"] = item.isReverse;
    out["agree_dependency"] = item.agreeDependency;
}

// The floor of one query: the records copied (a list for the ordered queries, a map by id for the
// query by id), the reply built with JsonCpp, the copies freed.
Json::Value FloorReply(Query query, size_t index) {
    const std::vector<Record>& listed = g_state->listed;
    Json::Value reply(Json::objectValue);
    if (query == Query::kByTermId) {
        std::map<std::string, Record*> copies;
        for (const Record& record : listed) copies[record.id] = new Record(record);
        const auto found = copies.find(listed[index].id);
        reply["result"] = true;
        UiInfo(*found->second, reply);
        for (auto& entry : copies) delete entry.second;
        return reply;
    }
    std::vector<Record*> copies;
    for (const Record& record : listed) copies.push_back(new Record(record));
    std::sort(copies.begin(), copies.end(),
              [](const Record* left, const Record* right) { return left->disorder < right->disorder; });
    if (query == Query::kNumber) {
        reply["number"] = static_cast<Json::UInt>(copies.size());
        reply["result"] = true;
    } else {
        reply["result"] = true;
        UiInfo(*copies[index], reply);
    }
    for (Record* copy : copies) delete copy;
    return reply;
}

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

void BM_InProcess(benchmark::State& state, Query query) {
    const auto& requests = g_state->requests[static_cast<int>(query)];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(CallInProcess(requests[i]));
        i = (i + 1) % requests.size();
    }
}

// A call's log lines are the service's own output, which it must write: the floor writes as many
// bytes with one write(2) to a file in the same folder, and starts the file again at the size at
// which the log turns over.
void WriteFloorLog(size_t bytes) {
    static const std::string kText = [] {
        std::string text(64 * 1024, 'x');
        for (size_t at = 99; at < text.size(); at += 100) text[at] = '\n';
        return text;
    }();
    static size_t written = 0;  // the floor alone writes the file: its size needs no system call
    if (bytes == 0 || g_state->floorLog < 0) return;
    bytes = std::min(bytes, kText.size());
    if (written + bytes > 1024 * 1024) {
        benchmark::DoNotOptimize(ftruncate(g_state->floorLog, 0));
        written = 0;
    }
    benchmark::DoNotOptimize(write(g_state->floorLog, kText.data(), bytes));
    written += bytes;
}

void BM_InProcessFloor(benchmark::State& state, Query query) {
    const size_t count = g_state->listed.size();
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(FloorReply(query, i));
        WriteFloorLog(g_state->logBytes[static_cast<int>(query)]);
        i = (i + 1) % count;
    }
}

// One round on the socket at `socket`: `calls` round trips through one connection, cycling over the
// query's lines; the seconds a call took, or -1 when an answer did not come.
double SocketRound(const std::string& socket, Query query, int calls) {
    HostLink link;
    if (!link.Connect(socket)) return -1;
    const auto& lines = g_state->lines[static_cast<int>(query)];
    // The first answer waits for the server to take the connection in: not part of a call.
    if (!link.SendLine(lines[0]) || !link.ReadLine()) return -1;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; ++i) {
        if (!link.SendLine(lines[static_cast<size_t>(i) % lines.size()]) || !link.ReadLine()) return -1;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    return took.count() / calls;
}

// Asks the host each query's lines once and writes them with the host's answers as the floor's
// table: a request line, then its reply line.
bool WriteFloorTable(const std::string& path) {
    HostLink link;
    if (!link.Connect(g_state->socket)) return false;
    std::string table;
    for (const auto& lines : g_state->lines) {
        for (const std::string& line : lines) {
            const auto reply = link.SendLine(line) ? link.ReadLine() : std::nullopt;
            if (!reply) return false;
            table += line + "\n" + *reply + "\n";
        }
    }
    std::ofstream out(path, std::ios::binary);
    return static_cast<bool>(out << table) && static_cast<bool>(out.flush());
}

// The floor's server, started on the table once the host has answered every line.
std::unique_ptr<tarvo::bench::ChildProcess> StartFloor(const tarvo::bench::TempDir& dir, std::string& error) {
    const std::string table = dir.At("/floor-replies.txt");
    if (!WriteFloorTable(table)) {
        error = "the host did not answer the lines of the floor's table";
        return nullptr;
    }
    auto floor = std::make_unique<tarvo::bench::ChildProcess>(
        std::vector<std::string>{TARVO_BARE_ECHO_BIN, g_state->floorSocket, table},
        std::map<std::string, std::string>{}, dir.At("/floor"));
    if (!floor->Started() || !tarvo::bench::WaitUntil([] {
            HostLink probe;
            return probe.Connect(g_state->floorSocket);
        })) {
        error = "bench_bare_echo did not come up";
        return nullptr;
    }
    return floor;
}

Record FromReply(const Json::Value& reply) {
    Record record;
    record.id = reply["id"].asString();
    record.disorder = reply["order"].asInt();
    record.version = reply["version"].asString();
    record.title = reply["title"].asString();
    record.intro = reply["intro"].asString();
    record.details = reply["details"].asString();
    record.button1 = reply["button1"].asString();
    record.button2 = reply["button2"].asString();
    record.isAgreed = reply["is_agreed"].asBool();
    record.isPPused = reply["ppused"].asBool();
    record.countryCode = "US";
    return record;
}

// "get disclaimer number" in-process, each call followed by one byte sent to a partner thread and
// back, as a host's call is followed by a client's turn: the round and the call in it, in
// microseconds. Beside the socket figures it shows what a reply that waits for another thread costs
// on this machine when the work before it takes as long as a call, with no transport of ours.
std::pair<double, double> OneRoundBetweenTurns(int calls) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return {0, 0};
    std::thread partner([&] {
        char byte;
        while (read(pair[1], &byte, 1) == 1 && write(pair[1], &byte, 1) == 1) {
        }
    });
    const Json::Value& request = g_state->requests[static_cast<int>(Query::kNumber)][0];
    std::chrono::steady_clock::duration in_calls{};
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; ++i) {
        const auto call_start = std::chrono::steady_clock::now();
        CallInProcess(request);
        in_calls += std::chrono::steady_clock::now() - call_start;
        char byte = 'x';
        if (write(pair[0], &byte, 1) != 1 || read(pair[0], &byte, 1) != 1) break;
    }
    const auto took = std::chrono::steady_clock::now() - start;
    close(pair[0]);
    partner.join();
    close(pair[1]);
    using Micros = std::chrono::duration<double, std::micro>;
    return {Micros(took).count() / calls, Micros(in_calls).count() / calls};
}

// The medians of `rounds` rounds as the socket road runs them: a fresh partner for each.
std::pair<double, double> CallsBetweenTurns(int rounds, int calls) {
    std::vector<double> round_us;
    std::vector<double> call_us;
    for (int round = 0; round < rounds; ++round) {
        const auto [whole, call] = OneRoundBetweenTurns(calls);
        round_us.push_back(whole);
        call_us.push_back(call);
    }
    return {tarvo::bench::Median(round_us), tarvo::bench::Median(call_us)};
}

bool StartInProcess(std::string& error) {
    std::thread([] { g_service->Start(); }).join();
    Json::Value available(Json::objectValue);
    available["method"] = "is service available";
    if (!tarvo::bench::WaitUntil([&] { return CallInProcess(available)["result"].asBool(); })) {
        error = "the service in this process did not become available";
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const tarvo::bench::Options options = tarvo::bench::ParseOptions(argc, argv);
    tarvo::bench::TempDir data("tarvo-bench-data");
    tarvo::bench::TempDir root("tarvo-bench-host");
    tarvo::bench::TempDir local("tarvo-bench-local");
    std::string error;
    State state;
    g_state = &state;
    {
        tarvo::bench::Cloud cloud;
        if (!tarvo::bench::SeededTelevision(root, data.Path(), cloud, error)) {
            std::fprintf(stderr, "bench_queries: %s\n", error.c_str());
            return 1;
        }
    }
    // The service in this process runs on a copy of the seeded root, the host on the root itself.
    if (!tarvo::bench::CopyTree(root.Path(), local.Path())) {
        std::fprintf(stderr, "bench_queries: cannot copy %s\n", root.Path().c_str());
        return 1;
    }
    setenv("TARVO_ROOT", local.Path().c_str(), 1);
    tarvo::bench::LogToNullIfAsked(local.Path());
    tarvo::bench::Host host;
    state.floorSocket = local.Path() + "/floor.sock";
    if (!StartInProcess(error) || !host.Start(root, error)) {
        std::fprintf(stderr, "bench_queries: %s\n", error.c_str());
        return 1;
    }
    state.socket = host.SocketPath();

    const Json::Value number = CallInProcess(Request(Query::kNumber, 0));
    for (Json::UInt i = 0; i < number["number"].asUInt(); ++i) {
        state.listed.push_back(FromReply(CallInProcess(Request(Query::kByOrder, i))));
    }
    if (state.listed.size() != tarvo::bench::StoredListedCount()) {
        std::fprintf(stderr, "bench_queries: the store lists %zu records, not %zu\n", state.listed.size(),
                     tarvo::bench::StoredListedCount());
        return 1;
    }
    size_t text_bytes = 0;
    for (const Record& record : state.listed) text_bytes += record.details.size();
    std::printf("store: %zu records listed, %zu KB of details\n", state.listed.size(), text_bytes / 1024);
    // At most 21 indexes, spread over the list: with thousands of records each call copies them all,
    // and the cost of one call does not depend on the index it asks for.
    const size_t asked = std::min<size_t>(state.listed.size(), 21);
    for (int q = 0; q < 3; ++q) {
        for (size_t k = 0; k < asked; ++k) {
            const size_t i = k * state.listed.size() / asked;
            state.requests[q].push_back(Request(static_cast<Query>(q), i));
            Json::Value frame(Json::objectValue);
            frame["id"] = 1;
            frame["call"] = state.requests[q].back();
            state.lines[q].push_back(Compact(frame));
        }
    }
    auto floor = StartFloor(local, error);
    if (floor == nullptr) {
        std::fprintf(stderr, "bench_queries: %s\n", error.c_str());
        return 1;
    }

    const std::pair<const char*, Query> queries[] = {
        {"number", Query::kNumber}, {"by_order", Query::kByOrder}, {"by_term_id", Query::kByTermId}};
    for (const auto& [name, query] : queries) {
        benchmark::RegisterBenchmark((std::string("InProcess/") + name).c_str(), BM_InProcess, query)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark((std::string("InProcessFloor/") + name).c_str(), BM_InProcessFloor,
                                     query)
            ->Unit(benchmark::kMicrosecond);
    }
    // What each query writes to the log: the floor writes as many bytes.
    for (int q = 0; q < 3; ++q) {
        const size_t calls = state.requests[q].size();
        // The log may turn over meanwhile, and a shorter file measures nothing: the calls run again.
        for (int attempt = 0; attempt < 3 && state.logBytes[q] == 0; ++attempt) {
            const std::string before = tarvo::bench::ReadFile(local.At("/var/log/tarvo.log"));
            for (const Json::Value& request : state.requests[q]) CallInProcess(request);
            const std::string after = tarvo::bench::ReadFile(local.At("/var/log/tarvo.log"));
            if (after.size() <= before.size()) continue;
            state.logBytes[q] = (after.size() - before.size()) / calls;
            const auto lines =
                std::count(after.begin() + static_cast<long>(before.size()), after.end(), '\n');
            std::printf("%s: %.1f log lines, %zu bytes a call\n", state.requests[q][0]["method"].asCString(),
                        static_cast<double>(lines) / static_cast<double>(calls), state.logBytes[q]);
        }
    }
    state.floorLog =
        open(local.At("/var/log/floor.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    tarvo::bench::LetFilesSettle();
    const auto [turn_round, turn_call] = CallsBetweenTurns(options.quick ? 1 : 31, options.quick ? 20 : 400);
    auto seconds = tarvo::bench::RunBenchmarks(argc, argv, options);

    const std::pair<const char*, const char*> methods[] = {{"number", "get disclaimer number"},
                                                           {"by_order", "get disclaimer by order"},
                                                           {"by_term_id", "get disclaimer by term id"}};
    for (const auto& [key, method] : methods) {
        for (const auto& [road, target] : {std::pair<const char*, double>{"InProcess", 2.0}}) {
            // An in-process call runs whole on the calling thread, its log write included: its CPU
            // time is its cost, which other people's builds on a shared machine do not stretch.
            const bool in_process = std::string(road) == "InProcess";
            const std::string suffix = in_process ? tarvo::bench::kCpuSuffix : "";
            const double value = seconds[std::string(road) + "/" + key + suffix];
            const double floor_value = seconds[std::string(road) + "Floor/" + key + suffix];
            if (value <= 0 || floor_value <= 0) continue;
            tarvo::bench::Figure figure;
            figure.road = "Client queries";
            figure.name = std::string(method) + (std::string(road) == "Socket" ? ", socket" : ", in-process");
            figure.unit = "calls/s";
            figure.value = 1 / value;
            figure.floor = 1 / floor_value;
            figure.higherIsBetter = true;
            figure.target = target;
            if (in_process) figure.note = "per second of the calling thread's CPU time";
            tarvo::bench::Emit(options, figure);
        }
    }
    // The socket road by turns with its floor, through the same client.
    const std::pair<const char*, int> socket_calls[] = {
        {"get disclaimer number", 400}, {"get disclaimer by order", 200}, {"get disclaimer by term id", 200}};
    for (int q = 0; q < 3; ++q) {
        const auto& [method, calls] = socket_calls[q];
        const int count = options.quick ? 20 : calls;
        const auto query = static_cast<Query>(q);
        const int rounds = options.quick ? 1 : 31;
        double host_cpu = 0;
        tarvo::bench::Paired paired;
        if (!tarvo::bench::RunPaired(
                method, rounds,
                [&] {
                    const double cpu_before = tarvo::bench::CpuSeconds(host.Pid());
                    const double seconds_a_call = SocketRound(state.socket, query, count);
                    host_cpu += tarvo::bench::CpuSeconds(host.Pid()) - cpu_before;
                    return seconds_a_call;
                },
                [&] { return SocketRound(state.floorSocket, query, count); }, paired, error)) {
            std::fprintf(stderr, "bench_queries: %s\n", error.c_str());
            continue;
        }
        // The CPU the host spent a call, in clock ticks of the whole process: beside the call's CPU in
        // this process, it shows how much slower the same work runs between a client's turns.
        const double in_process =
            seconds[std::string("InProcess/") + methods[q].first + tarvo::bench::kCpuSuffix];
        if (in_process > 0) {
            std::printf("%s: the host's CPU %.1f us a call, the call in-process %.1f us\n", method,
                        host_cpu / ((rounds + 1) * (count + 1)) * 1e6, in_process * 1e6);
        }
        if (q == 0) {
            std::printf(
                "%s in-process between a partner thread's turns: %.1f us a round, %.1f us of it the call\n",
                method, turn_round, turn_call);
        }
        tarvo::bench::Figure figure;
        figure.road = "Client queries";
        figure.name = std::string(method) + ", socket";
        figure.unit = "calls/s";
        figure.value = 1 / paired.figure;
        figure.floor = 1 / paired.floor;
        figure.higherIsBetter = true;
        figure.target = 4.0;
        figure.note = "floor: a bare server writing the host's reply bytes";
        tarvo::bench::Emit(options, figure);
    }
    floor.reset();
    host.Stop();
    // The service in this process has no orderly end: leave without running its destructors,
    // once the folders are gone (the service's log in them grows by megabytes a second).
    for (tarvo::bench::TempDir* folder : {&data, &root, &local}) folder->Remove();
    std::fflush(stdout);
    _exit(0);
}
