// The device profile: load, save, single members and deployment values.
#include <tarvo/platform.h>

#include "device_profile.h"
#include "file_snapshot.h"
#include "file_util.h"

#include <dlog.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>

using tarvo::platform::detail::kPlatformTag;

std::string platform_deployment_value(const std::string& name) {
    auto value = tarvo::platform::detail::ProfileMember("deployment", name);
    return value && value->isString() ? value->asString() : std::string();
}

namespace tarvo {
namespace platform {

namespace {

// The profile as last read, kept while the file is unchanged; made on first use and never freed, as
// a log line or a profile read may come while the process exits.
detail::FileSnapshots<Json::Value>& Profiles() {
    static auto* profiles = new detail::FileSnapshots<Json::Value>();
    return *profiles;
}

// DeviceProfilePath(), worked out again only when TARVO_ROOT changed (it is read at every call).
const std::string& ProfilePath() {
    thread_local std::string root;
    thread_local std::string path;
    const char* now = getenv("TARVO_ROOT");
    if (path.empty() || root != (now != nullptr ? now : "")) {
        root = now != nullptr ? now : "";
        path = DeviceProfilePath();
    }
    return path;
}

// The profile on disk now: read and parsed only when the file changed since the last call.
std::shared_ptr<const Json::Value> CurrentProfile() {
    // Within one client call the profile is looked at once (see CallScope): a call asks for one
    // value per record, and even the path's check of TARVO_ROOT shows at that rate.
    struct CallProfile {
        detail::CallStamp stamp;
        std::shared_ptr<const Json::Value> profile;
    };
    thread_local CallProfile held;
    const detail::CallStamp now = detail::CallStamp::Now();
    if (now.call != 0 && held.stamp == now) return held.profile;
    const std::string& path = ProfilePath();
    auto read = Profiles().Get(path, [&path](const std::string& text) -> std::shared_ptr<const Json::Value> {
        std::optional<Json::Value> profile;
        // JsonCpp refuses nesting deeper than its stack limit by throwing; that text is no profile.
        try {
            profile = detail::ParseJson(text);
        } catch (const std::exception&) {
            profile.reset();
        }
        if (!profile || !profile->isObject()) {
            __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "device profile %s is no JSON object",
                         path.c_str());
            return nullptr;
        }
        return std::make_shared<const Json::Value>(std::move(*profile));
    });
    if (now.call != 0) held = CallProfile{now, read};
    return read;
}

}  // namespace

std::optional<Json::Value> LoadDeviceProfile() {
    const auto profile = CurrentProfile();
    if (profile == nullptr) return std::nullopt;
    return *profile;
}

bool SaveDeviceProfile(const Json::Value& profile) {
    // Two savers in one process would share the temp file.
    static std::mutex* save_mutex = new std::mutex();  // guards the profile's temp file
    std::lock_guard<std::mutex> lock(*save_mutex);
    return detail::WriteFileAtomically(DeviceProfilePath(), detail::StyledJson(profile));
}

namespace detail {

namespace {

// object[key] when `object` is a JSON object holding a non-null `key`; one look-up.
const Json::Value* Member(const Json::Value& object, const std::string& key) {
    if (!object.isObject()) return nullptr;
    const Json::Value* member = object.find(key.data(), key.data() + key.size());
    return member != nullptr && !member->isNull() ? member : nullptr;
}

}  // namespace

std::optional<Json::Value> ProfileMember(const std::string& name) {
    const auto profile = CurrentProfile();
    const Json::Value* member = profile != nullptr ? Member(*profile, name) : nullptr;
    if (member == nullptr) return std::nullopt;
    return *member;
}

std::optional<Json::Value> ProfileMember(const std::string& object, const std::string& key) {
    const auto profile = CurrentProfile();
    // Looked up in place: only the one value is copied out.
    const Json::Value* outer = profile != nullptr ? Member(*profile, object) : nullptr;
    const Json::Value* member = outer != nullptr ? Member(*outer, key) : nullptr;
    if (member == nullptr) return std::nullopt;
    return *member;
}

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
