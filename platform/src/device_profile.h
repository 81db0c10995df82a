// Reading single members of the device profile for the device-side C APIs.
// The profile is looked at on disk at each call; it is read and parsed again only when it changed.
#pragma once

#include <json/json.h>

#include <memory>
#include <optional>
#include <string>

namespace tarvo {
namespace platform {
namespace detail {

// profile[name], or nullopt when the profile or the member is missing or null.
std::optional<Json::Value> ProfileMember(const std::string& name);
// profile[object][key], with the same rules.
std::optional<Json::Value> ProfileMember(const std::string& object, const std::string& key);

// A member read in place, not copied; null when the profile or the member is missing or null.
// Inside a client call (CallScope) the thread's memo keeps the profile and each member found in
// it while the file is unchanged, so the checks a call makes for every record cost a few compares
// and no atomic count; the pointer then stays good until this thread looks at the profile again.
// Outside a call the reference holds the profile itself.
class MemberRef {
  public:
    MemberRef() = default;
    MemberRef(const Json::Value* member, std::shared_ptr<const Json::Value> keep)
        : m_member(member), m_keep(std::move(keep)) {}
    explicit operator bool() const { return m_member != nullptr; }
    const Json::Value& operator*() const { return *m_member; }
    const Json::Value* operator->() const { return m_member; }

  private:
    const Json::Value* m_member = nullptr;
    std::shared_ptr<const Json::Value> m_keep;  // empty inside a call
};
// profile[name]; `name` is a literal (the call's memo knows it by its address).
MemberRef ProfileMemberRef(const char* name);
// profile[object][key written in decimal], as "factory_data" and "system_info" are keyed.
MemberRef ProfileMemberRef(const char* object, int key);
// What a member holds when it is a plain bool or int (hotel mode, a capability). Kept with the
// member in the calls' memo, so that the checks a call makes for every record read no JSON.
struct MemberScalar {
    enum Kind { kMissing, kBool, kInt, kOther } kind = kMissing;
    int value = 0;
};
// profile[object][key written in decimal] as ProfileMemberRef finds it; kMissing for null.
MemberScalar ProfileScalar(const char* object, int key);

// A malloc'ed, zero-ended copy of a JSON string, taken from the value in place; null when `text`
// is no string or memory is short.
char* MallocString(const Json::Value& text);

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
