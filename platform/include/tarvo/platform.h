// The emulated television: root folder, device profile, deployment values and the
// controls a host or tool drives (power, network).
#pragma once

#include <json/json.h>

#include <optional>
#include <string>

// $TARVO_ROOT followed by the television path exactly as given.
std::string platform_path(const std::string& tv_path);
// A deployment value from the device profile's "deployment" object; empty when absent.
std::string platform_deployment_value(const std::string& name);

namespace tarvo {
namespace platform {

// $TARVO_ROOT, possibly empty.
std::string Root();
// ROOT/etc/tarvo/device.json.
std::string DeviceProfilePath();
// The device profile as it is now on disk; nullopt when missing or not a JSON object.
std::optional<Json::Value> LoadDeviceProfile();
// Replaces the profile atomically. False with a logged reason on failure.
bool SaveDeviceProfile(const Json::Value& profile);

// Runs the subscribed power callbacks with `state` on the power thread, in
// subscription order, and returns once they have all returned.
bool RunPowerOff(int state);
bool RunWakeup(int state);

// What a network manager does: edit the profile's network object and write
// "memory/dnet/status" (1 wifi, 2 cellular or bt, 3 ethernet, 0 down).
bool SetNetworkUp(const std::string& profile_type);
bool SetNetworkDown();
// Sets "memory/dnet/dns_changed".
bool NotifyDnsChanged();

// Creates the folders of a prepared root (vconf, log, run, the USB clone folder's
// parent) and a default device profile when none exists.
bool PrepareRoot(const std::string& root);

}  // namespace platform
}  // namespace tarvo
