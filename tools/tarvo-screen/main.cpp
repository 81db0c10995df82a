// tarvo-screen: the television's first-run wizard, settings menu and updated-terms prompt as one
// page on 127.0.0.1, on top of a running tarvo-service-host.
#include "event_hub.h"
#include "host_link.h"
#include "web_server.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char* kUsage =
    "Usage: tarvo-screen [--root DIR | --socket PATH] [--port N] [--web DIR] [--help]\n"
    "\n"
    "Serves the television's screens (first-run wizard, settings menu, updated terms) on\n"
    "http://127.0.0.1:N/ and drives them from the service running in tarvo-service-host.\n"
    "The URL is the first line on stdout. Arrow keys, Enter and Backspace/Escape work as\n"
    "a remote control; everything is clickable too. SIGTERM or SIGINT stops it.\n"
    "\n"
    "  --root DIR     the emulated television's root (default: $TARVO_ROOT, else\n"
    "                 ${XDG_STATE_HOME:-$HOME/.local/state}/tarvo/root)\n"
    "  --socket PATH  the host's socket (default: ROOT/run/tarvodatacontrol.sock)\n"
    "  --port N       the port to serve on (default 0: a free port)\n"
    "  --web DIR      the page's files (default: those installed with the tool)\n"
    "\n"
    "The page's bridge: POST /api/call with a request object gives {\"reply\": ...} ({\"no_host\":\n"
    "true, \"error\": ...} while no host runs); GET /api/events is a stream of Server-Sent Events,\n"
    "\"notification\" for each notification of the service, \"host\" ({\"up\": bool}) and \"store\"\n"
    "({\"closed\": bool, ...} after a power-off); GET /api/versions gives the versions it saw of each\n"
    "disclaimer.\n";

struct Options {
    std::optional<std::string> root;
    std::optional<std::string> socket;
    std::optional<std::string> web;
    int port = 0;
};

std::optional<Options> ParseOptions(const std::vector<std::string>& args, bool& help) {
    Options options;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& name = args[i];
        if (name == "--help" || name == "-h") {
            help = true;
            return options;
        }
        if (i + 1 >= args.size()) return std::nullopt;
        const std::string& value = args[++i];
        if (name == "--root") {
            options.root = value;
        } else if (name == "--socket") {
            options.socket = value;
        } else if (name == "--web") {
            options.web = value;
        } else if (name == "--port") {
            char* end = nullptr;
            const long port = std::strtol(value.c_str(), &end, 10);
            if (value.empty() || *end != '\0' || port < 0 || port > 65535) return std::nullopt;
            options.port = static_cast<int>(port);
        } else {
            return std::nullopt;
        }
    }
    if (options.root && options.socket) return std::nullopt;
    return options;
}

// Installed beside the tool (bin/../share/tarvo-screen/web), else in the source tree it was built from.
std::optional<std::string> FindWebDir(const std::optional<std::string>& option) {
    std::vector<fs::path> candidates;
    if (option) {
        candidates.emplace_back(*option);
    } else {
        std::error_code ignored;
        const fs::path self = fs::read_symlink("/proc/self/exe", ignored);
        if (!self.empty()) candidates.push_back(self.parent_path().parent_path() / "share/tarvo-screen/web");
        // Empty in a packaged build, which never looks in a source tree (nor in the working folder).
        if (*TARVO_SCREEN_WEB_DIR != '\0') candidates.emplace_back(TARVO_SCREEN_WEB_DIR);
    }
    for (const auto& dir : candidates) {
        std::error_code ignored;
        if (fs::is_regular_file(dir / "index.html", ignored)) return dir.string();
    }
    return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
    bool help = false;
    const auto options = ParseOptions(std::vector<std::string>(argv + 1, argv + argc), help);
    if (help) {
        std::cout << kUsage;
        return 0;
    }
    if (!options) {
        std::cerr << kUsage;
        return kExitUsage;
    }
    const auto web_dir = FindWebDir(options->web);
    if (!web_dir) {
        std::cerr << "tarvo-screen: the page's files (index.html) were not found"
                  << (options->web ? " in " + *options->web : std::string()) << std::endl;
        return kExitFailed;
    }
    const std::string socket =
        options->socket ? *options->socket
                        : options->root.value_or(tarvoctl::DefaultRoot()) + "/run/tarvodatacontrol.sock";

    // Signals reach only the thread that waits for them, never a server or host thread.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    tarvoscreen::EventHub hub;
    tarvoscreen::HostLink link(socket, hub);
    tarvoscreen::WebServer server(link, hub);
    std::string error;
    const auto port = server.Bind(*web_dir, options->port, &error);
    if (!port) {
        std::cerr << "tarvo-screen: " << error << std::endl;
        return kExitFailed;
    }
    std::cout << "http://127.0.0.1:" << *port << "/" << std::endl;
    std::cerr << "tarvo-screen: serving " << *web_dir << ", host socket " << socket << std::endl;
    link.Start();

    std::atomic<bool> finished{false};
    std::thread stopper([&] {
        const timespec slice{0, 200 * 1000 * 1000};
        while (!finished.load()) {
            if (sigtimedwait(&stop_signals, nullptr, &slice) > 0) break;
        }
        // Open event streams end first, so that the server's threads can be joined.
        hub.Close();
        server.Stop();
    });
    const bool served = server.Run();
    finished = true;
    stopper.join();
    link.Stop();
    return served ? 0 : kExitFailed;
}
