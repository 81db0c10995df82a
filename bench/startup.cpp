// Start-up: from loading the module to "is service available" true, on a store file of 21 records,
// in a fresh process each time (the service's singletons live as long as their process). The
// module is loaded as the host loads it: dlopen (its libraries and static initialisers run then),
// the exported globals found with dlsym, Start() on a thread of its own. The network is down, so
// that no sync joins in.
// Floor, in a fresh process too: opening the same file and reading both of its tables with bare
// SQLite. The two alternate, and the medians are compared.
#include "bare_store.h"
#include "report.h"
#include "television.h"

#include <bracken/ser.h>
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

double MicrosecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// The child that loads and starts the service; prints "elapsed_us N" and "loaded_us N".
int StartService() {
    Sedge::TCMessage available;
    available.json["method"] = "is service available";
    available.type = "tarvodatacontrol";
    const auto start = Clock::now();
    void* module = dlopen(TARVO_MODULE_PATH, RTLD_NOW | RTLD_GLOBAL);
    // dlsym gives the address of the exported pointer.
    auto* const* service =
        module != nullptr ? static_cast<bracken::ser::Service**>(dlsym(module, "g_service")) : nullptr;
    auto* const* proxy = module != nullptr
                             ? static_cast<bracken::ser::ServiceProxy**>(dlsym(module, "g_service_proxy"))
                             : nullptr;
    if (service == nullptr || proxy == nullptr || *service == nullptr || *proxy == nullptr) {
        std::fprintf(stderr, "cannot load %s: %s\n", TARVO_MODULE_PATH, dlerror());
        return 1;
    }
    const double loaded = MicrosecondsSince(start);
    // The host calls Start() on a thread of its own.
    std::thread([service] { (*service)->Start(); }).join();
    while (!(*proxy)->CallAPI(available).json["result"].asBool()) {
        if (MicrosecondsSince(start) > 60e6) return 1;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    std::printf("elapsed_us %.1f\nloaded_us %.1f\n", MicrosecondsSince(start), loaded);
    std::fflush(stdout);
    // The service has no orderly end.
    _exit(0);
}

// The child that reads the file with bare SQLite; prints "elapsed_us N".
int ReadStore() {
    const auto start = Clock::now();
    tarvo::bench::BareStore store;
    if (!store.Open(std::string(std::getenv("TARVO_ROOT")) + tarvo::bench::kStoreFile)) {
        return 1;
    }
    const size_t rows = store.DisclaimerRows().size() + store.InfoRows().size();
    const double elapsed = MicrosecondsSince(start);
    if (rows == 0) return 1;
    std::printf("elapsed_us %.1f\n", elapsed);
    return 0;
}

// The child's elapsed seconds, or -1; its loading time, when it tells one, goes to `loaded`.
double RunChild(const char* self, const char* mode, const tarvo::bench::TempDir& root,
                std::vector<double>* loaded = nullptr) {
    tarvo::bench::ChildProcess child({self, mode}, {{"TARVO_ROOT", root.Path()}}, root.Path() + "/child");
    const auto code = child.Wait(std::chrono::seconds(60));
    const std::string out = child.Stdout();
    const size_t at = out.find("elapsed_us ");
    if (!code || *code != 0 || at == std::string::npos) return -1;
    const size_t loaded_at = out.find("loaded_us ");
    if (loaded != nullptr && loaded_at != std::string::npos) {
        loaded->push_back(std::strtod(out.c_str() + loaded_at + 10, nullptr) / 1e6);
    }
    return std::strtod(out.c_str() + at + 11, nullptr) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--child-start") == 0) return StartService();
    if (argc == 2 && std::strcmp(argv[1], "--child-floor") == 0) return ReadStore();
    const tarvo::bench::Options options = tarvo::bench::ParseOptions(argc, argv);
    tarvo::bench::TempDir data("tarvo-bench-data");
    tarvo::bench::TempDir root("tarvo-bench-startup");
    std::string error;
    {
        tarvo::bench::Cloud cloud;
        if (!tarvo::bench::SeededTelevision(root, data.Path(), cloud, error)) {
            std::fprintf(stderr, "bench_startup: %s\n", error.c_str());
            return 1;
        }
    }
    tarvo::bench::LetFilesSettle();
    const std::string self = "/proc/self/exe";
    char path[4096];
    const ssize_t length = readlink(self.c_str(), path, sizeof(path) - 1);
    if (length <= 0) return 1;
    path[length] = '\0';
    tarvo::bench::Paired paired;
    std::vector<double> loaded;
    if (!tarvo::bench::RunPaired(
            "start-up", options.quick ? 1 : 20,
            [&] { return RunChild(path, "--child-start", root, &loaded); },
            [&] { return RunChild(path, "--child-floor", root); }, paired, error)) {
        std::fprintf(stderr, "bench_startup: %s\n", error.c_str());
        return 1;
    }
    std::printf("of which dlopen and dlsym: median %.3f ms\n", tarvo::bench::Median(loaded) * 1e3);
    tarvo::bench::Figure figure;
    figure.road = "Start-up";
    figure.name = "dlopen to is service available";
    figure.unit = "ms";
    figure.value = paired.figure * 1e3;
    figure.floor = paired.floor * 1e3;
    figure.target = 2;
    tarvo::bench::Emit(options, figure);
    return 0;
}
