// Why a version that an update brought is, or is not, marked revised: the service's rules,
// judged from what the store held before the run and what it holds after. Main thread only.
#pragma once

#include <json/json.h>

#include <map>
#include <string>
#include <vector>

namespace tarvoctl {

// One disclaimer whose version the run changed or that the run added.
struct NewVersion {
    std::string id;
    std::string old_version;  // empty when the store did not hold the id
    std::string new_version;
    bool revised = false;
    std::string why;  // in words, for revised and not revised alike
};

// `before` and `after` map ids to the records every requester lists (tarvoctl's Placement);
// `revised` holds the ids "get revised disclaimers" names after the run; `country_changed`
// says that the run cleared a store of another country.
std::vector<NewVersion> JudgeNewVersions(const std::map<std::string, Json::Value>& before,
                                         const std::map<std::string, Json::Value>& after,
                                         const std::vector<std::string>& revised, bool country_changed);

}  // namespace tarvoctl
