// The disclaimer sets that the OpenAPI server answers from, one per country: loaded from
// DIR/openapi/*.json at start, changed by the admin's publish at run time, read by listener
// threads for every answer. m_mutex guards m_countries; every operation locks it itself.
#pragma once

#include <json/json.h>

#include <map>
#include <mutex>
#include <string>

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

    // Applies one admin publish request; nothing changes when it fails.
    PublishResult Publish(const Json::Value& request);

    // Every country set as it stands now, by country code.
    Json::Value ToJson() const;

  private:
    mutable std::mutex m_mutex;  // guards m_countries
    std::map<std::string, Json::Value> m_countries;
};

}  // namespace cloud
}  // namespace tarvo
