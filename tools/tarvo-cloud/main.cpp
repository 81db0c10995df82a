// tarvo-cloud: the development cloud; see HelpText() for what it serves.
#include "admin.h"
#include "cloud_context.h"
#include "json_text.h"
#include "listeners.h"
#include "openapi_server.h"
#include "options.h"

#include <signal.h>

#include <cstdio>
#include <fstream>
#include <memory>

namespace {

using namespace tarvo::cloud;

// Written beside the target and renamed, so that a reader never sees half a line.
bool WriteStateFile(const std::string& path, const std::string& line, std::string* error) {
    const std::string temp = path + ".tmp";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out << line << "\n";
        if (!out.flush()) {
            *error = "cannot write " + temp;
            return false;
        }
    }
    if (std::rename(temp.c_str(), path.c_str()) != 0) {
        *error = "cannot rename " + temp + " to " + path;
        return false;
    }
    return true;
}

int Run(const Options& options) {
    // Only the main thread takes the stop signals: block them before any thread starts.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    CloudContext context;
    std::string error;
    if (!context.data.LoadDirectory(options.data_dir, &error)) {
        std::fprintf(stderr, "tarvo-cloud: %s\n", error.c_str());
        return 1;
    }
    Listeners listeners;
    InstallOpenApiRoutes(listeners.Add("openapi", options.openapi_port, std::make_unique<httplib::Server>()),
                         context);
    InstallAdminRoutes(listeners.Add("admin", options.admin_port, std::make_unique<httplib::Server>()),
                       context, listeners);
    if (!listeners.BindAll(&error)) {
        std::fprintf(stderr, "tarvo-cloud: %s\n", error.c_str());
        return 1;
    }
    listeners.StartAll();

    // stdout first: once the state file exists, the line is out too.
    const std::string line = CompactJson(listeners.Ports());
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    if (!options.state_file.empty() && !WriteStateFile(options.state_file, line, &error)) {
        std::fprintf(stderr, "tarvo-cloud: %s\n", error.c_str());
        context.stop.Stop();
        listeners.StopAll();
        return 1;
    }

    int signal_number = 0;
    sigwait(&stop_signals, &signal_number);
    std::fprintf(stderr, "tarvo-cloud: stopping on signal %d\n", signal_number);
    context.stop.Stop();
    listeners.StopAll();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const OptionsResult parsed = ParseOptions(argc, argv);
    if (!parsed.options) {
        std::fprintf(stderr, "tarvo-cloud: %s\nRun 'tarvo-cloud --help' for the usage.\n",
                     parsed.error.c_str());
        return 2;
    }
    if (parsed.options->help) {
        std::fputs(HelpText(), stdout);
        return 0;
    }
    return Run(*parsed.options);
}
