// What every verb shares: the global options, where the root and the socket are, how
// to print, and the exit codes. One Context per run, used from the main thread.
#pragma once

#include "client.h"

#include <json/json.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarvoctl {

enum ExitCode {
    kExitDone = 0,
    kExitRefused = 1,  // the service said no or failed
    kExitUsage = 2,
    kExitNoService = 3,
};

struct Context {
    std::optional<std::string> root_option;
    std::optional<std::string> socket_option;
    bool json = false;

    // --root, else $TARVO_ROOT, else ${XDG_STATE_HOME:-$HOME/.local/state}/tarvo/root.
    std::string Root() const;
    // --socket, else ROOT/run/tarvodatacontrol.sock.
    std::string SocketPath() const;
    // Points the platform library at Root(); call before any vconf or network call.
    void UsePlatformRoot() const;
    // A connected client, or nullptr after printing the no-service message.
    std::unique_ptr<Client> Connect() const;
};

// A verb's arguments split into options and positionals.
struct Arguments {
    std::map<std::string, std::string> options;
    std::vector<std::string> positional;
};

// Splits `args`: each "--NAME" must be in `valued` and takes the next word as its value.
// Prints the reason and returns nullopt on an unknown or incomplete option.
std::optional<Arguments> SplitArguments(const std::vector<std::string>& args,
                                        const std::set<std::string>& valued);

std::optional<int> ParseInt(const std::string& text);
std::optional<double> ParseDouble(const std::string& text);
// The --timeout S option of `args`, or `default_seconds`; nullopt after printing a usage error.
std::optional<std::chrono::milliseconds> ReadTimeout(const Arguments& args, double default_seconds);

// Prints a usage error and returns kExitUsage.
int UsageError(const std::string& message);
// Prints "tarvoctl: MESSAGE" on stderr and returns `code`.
int Fail(const std::string& message, int code = kExitRefused);

// How a verb reports the loss of its connection to the host.
int LostService(const Context& context);

// An answer frame that carries "error" or a reply whose "result" is false.
bool IsRefusal(const Json::Value& answer);

}  // namespace tarvoctl
