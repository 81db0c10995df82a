// The emulated root: path resolution and the folders and profile of a prepared television.
#include <tarvo/platform.h>

#include "file_util.h"

#include <dlog.h>

#include <cstdlib>
#include <sys/stat.h>

using tarvo::platform::detail::kPlatformTag;

std::string platform_path(const std::string& tv_path) { return tarvo::platform::Root() + tv_path; }

namespace tarvo {
namespace platform {

namespace {

Json::Value Country(const char* code, const char* name) {
    Json::Value country(Json::objectValue);
    country["countryCode"] = code;
    country["countryName"] = name;
    return country;
}

// A UHD retail set on a wired network, as shipped to a shop.
Json::Value DefaultDeviceProfile() {
    Json::Value p(Json::objectValue);
    p["system_info"]["13"] = true;
    p["system_info"]["282"] = false;
    p["system_info"]["61"] = true;
    p["system_info"]["128"] = "T-1010.5";
    p["factory_data"]["112"] = 0;
    p["factory_data"]["166"] = 0;
    p["factory_data"]["273"] = 0;
    p["firm_code"] = "T-TRV2-1010.5";
    Json::Value& rsp = p["country_list"]["rsp"];
    rsp["stat"] = "ok";
    rsp["modelId"] = "TRV55";
    rsp["countriesList"] = Json::Value(Json::arrayValue);
    rsp["countriesList"].append(Country("US", "United States"));
    rsp["countriesList"].append(Country("FR", "France"));
    rsp["countriesList"].append(Country("DE", "Germany"));
    rsp["countriesList"].append(Country("KR", "Korea"));
    p["term_error"] = "0";
    p["network"]["up"] = true;
    p["network"]["profile"] = "ethernet";
    p["network"]["mac"] = "AA:BB:CC:DD:EE:FF";
    p["network"]["dns"] = true;
    p["curl"]["write_block"] = 16384;
    return p;
}

}  // namespace

std::string Root() {
    const char* root = getenv("TARVO_ROOT");
    return root != nullptr ? root : "";
}

std::string DeviceProfilePath() { return platform_path("/etc/tarvo/device.json"); }

bool PrepareRoot(const std::string& root) {
    static const char* const kFolders[] = {
        "/var/vconf/db", "/run/vconf/memory", "/var/log",
        "/run",          "/etc/tarvo",        "/opt/usr/apps/org.mirlo.cloning/data/Clone",
    };
    for (const char* folder : kFolders) {
        if (!detail::MakeDirs(root + folder)) {
            __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "cannot create %s%s", root.c_str(), folder);
            return false;
        }
    }
    const std::string profile = root + "/etc/tarvo/device.json";
    struct stat st;
    if (stat(profile.c_str(), &st) == 0) return true;
    return detail::WriteFileAtomically(profile, detail::StyledJson(DefaultDeviceProfile()));
}

}  // namespace platform
}  // namespace tarvo
