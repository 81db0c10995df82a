// Reading single members of the device profile for the device-side C APIs.
// Stateless: the profile is read from disk at each call.
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
