// The device profile: load, save, single members and deployment values.
#include <tarvo/platform.h>

#include "device_profile.h"
#include "file_util.h"

#include <dlog.h>

#include <mutex>

using tarvo::platform::detail::kPlatformTag;

std::string platform_deployment_value(const std::string& name) {
    auto value = tarvo::platform::detail::ProfileMember("deployment", name);
    return value && value->isString() ? value->asString() : std::string();
}

namespace tarvo {
namespace platform {

std::optional<Json::Value> LoadDeviceProfile() {
    const std::string path = DeviceProfilePath();
    auto text = detail::ReadWholeFile(path);
    if (!text) return std::nullopt;
    auto profile = detail::ParseJson(*text);
    if (!profile || !profile->isObject()) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "device profile %s is no JSON object",
                     path.c_str());
        return std::nullopt;
    }
    return profile;
}

bool SaveDeviceProfile(const Json::Value& profile) {
    // Two savers in one process would share the temp file.
    static std::mutex* save_mutex = new std::mutex();  // guards the profile's temp file
    std::lock_guard<std::mutex> lock(*save_mutex);
    return detail::WriteFileAtomically(DeviceProfilePath(), detail::StyledJson(profile));
}

namespace detail {

std::optional<Json::Value> ProfileMember(const std::string& name) {
    auto profile = LoadDeviceProfile();
    if (!profile || !profile->isMember(name) || (*profile)[name].isNull()) return std::nullopt;
    return (*profile)[name];
}

std::optional<Json::Value> ProfileMember(const std::string& object, const std::string& key) {
    auto outer = ProfileMember(object);
    if (!outer || !outer->isObject() || !outer->isMember(key) || (*outer)[key].isNull()) return std::nullopt;
    return (*outer)[key];
}

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
