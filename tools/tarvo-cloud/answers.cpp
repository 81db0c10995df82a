// The two OpenAPI answers, built from a country set for one language.
#include "data_sets.h"

#include <set>

namespace tarvo {
namespace cloud {

namespace {

// The set's language for `lang`: the language itself, else its first two letters
// ("fr-US" gives "fr"), else English, else the first language the set has.
std::string ResolveLanguage(const Json::Value& set, const std::string& lang) {
    std::set<std::string> languages;
    for (const auto& disclaimer : set["disclaimers"]) {
        for (const auto& name : disclaimer["texts"].getMemberNames()) languages.insert(name);
    }
    if (languages.count(lang) != 0) return lang;
    if (lang.size() > 2 && languages.count(lang.substr(0, 2)) != 0) return lang.substr(0, 2);
    if (languages.count("en") != 0 || languages.empty()) return "en";
    return *languages.begin();
}

// A disclaimer not yet translated into `lang` is given in English.
const Json::Value& TextsFor(const Json::Value& disclaimer, const std::string& lang) {
    const Json::Value& texts = disclaimer["texts"];
    if (texts.isMember(lang)) return texts[lang];
    if (texts.isMember("en")) return texts["en"];
    return texts[texts.getMemberNames().front()];
}

// A translation may carry a version of its own, published for that language alone.
std::string VersionOf(const Json::Value& disclaimer, const Json::Value& texts) {
    return texts["version"].isString() ? texts["version"].asString() : disclaimer["version"].asString();
}

Json::Value UnknownCountry(const std::string& country) {
    return ErrorAnswer(kErrorUnknownCountry, "Unsupported country code",
                       "No disclaimer set is published for country '" + country + "'");
}

}  // namespace

Json::Value DataSets::CheckVersionAnswer(const std::string& country, const std::string& lang) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_countries.find(country);
    if (found == m_countries.end()) return UnknownCountry(country);
    const Json::Value& set = found->second;
    const std::string language = ResolveLanguage(set, lang);

    Json::Value answer(Json::objectValue);
    answer["rsp"]["stat"] = "ok";
    Json::Value& disclaimer = answer["rsp"]["disclaimer"];
    disclaimer["id"] = set["set_id"];
    disclaimer["items"] = Json::Value(Json::arrayValue);
    for (const auto& entry : set["disclaimers"]) {
        Json::Value item(Json::objectValue);
        item["id"] = entry["id"];
        item["version"] = VersionOf(entry, TextsFor(entry, language));
        disclaimer["items"].append(item);
    }
    return answer;
}

Json::Value DataSets::DisclaimersAnswer(const std::string& set_id, const std::string& country,
                                        const std::string& lang) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_countries.find(country);
    if (found == m_countries.end()) return UnknownCountry(country);
    const Json::Value& set = found->second;
    if (set["set_id"].asString() != set_id) {
        return ErrorAnswer(kErrorUnknownSet, "Unknown disclaimer set",
                           "Disclaimer set '" + set_id + "' is not published for country '" + country + "'");
    }
    const std::string language = ResolveLanguage(set, lang);

    Json::Value answer(Json::objectValue);
    answer["rsp"]["stat"] = "ok";
    Json::Value& disclaimer = answer["rsp"]["disclaimer"];
    disclaimer["id"] = set_id;
    disclaimer["reverseOSD"] = set["reverseOSD"].isString() ? set["reverseOSD"].asString() : "false";
    disclaimer["items"] = Json::Value(Json::arrayValue);
    for (const auto& entry : set["disclaimers"]) {
        const Json::Value& texts = TextsFor(entry, language);
        Json::Value item(Json::objectValue);
        item["id"] = entry["id"];
        item["version"] = VersionOf(entry, texts);
        Json::Value content = entry["content"].isObject() ? entry["content"] : Json::Value(Json::objectValue);
        for (const auto& key : texts.getMemberNames()) {
            if (key != "version") content[key] = texts[key];
        }
        item["content"] = content;
        disclaimer["items"].append(item);
    }
    return answer;
}

}  // namespace cloud
}  // namespace tarvo
