// Server configuration: country list and last term error from the device profile,
// the country setting into vconf.
#include <nimbra.h>
#include <vconf.h>

#include "device_profile.h"
#include "file_util.h"

using tarvo::platform::detail::MallocCopy;
using tarvo::platform::detail::ProfileMemberRef;

extern "C" int nimbra_get_countrylist(char** text) {
    if (text == nullptr) return -1;
    const auto member = ProfileMemberRef("country_list");
    if (!member) return -1;
    // A string goes out as written, so that a test can hand out text that is no JSON.
    const std::string out =
        member->isString() ? member->asString() : tarvo::platform::detail::CompactJson(*member);
    char* copy = MallocCopy(out);
    if (copy == nullptr) return -1;
    *text = copy;
    return 0;
}

extern "C" int nimbra_get_term_error(char** value) {
    if (value == nullptr) return -1;
    const auto member = ProfileMemberRef("term_error");
    if (!member) return -1;
    const std::string out =
        member->isString() ? member->asString() : tarvo::platform::detail::CompactJson(*member);
    char* copy = MallocCopy(out);
    if (copy == nullptr) return -1;
    *value = copy;
    return 0;
}

extern "C" int nimbra_set_gpm_countrycode(const char* code) {
    if (code == nullptr) return 0;
    return vconf_set_str("db/nimbra/countrycode", code) == 0 ? 1 : 0;
}
