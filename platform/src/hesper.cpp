// The firm code from the device profile's "firm_code".
#include <hesper.h>

#include "device_profile.h"
#include "file_util.h"

extern "C" int hesper_get_quorbase_ver(char** value) {
    if (value == nullptr) return -1;
    const auto member = tarvo::platform::detail::ProfileMemberRef("firm_code");
    if (!member || !member->isString()) return -1;
    char* copy = tarvo::platform::detail::MallocString(*member);
    if (copy == nullptr) return -1;
    *value = copy;
    return 0;
}
