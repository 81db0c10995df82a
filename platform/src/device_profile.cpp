// The device profile: load, save, single members and deployment values.
#include <tarvo/platform.h>

#include "device_profile.h"
#include "file_snapshot.h"
#include "file_util.h"

#include <dlog.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

// What the client calls of this thread have looked at: the profile and the members found in it,
// kept while the profile file is unchanged.
struct CallProfile {
    detail::CallStamp stamp;
    std::shared_ptr<const Json::Value> profile;
    struct Found {
        const char* object = nullptr;  // the member's name, or the object's for a keyed member
        int key = -1;                  // -1: profile[object] itself
        const Json::Value* member = nullptr;
        detail::MemberScalar scalar;
    };
    // A call asks for a handful of members (hotel mode, three capabilities), once per record.
    std::array<Found, 16> found;
    size_t count = 0;
};

// The profile on disk now: read and parsed only when the file changed since the last call.
std::shared_ptr<const Json::Value> ReadProfile() {
    const std::string& path = ProfilePath();
    return Profiles().Get(path, [&path](const std::string& text) -> std::shared_ptr<const Json::Value> {
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
}

// The calling thread's memo for the current call, or null outside a call. Within one client call
// the profile is looked at once (see CallScope): a call asks for one value per record, and even
// the path's check of TARVO_ROOT shows at that rate.
CallProfile* HeldForCall() {
    thread_local CallProfile held;
    const detail::CallStamp now = detail::CallStamp::Now();
    if (now.call == 0) return nullptr;
    if (held.stamp == now) return &held;
    // While the file is unchanged every call gets the same parsed profile, and the members the
    // last call found in it stay good: held here, it cannot be freed and another take its place.
    std::shared_ptr<const Json::Value> profile = ReadProfile();
    if (profile != held.profile) {
        for (size_t i = 0; i < held.count; ++i) held.found[i] = CallProfile::Found{};
        held.count = 0;
        held.profile = std::move(profile);
    }
    held.stamp = now;
    return &held;
}

std::shared_ptr<const Json::Value> CurrentProfile() {
    if (CallProfile* held = HeldForCall()) return held->profile;
    return ReadProfile();
}

// object[key] when `object` is a JSON object holding a non-null `key`; one look-up, no copy.
const Json::Value* Member(const Json::Value& object, const char* begin, const char* end) {
    if (!object.isObject()) return nullptr;
    const Json::Value* member = object.find(begin, end);
    return member != nullptr && !member->isNull() ? member : nullptr;
}

const Json::Value* Find(const Json::Value* profile, const char* object, int key) {
    if (profile == nullptr) return nullptr;
    const Json::Value* member = Member(*profile, object, object + std::strlen(object));
    if (member != nullptr && key >= 0) {
        char digits[16];
        const auto written = std::to_chars(digits, digits + sizeof digits, key);
        member = Member(*member, digits, written.ptr);
    }
    return member;
}

detail::MemberScalar ScalarOf(const Json::Value* member) {
    detail::MemberScalar scalar;
    if (member == nullptr) return scalar;
    scalar.kind = detail::MemberScalar::kOther;
    if (member->isBool()) {
        scalar.kind = detail::MemberScalar::kBool;
        scalar.value = member->asBool() ? 1 : 0;
    } else if (member->isInt()) {
        scalar.kind = detail::MemberScalar::kInt;
        scalar.value = member->asInt();
    }
    return scalar;
}

// The member as the memo holds it, looked up and added when it is not there yet.
CallProfile::Found Lookup(CallProfile& held, const char* object, int key) {
    for (size_t i = 0; i < held.count; ++i) {
        const CallProfile::Found& found = held.found[i];
        if (found.key == key && (found.object == object || std::strcmp(found.object, object) == 0))
            return found;
    }
    // Names are the platform's literals, which outlive the memo.
    const Json::Value* member = Find(held.profile.get(), object, key);
    const CallProfile::Found found{object, key, member, ScalarOf(member)};
    if (held.count < held.found.size()) held.found[held.count++] = found;
    return found;
}

detail::MemberRef FindForCall(const char* object, int key) {
    CallProfile* held = HeldForCall();
    if (held == nullptr) {
        auto profile = ReadProfile();
        const Json::Value* member = Find(profile.get(), object, key);
        return member != nullptr ? detail::MemberRef(member, std::move(profile)) : detail::MemberRef();
    }
    return detail::MemberRef(Lookup(*held, object, key).member, nullptr);
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

std::optional<Json::Value> ProfileMember(const std::string& name) {
    const auto profile = CurrentProfile();
    const Json::Value* member =
        profile != nullptr ? Member(*profile, name.data(), name.data() + name.size()) : nullptr;
    if (member == nullptr) return std::nullopt;
    return *member;
}

std::optional<Json::Value> ProfileMember(const std::string& object, const std::string& key) {
    const auto profile = CurrentProfile();
    // Looked up in place: only the one value is copied out.
    const Json::Value* outer =
        profile != nullptr ? Member(*profile, object.data(), object.data() + object.size()) : nullptr;
    const Json::Value* member =
        outer != nullptr ? Member(*outer, key.data(), key.data() + key.size()) : nullptr;
    if (member == nullptr) return std::nullopt;
    return *member;
}

char* MallocString(const Json::Value& text) {
    const char* begin = nullptr;
    const char* end = nullptr;
    if (!text.isString() || !text.getString(&begin, &end)) return nullptr;
    const size_t length = static_cast<size_t>(end - begin);
    auto* copy = static_cast<char*>(std::malloc(length + 1));
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, begin, length);
    copy[length] = '\0';
    return copy;
}

MemberRef ProfileMemberRef(const char* name) { return FindForCall(name, -1); }

MemberRef ProfileMemberRef(const char* object, int key) { return FindForCall(object, key); }

MemberScalar ProfileScalar(const char* object, int key) {
    CallProfile* held = HeldForCall();
    if (held == nullptr) {
        const auto profile = ReadProfile();
        return ScalarOf(Find(profile.get(), object, key));
    }
    return Lookup(*held, object, key).scalar;
}

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
