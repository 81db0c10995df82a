#include "data_sets.h"

#include "json_text.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <vector>

namespace fs = std::filesystem;

namespace tarvo {
namespace cloud {

const char* const kErrorUnknownCountry = "4001";
const char* const kErrorUnknownSet = "4002";

namespace {

// The content of "details" may be text or a structure, but every leaf is a string.
bool AllLeavesAreStrings(const Json::Value& value) {
    if (value.isString()) return true;
    if (!value.isArray() && !value.isObject()) return false;
    for (const auto& member : value) {
        if (!AllLeavesAreStrings(member)) return false;
    }
    return true;
}

// The set's id becomes a path element of the "disclaimers" URL.
bool IsPathSafe(const std::string& text) {
    return !text.empty() && std::none_of(text.begin(), text.end(), [](unsigned char c) {
        return c <= ' ' || c == '/' || c == '?' || c == '#' || c == '%' || c == 0x7f;
    });
}

std::string ValidateTexts(const Json::Value& texts) {
    if (!texts.isObject() || texts.empty()) return "\"texts\" must be an object with at least one language";
    for (const auto& lang : texts.getMemberNames()) {
        const Json::Value& text = texts[lang];
        if (lang.empty() || !text.isObject()) return "\"texts\".\"" + lang + "\" must be an object";
        for (const auto& key : text.getMemberNames()) {
            const bool ok = key == "details" ? AllLeavesAreStrings(text[key]) : text[key].isString();
            if (!ok) return "\"texts\".\"" + lang + "\".\"" + key + "\" must hold only strings";
        }
    }
    return "";
}

bool ParseJsonFile(const fs::path& path, Json::Value* root, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot read " + path.string();
        return false;
    }
    std::stringstream buffer;
    buffer << in.rdbuf();
    std::string errors;
    if (!ParseJson(buffer.str(), root, &errors)) {
        *error = path.string() + ": " + errors;
        return false;
    }
    return true;
}

}  // namespace

Json::Value ErrorAnswer(const std::string& code, const std::string& msg, const std::string& desc) {
    Json::Value answer(Json::objectValue);
    answer["rsp"]["stat"] = "fail";
    answer["rsp"]["err"]["code"] = code;
    answer["rsp"]["err"]["msg"] = msg;
    answer["rsp"]["desc"] = desc;
    return answer;
}

std::string ValidateDisclaimer(const Json::Value& disclaimer) {
    if (!disclaimer.isObject()) return "a disclaimer must be a JSON object";
    if (!disclaimer["id"].isString() || disclaimer["id"].asString().empty()) {
        return "a disclaimer needs a non-empty string \"id\"";
    }
    const std::string id = disclaimer["id"].asString();
    if (!disclaimer["version"].isString()) return "disclaimer " + id + " needs a string \"version\"";
    if (disclaimer.isMember("content")) {
        const Json::Value& content = disclaimer["content"];
        if (!content.isObject()) return "\"content\" of " + id + " must be an object";
        for (const auto& key : content.getMemberNames()) {
            if (!content[key].isString()) return "\"content\".\"" + key + "\" of " + id + " must be a string";
        }
    }
    const std::string texts_error = ValidateTexts(disclaimer["texts"]);
    return texts_error.empty() ? "" : texts_error + " (disclaimer " + id + ")";
}

std::string ValidateCountrySet(const Json::Value& set) {
    if (!set.isObject()) return "a country set must be a JSON object";
    if (!set["country"].isString() || !IsPathSafe(set["country"].asString())) {
        return "a country set needs a string \"country\" without blanks or '/'";
    }
    if (!set["set_id"].isString() || !IsPathSafe(set["set_id"].asString())) {
        return "a country set needs a string \"set_id\" without blanks, '/', '?', '#' or '%'";
    }
    if (set.isMember("reverseOSD") && !set["reverseOSD"].isString()) return "\"reverseOSD\" must be a string";
    if (!set["disclaimers"].isArray()) return "a country set needs a \"disclaimers\" array";
    std::set<std::string> ids;
    for (const auto& disclaimer : set["disclaimers"]) {
        const std::string error = ValidateDisclaimer(disclaimer);
        if (!error.empty()) return error;
        if (!ids.insert(disclaimer["id"].asString()).second) {
            return "disclaimer " + disclaimer["id"].asString() + " appears twice";
        }
    }
    return "";
}

bool DataSets::LoadDirectory(const std::string& dir, std::string* error) {
    const fs::path folder = fs::path(dir) / "openapi";
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) {
        *error = "no folder " + folder.string();
        return false;
    }
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(folder, ec)) {
        if (entry.path().extension() == ".json") files.push_back(entry.path());
    }
    if (ec) {
        *error = "cannot list " + folder.string() + ": " + ec.message();
        return false;
    }
    std::sort(files.begin(), files.end());
    std::map<std::string, Json::Value> loaded;
    for (const auto& file : files) {
        Json::Value set;
        if (!ParseJsonFile(file, &set, error)) return false;
        const std::string problem = ValidateCountrySet(set);
        if (!problem.empty()) {
            *error = file.string() + ": " + problem;
            return false;
        }
        const std::string country = set["country"].asString();
        if (loaded.count(country) != 0) {
            *error = file.string() + ": country " + country + " is already given by another file";
            return false;
        }
        loaded[country] = set;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_countries = std::move(loaded);
    return true;
}

Json::Value DataSets::ToJson() const {
    Json::Value all(Json::objectValue);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& [country, set] : m_countries) all[country] = set;
    return all;
}

}  // namespace cloud
}  // namespace tarvo
