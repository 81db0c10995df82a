// Run-time changes of the disclaimer sets, as the admin's publish requests them, and the file
// that keeps them for the next start.
#include "data_sets.h"
#include "json_text.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace tarvo {
namespace cloud {

namespace {

using Countries = std::map<std::string, Json::Value>;

PublishResult Fail(const std::string& error) {
    PublishResult result;
    result.error = error;
    return result;
}

// The sets a request names: its "country", or every country when it names none.
bool Targets(Countries& countries, const Json::Value& request, std::vector<Json::Value*>* targets,
             std::string* error) {
    if (request.isMember("country")) {
        if (!request["country"].isString()) {
            *error = "\"country\" must be a string";
            return false;
        }
        const auto found = countries.find(request["country"].asString());
        if (found == countries.end()) {
            *error = "no disclaimer set for country " + request["country"].asString();
            return false;
        }
        targets->push_back(&found->second);
        return true;
    }
    for (auto& [country, set] : countries) targets->push_back(&set);
    return true;
}

Json::Value* FindDisclaimer(Json::Value& set, const std::string& id) {
    for (auto& disclaimer : set["disclaimers"]) {
        if (disclaimer["id"].asString() == id) return &disclaimer;
    }
    return nullptr;
}

std::string Change(const Json::Value& set, const std::string& id) {
    return set["country"].asString() + "/" + id;
}

PublishResult Withdraw(const std::vector<Json::Value*>& targets, const std::string& id) {
    PublishResult result;
    for (Json::Value* set : targets) {
        Json::Value kept(Json::arrayValue);
        for (const auto& disclaimer : (*set)["disclaimers"]) {
            if (disclaimer["id"].asString() == id) {
                result.changed.append(Change(*set, id));
            } else {
                kept.append(disclaimer);
            }
        }
        (*set)["disclaimers"] = kept;
    }
    if (result.changed.empty()) return Fail("no disclaimer " + id + " to withdraw");
    result.ok = true;
    return result;
}

PublishResult Replace(const std::vector<Json::Value*>& targets, const Json::Value& disclaimer) {
    const std::string error = ValidateDisclaimer(disclaimer);
    if (!error.empty()) return Fail(error);
    PublishResult result;
    const std::string id = disclaimer["id"].asString();
    for (Json::Value* set : targets) {
        if (Json::Value* existing = FindDisclaimer(*set, id)) {
            *existing = disclaimer;
        } else {
            (*set)["disclaimers"].append(disclaimer);
        }
        result.changed.append(Change(*set, id));
    }
    if (result.changed.empty()) return Fail("there is no country set to publish into");
    result.ok = true;
    return result;
}

// Without "lang" the version holds for every language; with it, for that translation alone.
PublishResult SetVersion(const std::vector<Json::Value*>& targets, const Json::Value& request) {
    if (!request["id"].isString() || !request["version"].isString()) {
        return Fail("\"id\" and \"version\" must be strings");
    }
    if (request.isMember("lang") && !request["lang"].isString()) return Fail("\"lang\" must be a string");
    const std::string id = request["id"].asString();
    const std::string version = request["version"].asString();
    PublishResult result;
    for (Json::Value* set : targets) {
        Json::Value* disclaimer = FindDisclaimer(*set, id);
        if (disclaimer == nullptr) continue;
        Json::Value& texts = (*disclaimer)["texts"];
        if (request.isMember("lang")) {
            const std::string lang = request["lang"].asString();
            if (!texts.isMember(lang)) continue;
            texts[lang]["version"] = version;
        } else {
            (*disclaimer)["version"] = version;
            for (const auto& lang : texts.getMemberNames()) texts[lang].removeMember("version");
        }
        result.changed.append(Change(*set, id));
    }
    if (result.changed.empty()) {
        return Fail("no disclaimer " + id +
                    (request.isMember("lang") ? " in language " + request["lang"].asString() : "") +
                    " to publish a version of");
    }
    result.ok = true;
    return result;
}

PublishResult SetAttributes(const std::vector<Json::Value*>& targets, const Json::Value& request) {
    for (Json::Value* set : targets) {
        Json::Value changed = *set;
        if (request.isMember("reverseOSD")) changed["reverseOSD"] = request["reverseOSD"];
        if (request.isMember("set_id")) changed["set_id"] = request["set_id"];
        const std::string error = ValidateCountrySet(changed);
        if (!error.empty()) return Fail(error);
    }
    PublishResult result;
    for (Json::Value* set : targets) {
        if (request.isMember("reverseOSD")) (*set)["reverseOSD"] = request["reverseOSD"];
        if (request.isMember("set_id")) (*set)["set_id"] = request["set_id"];
        result.changed.append((*set)["country"].asString());
    }
    result.ok = true;
    return result;
}

// Applies one publish request to `next`; false in the result when it does not apply.
PublishResult Apply(Countries& next, const Json::Value& request) {
    if (!request.isObject()) return Fail("the publish request must be a JSON object");
    PublishResult result;
    if (request.isMember("country_set")) {
        const std::string error = ValidateCountrySet(request["country_set"]);
        if (!error.empty()) return Fail(error);
        const std::string country = request["country_set"]["country"].asString();
        next[country] = request["country_set"];
        result.ok = true;
        result.changed.append(country);
    } else if (request.isMember("remove_country")) {
        const Json::Value& country = request["remove_country"];
        if (!country.isString() || next.erase(country.asString()) == 0) {
            return Fail("\"remove_country\" must name a country that has a set");
        }
        result.ok = true;
        result.changed.append(country.asString());
    } else {
        std::vector<Json::Value*> targets;
        std::string error;
        if (!Targets(next, request, &targets, &error)) return Fail(error);
        if (request.isMember("withdraw")) {
            if (!request["withdraw"].isString()) return Fail("\"withdraw\" must be a disclaimer id");
            result = Withdraw(targets, request["withdraw"].asString());
        } else if (request.isMember("disclaimer")) {
            result = Replace(targets, request["disclaimer"]);
        } else if (request.isMember("id") || request.isMember("version")) {
            result = SetVersion(targets, request);
        } else if (request.isMember("reverseOSD") || request.isMember("set_id")) {
            result = SetAttributes(targets, request);
        } else {
            return Fail(
                "unknown publish request: give \"id\" and \"version\", \"withdraw\", \"disclaimer\", "
                "\"reverseOSD\", \"set_id\", \"country_set\" or \"remove_country\" (see tarvo-cloud --help)");
        }
    }
    return result;
}

// One line at the end of `path`, flushed before the change counts as made.
bool AppendLine(const std::string& path, const std::string& line) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << line << '\n';
    return static_cast<bool>(out.flush());
}

}  // namespace

