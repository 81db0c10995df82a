// System information from the device profile's "system_info" object.
#include <system_info.h>

#include "device_profile.h"
#include "file_util.h"

#include <string>

using tarvo::platform::detail::ProfileMember;

extern "C" int system_info_get_value_bool(system_info_key_e key, bool* value) {
    if (value == nullptr) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    auto member = ProfileMember("system_info", std::to_string(key));
    if (!member) return SYSTEM_INFO_ERROR_IO_ERROR;
    if (!member->isBool()) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    *value = member->asBool();
    return SYSTEM_INFO_ERROR_NONE;
}

extern "C" int system_info_get_value_string(system_info_key_e key, char** value) {
    if (value == nullptr) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    auto member = ProfileMember("system_info", std::to_string(key));
    if (!member) return SYSTEM_INFO_ERROR_IO_ERROR;
    if (!member->isString()) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    char* copy = tarvo::platform::detail::MallocCopy(member->asString());
    if (copy == nullptr) return SYSTEM_INFO_ERROR_IO_ERROR;
    *value = copy;
    return SYSTEM_INFO_ERROR_NONE;
}
