// tarvo-service-host: loads a service module, starts it and serves its clients on a
// Unix socket until SIGTERM or SIGINT.
#include "frames.h"
#include "module_loader.h"
#include "socket_server.h"

#include <bracken/ser.h>
#include <tarvo/platform.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <malloc.h>
#include <optional>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#ifdef TARVO_COVERAGE
extern "C" void __gcov_dump(void);
#endif

namespace {

constexpr const char* kUsage =
    "usage: tarvo-service-host --module PATH [--root DIR] [--socket PATH]\n"
    "\n"
    "Loads the service module at PATH, starts it and serves clients on a Unix socket.\n"
    "  --module PATH   the service module (a shared library exporting g_service,\n"
    "                  g_service_proxy and g_service_name)\n"
    "  --root DIR      the emulated television's root (default: $TARVO_ROOT)\n"
    "  --socket PATH   the client socket (default: ROOT/run/tarvodatacontrol.sock)\n"
    "  --help          show this text\n"
    "Stops on SIGTERM or SIGINT, removing the socket.\n"
    "TARVO_HOST_LINE_TIMEOUT_MS: how long a client may leave a line unfinished (default 10000).\n";

struct Options {
    std::optional<std::string> module;
    std::optional<std::string> root;
    std::optional<std::string> socket;
};

int Fail(const std::string& message) {
    std::cerr << "tarvo-service-host: " << message << std::endl;
    return 1;
}

// Once the module runs, its threads may still be at work: leave without destructors.
[[noreturn]] void Leave(int code) {
    std::fflush(stdout);
    std::fflush(stderr);
#ifdef TARVO_COVERAGE
    __gcov_dump();  // a coverage build keeps the counters that _exit would drop
#endif
    _exit(code);
}

// 0 when parsed, -1 for --help, 2 for a usage error.
int ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") return -1;
        std::optional<std::string>* target = nullptr;
        if (arg == "--module") {
            target = &options.module;
        } else if (arg == "--root") {
            target = &options.root;
        } else if (arg == "--socket") {
            target = &options.socket;
        } else {
            std::cerr << "tarvo-service-host: unknown argument \"" << arg << "\"\n" << kUsage;
            return 2;
        }
        if (i + 1 >= argc) {
            std::cerr << "tarvo-service-host: " << arg << " needs a value\n" << kUsage;
            return 2;
        }
        *target = argv[++i];
    }
    if (!options.module || options.module->empty()) {
        std::cerr << "tarvo-service-host: --module is required\n" << kUsage;
        return 2;
    }
    return 0;
}

// The limits on clients, with the line time-out from TARVO_HOST_LINE_TIMEOUT_MS when set.
std::optional<tarvo::host::ServerLimits> ReadLimits(std::string& error) {
    tarvo::host::ServerLimits limits;
    const char* text = std::getenv("TARVO_HOST_LINE_TIMEOUT_MS");
    if (text == nullptr || *text == '\0') return limits;
    char* end = nullptr;
    errno = 0;
    const long long ms = std::strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || ms <= 0) {
        error = std::string("TARVO_HOST_LINE_TIMEOUT_MS must be a positive number of milliseconds, got \"") +
                text + "\"";
        return std::nullopt;
    }
    limits.lineTimeout = std::chrono::milliseconds(ms);
    return limits;
}

// ROOT/run holds the client socket and volatile keys: private to this user, whoever made
// it. When missing, the umask makes it private as it is created.
bool MakeRunPrivate(std::string& error) {
    // Without a root this would be the machine's own /run.
    if (tarvo::platform::Root().empty()) return true;
    const std::string run = platform_path("/run");
    struct stat st {};
    if (stat(run.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || (st.st_mode & 0777) == 0700) return true;
    if (chmod(run.c_str(), 0700) != 0) {
        error = "cannot make " + run + " private: " + std::strerror(errno);
        return false;
    }
    return true;
}

// Start() runs on a thread of its own, as the framework's start thread would.
bool StartService(bracken::ser::Service* service, std::string& error) {
    bool started = false;
    std::thread start([&] {
        try {
            started = service->Start();
            if (!started) error = "the service's Start() returned false";
        } catch (const std::exception& e) {
            error = std::string("the service's Start() threw: ") + e.what();
        } catch (...) {
            error = "the service's Start() threw an unknown exception";
        }
    });
    start.join();
    return started;
}

// Each connection has a reader and a writer thread, and a 32-bit television has 3 GiB of
// addresses: the usual 8 MiB stacks of 130 threads would reserve a third of them. 1 MiB is at
// least twice what the deepest work takes (JSON nested as deep as JsonCpp reads, 1,000 levels).
// Sanitizers make every frame larger: their builds keep the system's stack size.
void BoundThreadStacks() {
#if !defined(TARVO_ASAN) && !defined(TARVO_TSAN)
    constexpr size_t kThreadStackBytes = 1024 * 1024;
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return;
    if (pthread_attr_setstacksize(&attributes, kThreadStackBytes) == 0)
        pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
#endif
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int parsed = ParseOptions(argc, argv, options);
    if (parsed == -1) {
        std::cout << kUsage;
        return 0;
    }
    if (parsed != 0) return parsed;

    // The service's files (its store, its journal) are for this user alone; the platform
    // gives the files that other applications read their modes itself.
    umask(077);
    // A handful of threads on a small processor: two malloc arenas instead of one per thread, so
    // that what a sync frees on a worker is reused instead of kept beside a fresh arena.
    mallopt(M_ARENA_MAX, 2);
    // Each query copies the store's records (hundreds of KB) and frees them: without a margin, an
    // arena gives the pages back after every call and the next call faults them in again.
    mallopt(M_TRIM_THRESHOLD, 8 * 1024 * 1024);
    mallopt(M_MMAP_THRESHOLD, 1024 * 1024);
    // Before the first thread: every thread of the process takes this size.
    BoundThreadStacks();

    // Before any platform call: every television path resolves under this root.
    if (options.root) setenv("TARVO_ROOT", options.root->c_str(), 1);
    if (tarvo::platform::Root().empty()) {
        std::cerr << "tarvo-service-host: no --root and no TARVO_ROOT: the service uses this machine's own "
                     "/opt, /var and /run, as on a television"
                  << std::endl;
    }
    const std::string socket_path =
        options.socket ? *options.socket : platform_path("/run/tarvodatacontrol.sock");

    // Every thread made from here on inherits this mask; only main waits for the signals.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::string error;
    const auto limits = ReadLimits(error);
    if (!limits) return Fail(error);
    if (!MakeRunPrivate(error)) return Fail(error);
    const auto module = tarvo::host::LoadModule(*options.module, error);
    if (!module) return Fail(error);

    tarvo::host::SocketServer server(tarvo::host::FrameHandler(module->proxy, module->name), *limits);
    bracken::ser::SetNotificationSink(
        [&server](const Sedge::TCMessage& message) { server.Broadcast(message); });

    if (!StartService(module->service, error)) Leave(Fail(error));
    if (!server.Open(socket_path, error)) Leave(Fail(error));
    server.Serve();
    std::cerr << "tarvo-service-host: serving " << module->name << " on " << socket_path << std::endl;

    int received = 0;
    while (sigwait(&stop_signals, &received) != 0) {
    }
    std::cerr << "tarvo-service-host: stopping on signal " << received << std::endl;
    server.Stop();
    // The service has no orderly end: its threads live until the process goes.
    Leave(0);
}
