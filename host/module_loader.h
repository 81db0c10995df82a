// Loads a service module and finds its three exported globals. The module stays loaded
// for the life of the process; nothing here is ever unloaded or deleted.
// Called once from the host's main thread before any client is served.
#pragma once

#include <bracken/ser.h>

#include <optional>
#include <string>

namespace tarvo {
namespace host {

struct LoadedModule {
    bracken::ser::Service* service = nullptr;
    bracken::ser::ServiceProxy* proxy = nullptr;
    std::string name;
};

// The module's service, proxy and name; nullopt with `error` set when the file cannot
// be loaded or a global is missing or null.
std::optional<LoadedModule> LoadModule(const std::string& path, std::string& error);

}  // namespace host
}  // namespace tarvo
