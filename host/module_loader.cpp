#include "module_loader.h"

#include <dlfcn.h>

namespace tarvo {
namespace host {

namespace {

// dlsym gives the address of the exported variable, never its value.
void* FindGlobal(void* handle, const char* symbol, const std::string& path, std::string& error) {
    dlerror();
    void* address = dlsym(handle, symbol);
    if (address == nullptr) {
        const char* reason = dlerror();
        error = "module " + path + " does not export " + symbol + (reason ? std::string(": ") + reason : "");
    }
    return address;
}

}  // namespace

std::optional<LoadedModule> LoadModule(const std::string& path, std::string& error) {
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) {
        const char* reason = dlerror();
        error = "cannot load module " + path + ": " + (reason ? reason : "unknown reason");
        return std::nullopt;
    }
    void* service = FindGlobal(handle, "g_service", path, error);
    if (service == nullptr) return std::nullopt;
    void* proxy = FindGlobal(handle, "g_service_proxy", path, error);
    if (proxy == nullptr) return std::nullopt;
    // A std::string global carries the C++11 ABI tag in its symbol unless the module
    // names it plainly.
    void* name = dlsym(handle, "g_service_name");
    if (name == nullptr) name = FindGlobal(handle, "_Z14g_service_nameB5cxx11", path, error);
    if (name == nullptr) return std::nullopt;

    LoadedModule module;
    module.service = *static_cast<bracken::ser::Service**>(service);
    module.proxy = *static_cast<bracken::ser::ServiceProxy**>(proxy);
    module.name = *static_cast<const std::string*>(name);
    if (module.service == nullptr || module.proxy == nullptr) {
        error = "module " + path + " exports a null g_service or g_service_proxy";
        return std::nullopt;
    }
    return module;
}

}  // namespace host
}  // namespace tarvo
