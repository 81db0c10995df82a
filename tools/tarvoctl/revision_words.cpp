#include "revision_words.h"

#include <algorithm>

namespace tarvoctl {

namespace {

bool Agreed(const std::map<std::string, Json::Value>& records, const std::string& id) {
    const auto it = records.find(id);
    return it != records.end() && it->second["is_agreed"].asBool();
}

// The service's rule for a new version of one record, in the order it tests; the reason it is
// not revised, or empty when the rule marks it revised.
std::string WhyNotRevised(const std::string& id, const Json::Value& record,
                          const std::map<std::string, Json::Value>& before, bool country_changed) {
    if (id == "tnc" || id == "pp") {
        return "a new version of tnc or pp keeps its answer and is never marked revised";
    }
    if (id == "main_common" || id == "sub_common") {
        return "a common item of the wizard is never available here, so never revised";
    }
    if (before.empty() || country_changed) {
        return "the store held no set of this country before, so nothing counts as revised";
    }
    if (!Agreed(before, "tnc") || !Agreed(before, "pp")) {
        return "tnc and pp were not both agreed, and only then is a new version marked revised";
    }
    if (record["version"].asString().empty()) return "it has no version";
    if (record["only_notice"].asBool()) return "it is a notice, which is never marked revised";
    // A record new to the store is revised when it is available; the lists hold available ones only.
    if (before.count(id) == 0) return "";
    if (!Agreed(before, id)) {
        return "its old version was not agreed, so there is no answer to ask again";
    }
    const std::string dependency = record["agree_dependency"].asString();
    if (!dependency.empty() && !Agreed(before, dependency)) {
        return "it depends on \"" + dependency + "\", which was not agreed";
    }
    return "";
}

}  // namespace

std::vector<NewVersion> JudgeNewVersions(const std::map<std::string, Json::Value>& before,
                                         const std::map<std::string, Json::Value>& after,
                                         const std::vector<std::string>& revised, bool country_changed) {
    std::vector<NewVersion> found;
    for (const auto& [id, record] : after) {
        const auto old = before.find(id);
        const std::string version = record["version"].asString();
        if (old != before.end() && old->second["version"].asString() == version) continue;
        NewVersion entry;
        entry.id = id;
        entry.old_version = old != before.end() ? old->second["version"].asString() : std::string();
        entry.new_version = version;
        entry.revised = std::find(revised.begin(), revised.end(), id) != revised.end();
        const std::string why = WhyNotRevised(id, record, before, country_changed);
        if (entry.revised) {
            entry.why = old == before.end() ? "new to this television: the user is asked for it"
                                            : "its old version was agreed: the user is asked again";
        } else {
            entry.why = why.empty() ? "the service did not mark it revised" : why;
        }
        found.push_back(std::move(entry));
    }
    return found;
}

}  // namespace tarvoctl