PublishResult DataSets::Publish(const Json::Value& request) {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Work on a copy, so that a request that fails half-way changes nothing.
    Countries next = m_countries;
    PublishResult result = Apply(next, request);
    if (!result.ok) return result;
    if (!m_published.empty() && !AppendLine(m_published, CompactJson(request))) {
        return Fail("cannot keep the change in " + m_published + ", so it was not made");
    }
    m_countries = std::move(next);
    return result;
}

bool DataSets::KeepPublished(const std::string& path, std::vector<std::string>* skipped, size_t* replayed,
                             std::string* error) {
    std::lock_guard<std::mutex> lock(m_mutex);
    *replayed = 0;
    std::string text;
    if (std::ifstream in{path, std::ios::binary}) {
        std::stringstream buffer;
        buffer << in.rdbuf();
        text = buffer.str();
    } else if (std::filesystem::exists(path)) {
        *error = "cannot read " + path;
        return false;
    }
    std::istringstream lines(text);
    std::string line;
    for (size_t number = 1; std::getline(lines, line); ++number) {
        if (line.empty()) continue;
        Json::Value request;
        std::string reason;
        // A line cut short by a crash is no JSON: it is skipped like one that no longer applies.
        if (!ParseJson(line, &request, &reason)) {
            skipped->push_back(path + " line " + std::to_string(number) + ": no JSON: " + reason);
            continue;
        }
        Countries next = m_countries;
        const PublishResult result = Apply(next, request);
        if (!result.ok) {
            skipped->push_back(path + " line " + std::to_string(number) + ": " + result.error);
            continue;
        }
        m_countries = std::move(next);
        ++*replayed;
    }
    // Also refuses an unwritable file now rather than at the first publish; a line cut short is
    // ended, so that the next change starts a line of its own.
    std::ofstream out(path, std::ios::binary | std::ios::app);
    if (!text.empty() && text.back() != '\n') out << '\n';
    if (!out.flush()) {
        *error = "cannot write " + path;
        return false;
    }
    m_published = path;
    return true;
}

}  // namespace cloud
}  // namespace tarvo
