// The disclaimer sets that the OpenAPI server answers from, one per country: loaded from
// DIR/openapi/*.json at start, changed by the admin's publish at run time (and, with a
// published-changes file, those of earlier runs replayed on top), read by listener threads for
// every answer. m_mutex guards m_countries and m_published; every operation locks it itself.
#pragma once

#include <json/json.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace tarvo {
namespace cloud {

// Error numbers of the answers that refuse a request, in the server's "stat" error form.
extern const char* const kErrorUnknownCountry;
extern const char* const kErrorUnknownSet;

// {"rsp": {"stat": "fail", "err": {"code", "msg"}, "desc"}}: every leaf a string.
Json::Value ErrorAnswer(const std::string& code, const std::string& msg, const std::string& desc);

// Empty when `set` is a well-formed country set, else the reason it is not.
std::string ValidateCountrySet(const Json::Value& set);
// Empty when `disclaimer` is a well-formed disclaimer of a set, else the reason it is not.
std::string ValidateDisclaimer(const Json::Value& disclaimer);

struct PublishResult {
    bool ok = false;
    std::string error;
    Json::Value changed{Json::arrayValue};  // "COUNTRY" or "COUNTRY/id" of each change
};

class DataSets {
  public:
    // Loads every DIR/openapi/*.json; false with the reason in `error` on the first bad file.
    bool LoadDirectory(const std::string& dir, std::string* error);

    // The "checkversion" answer: the set's id and each disclaimer's id and version.
    Json::Value CheckVersionAnswer(const std::string& country, const std::string& lang) const;
    // The "disclaimers" answer of set `set_id`: every disclaimer with its content in `lang`.
    Json::Value DisclaimersAnswer(const std::string& set_id, const std::string& country,
                                  const std::string& lang) const;

    // Applies one admin publish request; nothing changes when it fails, also when it cannot be
    // appended to the published-changes file.
    PublishResult Publish(const Json::Value& request);

    // Replays the publish requests kept in `path` (one JSON object a line, oldest first) on the
    // loaded sets and appends each later successful publish to it. A line that no longer applies
    // is skipped and described in `skipped`. False with the reason when the file cannot be read.
    bool KeepPublished(const std::string& path, std::vector<std::string>* skipped, size_t* replayed,
                       std::string* error);

    // Every country set as it stands now, by country code.
    Json::Value ToJson() const;

  private:
    mutable std::mutex m_mutex;  // guards m_countries and m_published
    std::map<std::string, Json::Value> m_countries;
    std::string m_published;  // the published-changes file; empty: publishes are not kept
};

}  // namespace cloud
}  // namespace tarvo
