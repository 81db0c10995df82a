// What the television's network manager does: edit the profile's network object and
// announce the change through the dnet vconf keys.
#include <tarvo/platform.h>
#include <vconf.h>

#include "file_util.h"

#include <dlog.h>

#include <functional>

using tarvo::platform::detail::kPlatformTag;

namespace tarvo {
namespace platform {

namespace {

bool EditNetwork(const std::function<void(Json::Value&)>& edit) {
    auto profile = LoadDeviceProfile();
    Json::Value updated = profile ? *profile : Json::Value(Json::objectValue);
    if (!updated["network"].isObject()) updated["network"] = Json::Value(Json::objectValue);
    edit(updated["network"]);
    return SaveDeviceProfile(updated);
}

bool SetStatus(int status) {
    if (vconf_set_int("memory/dnet/status", status) != 0) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "cannot set memory/dnet/status to %d", status);
        return false;
    }
    return true;
}

}  // namespace

bool SetNetworkUp(const std::string& profile_type) {
    int status = 0;
    if (profile_type == "wifi") {
        status = 1;
    } else if (profile_type == "cellular" || profile_type == "bt") {
        status = 2;
    } else if (profile_type == "ethernet") {
        status = 3;
    } else {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "unknown network profile %s",
                     profile_type.c_str());
        return false;
    }
    if (!EditNetwork([&](Json::Value& network) {
            network["up"] = true;
            network["profile"] = profile_type;
        })) {
        return false;
    }
    return SetStatus(status);
}

bool SetNetworkDown() {
    if (!EditNetwork([](Json::Value& network) { network["up"] = false; })) return false;
    return SetStatus(0);
}

bool NotifyDnsChanged() {
    int count = 0;
    if (vconf_get_int("memory/dnet/dns_changed", &count) != 0) count = 0;
    if (vconf_set_int("memory/dnet/dns_changed", count + 1) != 0) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "cannot set memory/dnet/dns_changed");
        return false;
    }
    return true;
}

}  // namespace platform
}  // namespace tarvo
