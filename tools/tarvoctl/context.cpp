#include "context.h"

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <iostream>

namespace tarvoctl {

std::string Context::Root() const { return root_option ? *root_option : DefaultRoot(); }

std::string Context::SocketPath() const {
    if (socket_option) return *socket_option;
    return Root() + "/run/tarvodatacontrol.sock";
}

void Context::UsePlatformRoot() const { setenv("TARVO_ROOT", Root().c_str(), 1); }

std::unique_ptr<Client> Context::Connect() const {
    auto client = std::make_unique<Client>();
    if (client->Connect(SocketPath())) return client;
    std::cerr << "tarvoctl: no service is running at " << SocketPath() << " (start it with scripts/run.sh)"
              << std::endl;
    return nullptr;
}

std::optional<Arguments> SplitArguments(const std::vector<std::string>& args,
                                        const std::set<std::string>& valued) {
    Arguments split;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
            split.positional.push_back(arg);
            continue;
        }
        if (valued.count(arg) == 0) {
            UsageError("unknown option " + arg);
            return std::nullopt;
        }
        if (i + 1 >= args.size()) {
            UsageError(arg + " needs a value");
            return std::nullopt;
        }
        split.options[arg] = args[++i];
    }
    return split;
}

std::optional<int> ParseInt(const std::string& text) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < INT32_MIN || value > INT32_MAX) return std::nullopt;
    return static_cast<int>(value);
}

std::optional<double> ParseDouble(const std::string& text) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0') return std::nullopt;
    return value;
}

std::optional<std::chrono::milliseconds> ReadTimeout(const Arguments& args, double default_seconds) {
    double seconds = default_seconds;
    if (auto it = args.options.find("--timeout"); it != args.options.end()) {
        const auto parsed = ParseDouble(it->second);
        if (!parsed || *parsed < 0) {
            UsageError("--timeout needs a number of seconds");
            return std::nullopt;
        }
        seconds = *parsed;
    }
    return std::chrono::milliseconds(static_cast<long long>(seconds * 1000.0));
}

int UsageError(const std::string& message) {
    std::cerr << "tarvoctl: " << message << " (see tarvoctl --help)" << std::endl;
    return kExitUsage;
}

int Fail(const std::string& message, int code) {
    std::cerr << "tarvoctl: " << message << std::endl;
    return code;
}

int LostService(const Context& context) {
    return Fail("the service at " + context.SocketPath() + " did not answer", kExitNoService);
}

bool IsRefusal(const Json::Value& answer) {
    if (answer.isMember("error")) return true;
    const Json::Value& reply = answer["reply"];
    return reply.isObject() && reply.isMember("result") && reply["result"].isBool() &&
           !reply["result"].asBool();
}

}  // namespace tarvoctl
