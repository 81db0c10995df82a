// System information from the device profile's "system_info" object.
#include <system_info.h>

#include "device_profile.h"
#include "file_util.h"

using tarvo::platform::detail::MemberScalar;
using tarvo::platform::detail::ProfileMemberRef;
using tarvo::platform::detail::ProfileScalar;

extern "C" int system_info_get_value_bool(system_info_key_e key, bool* value) {
    if (value == nullptr) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    const MemberScalar member = ProfileScalar("system_info", static_cast<int>(key));
    if (member.kind == MemberScalar::kMissing) return SYSTEM_INFO_ERROR_IO_ERROR;
    if (member.kind != MemberScalar::kBool) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    *value = member.value != 0;
    return SYSTEM_INFO_ERROR_NONE;
}

extern "C" int system_info_get_value_string(system_info_key_e key, char** value) {
    if (value == nullptr) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    const auto member = ProfileMemberRef("system_info", static_cast<int>(key));
    if (!member) return SYSTEM_INFO_ERROR_IO_ERROR;
    if (!member->isString()) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    char* copy = tarvo::platform::detail::MallocString(*member);
    if (copy == nullptr) return SYSTEM_INFO_ERROR_IO_ERROR;
    *value = copy;
    return SYSTEM_INFO_ERROR_NONE;
}
