// Reading single members of the device profile for the device-side C APIs.
// The profile is looked at on disk at each call; it is read and parsed again only when it changed.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>

namespace tarvo {
namespace platform {
namespace detail {

// profile[name], or nullopt when the profile or the member is missing or null.
std::optional<Json::Value> ProfileMember(const std::string& name);
// profile[object][key], with the same rules.
std::optional<Json::Value> ProfileMember(const std::string& object, const std::string& key);

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
