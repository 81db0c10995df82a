// The platform calls the service makes at every client call: one log line, one device profile
// value, one vconf key. Floors: the same line formatted and written with one write(2) to a file
// kept open; for a value the user may edit at any time, one stat(2) of its file (the least that
// tells it is unchanged) and a look-up in the parsed JSON.
#include "report.h"
#include "television.h"

#include <dlog.h>
#include <system_info.h>
#include <tarvo/platform.h>
#include <vconf.h>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>

namespace {

const char* const kFormat = "%s: %s(%d) > \033[32m [%s:%d] IsSupportVoiceRecognition : %s\033[0m\n";

std::string g_root;

void BM_LogLine(benchmark::State& state) {
    for (auto _ : state) {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "TarvoDataControl", kFormat, "TarvoExternalData.cpp",
                     "IsSupportVoiceRecognition", 184, "IsSupportVoiceRecognition", 184, "true");
    }
}

// The same line, stamped and written by the bare C library to a file kept open.
void FloorLine(int fd, const char* fmt, ...) {
    char message[1024];
    va_list args;
    va_start(args, fmt);
    vsnprintf(message, sizeof(message), fmt, args);
    va_end(args);
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char line[1200];
    const size_t stamp = strftime(line, sizeof(line), "%Y-%m-%d %H:%M:%S", &local);
    const int length = snprintf(line + stamp, sizeof(line) - stamp, ".%03ld I/TarvoDataControl(%d): %s",
                                now.tv_nsec / 1000000L, 4242, message);
    ssize_t ignored = write(fd, line, stamp + static_cast<size_t>(length));
    (void)ignored;
}

void BM_LogLineFloor(benchmark::State& state) {
    const std::string path = g_root + "/floor.log";
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    for (auto _ : state) {
        FloorLine(fd, kFormat, "TarvoExternalData.cpp", "IsSupportVoiceRecognition", 184,
                  "IsSupportVoiceRecognition", 184, "true");
    }
    close(fd);
}

void BM_ProfileValue(benchmark::State& state) {
    for (auto _ : state) {
        bool value = false;
        benchmark::DoNotOptimize(system_info_get_value_bool(SYSTEM_INFO_KEY_UHD_SUPPORT, &value));
    }
}

void BM_VconfValue(benchmark::State& state) {
    for (auto _ : state) {
        int value = 0;
        benchmark::DoNotOptimize(
            vconf_get_int("db/menu/ostrel/tarvodatacontrol/defaultdisclaimeragree", &value));
    }
}

// One stat(2) of the file and the value read from JSON parsed before.
void StatAndLookUp(benchmark::State& state, const std::string& path, const Json::Value& parsed,
                   const char* object, const char* key) {
    for (auto _ : state) {
        struct stat st;
        benchmark::DoNotOptimize(stat(path.c_str(), &st));
        const Json::Value& outer = object != nullptr ? parsed[object] : parsed;
        benchmark::DoNotOptimize(outer[key].asBool());
    }
}

void BM_ProfileValueFloor(benchmark::State& state) {
    const Json::Value profile = tarvo::platform::LoadDeviceProfile().value_or(Json::Value());
    StatAndLookUp(state, tarvo::platform::DeviceProfilePath(), profile, "system_info", "13");
}

void BM_VconfValueFloor(benchmark::State& state) {
    Json::Value key(Json::objectValue);
    key["type"] = "int";
    key["value"] = 1;
    StatAndLookUp(state, g_root + "/var/vconf/db/menu/ostrel/tarvodatacontrol/defaultdisclaimeragree", key,
                  nullptr, "value");
}

}  // namespace

int main(int argc, char** argv) {
    const tarvo::bench::Options options = tarvo::bench::ParseOptions(argc, argv);
    tarvo::bench::TempDir root("tarvo-bench-platform");
    g_root = root.Path();
    if (!tarvo::bench::PrepareTelevision(root, "http://127.0.0.1:9", false) ||
        vconf_set_int("db/menu/ostrel/tarvodatacontrol/defaultdisclaimeragree", 1) != 0) {
        std::fprintf(stderr, "bench_platform: cannot prepare %s\n", g_root.c_str());
        return 1;
    }
    tarvo::bench::LetFilesSettle();
    benchmark::RegisterBenchmark("LogLine", BM_LogLine)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("LogLineFloor", BM_LogLineFloor)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("ProfileValue", BM_ProfileValue)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("ProfileValueFloor", BM_ProfileValueFloor)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("VconfValue", BM_VconfValue)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("VconfValueFloor", BM_VconfValueFloor)->Unit(benchmark::kMicrosecond);
    auto seconds = tarvo::bench::RunBenchmarks(argc, argv, options);

    const std::pair<const char*, const char*> figures[] = {{"LogLine", "one log line (__dlog_print)"},
                                                           {"ProfileValue", "one device profile value"},
                                                           {"VconfValue", "one vconf key"}};
    for (const auto& [key, name] : figures) {
        tarvo::bench::Figure figure;
        figure.road = "Platform";
        figure.name = name;
        figure.unit = "us";
        figure.value = seconds[key] * 1e6;
        figure.floor = seconds[std::string(key) + "Floor"] * 1e6;
        if (figure.value > 0 && figure.floor > 0) tarvo::bench::Emit(options, figure);
    }
    return 0;
}
