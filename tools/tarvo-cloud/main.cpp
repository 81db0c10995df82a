// tarvo-cloud: the development cloud; see HelpText() for what it serves.
#include "admin.h"
#include "cloud_context.h"
#include "deployment_servers.h"
#include "json_text.h"
#include "listeners.h"
#include "openapi_server.h"
#include "options.h"
#include "tls.h"

#include <libxml/parser.h>
#include <signal.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace tarvo::cloud;

// Written beside the target and renamed, so that a reader never sees half a file.
bool ReplaceFile(const std::string& path, const std::string& content, std::string* error) {
    const std::string temp = path + ".cloud.tmp";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out << content;
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

// Points the device profile at PATH at the two deployments and the CA, keeping its other members.
bool WriteProfile(const std::string& path, const Json::Value& ports, std::string* error) {
    Json::Value profile(Json::objectValue);
    std::ifstream in(path, std::ios::binary);
    if (in) {
        std::stringstream text;
        text << in.rdbuf();
        std::string reason;
        if (!ParseJson(text.str(), &profile, &reason) || !profile.isObject()) {
            *error = path + " is no device profile (a JSON object): " + reason;
            return false;
        }
    }
    const std::string production = "127.0.0.1:" + std::to_string(ports["production"].asInt());
    const std::string staging = "127.0.0.1:" + std::to_string(ports["staging"].asInt());
    if (!profile["deployment"].isObject()) profile["deployment"] = Json::Value(Json::objectValue);
    Json::Value& deployment = profile["deployment"];
    deployment["agreement_production_host"] = production;
    deployment["agreement_staging_host"] = staging;
    deployment["log_production_host"] = production;
    deployment["log_staging_host"] = staging;
    deployment["log_policy_namespace"] = "http://127.0.0.1/api/1.0";
    profile["ca_file"] = ports["ca"];
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    return ReplaceFile(path, Json::writeString(builder, profile) + "\n", error);
}

// The default TLS folder: made at start and removed with the cloud.
class TemporaryFolder {
  public:
    bool Make(std::string* error) {
        std::string pattern = (std::filesystem::temp_directory_path() / "tarvo-cloud-tls-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            *error = "cannot make a temporary TLS folder";
            return false;
        }
        m_path = pattern;
        return true;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        if (!m_path.empty()) std::filesystem::remove_all(m_path, ignored);
    }
    const std::string& Path() const { return m_path; }

  private:
    std::string m_path;
};

int Fail(const std::string& error) {
    std::fprintf(stderr, "tarvo-cloud: %s\n", error.c_str());
    return 1;
}

// Replays the changes published in earlier runs and keeps the coming ones in DIR.
bool KeepPublished(DataSets& data, const std::string& dir, std::string* error) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        *error = "cannot make the state folder " + dir + ": " + ec.message();
        return false;
    }
    std::vector<std::string> skipped;
    size_t replayed = 0;
    if (!data.KeepPublished(dir + "/published.jsonl", &skipped, &replayed, error)) return false;
    for (const auto& reason : skipped)
        std::fprintf(stderr, "tarvo-cloud: skipped a kept change: %s\n", reason.c_str());
    std::fprintf(stderr, "tarvo-cloud: %zu published change(s) applied from %s/published.jsonl\n", replayed,
                 dir.c_str());
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

    xmlInitParser();
    CloudContext context;
    std::string error;
    if (!context.data.LoadDirectory(options.data_dir, &error)) return Fail(error);
    if (!options.state_dir.empty() && !KeepPublished(context.data, options.state_dir, &error))
        return Fail(error);
    TemporaryFolder temporary;
    if (options.tls_dir.empty() && !temporary.Make(&error)) return Fail(error);
    const TlsResult tls = LoadOrMakeTls(options.tls_dir.empty() ? temporary.Path() : options.tls_dir);
    if (!tls.material) return Fail(tls.error);
    context.ca_file = tls.material->ca_file;

    Listeners listeners;
    InstallOpenApiRoutes(listeners.Add("openapi", options.openapi_port, std::make_unique<httplib::Server>()),
                         context);
    InstallAdminRoutes(listeners.Add("admin", options.admin_port, std::make_unique<httplib::Server>()),
                       context, listeners);
    const std::pair<const char*, int> deployments[] = {{"production", options.production_port},
                                                       {"staging", options.staging_port}};
    for (const auto& [name, port] : deployments) {
        auto server = MakeTlsServer(*tls.material, context.faults, name, "agreement", &error);
        if (!server) return Fail(error);
        InstallDeploymentRoutes(listeners.Add(name, port, std::move(server)), context, name);
    }
    if (!listeners.BindAll(&error)) return Fail(error);
    listeners.StartAll();

    // The profile and stdout before the state file: once it exists, everything is out.
    const Json::Value ports = PortsLine(listeners, context);
    const std::string line = CompactJson(ports);
    const bool ready =
        (options.write_profile.empty() || WriteProfile(options.write_profile, ports, &error)) &&
        (std::printf("%s\n", line.c_str()) > 0 && std::fflush(stdout) == 0) &&
        (options.state_file.empty() || ReplaceFile(options.state_file, line + "\n", &error));
    if (!ready) {
        context.stop.Stop();
        listeners.StopAll();
        return Fail(error.empty() ? "cannot write the ports line to stdout" : error);
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
