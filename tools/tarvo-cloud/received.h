// What the agreement and log servers accepted, kept in memory for the admin endpoint:
// listener threads add, the admin thread reads and clears. Each book's m_mutex guards its
// contents.
#pragma once

#include <json/json.h>

#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace tarvo {
namespace cloud {

struct AgreementTerm {
    std::string id;
    std::string agree;  // "Y" or "N"
    std::string version;
};

struct AgreementUpload {
    std::string deployment;  // "production" or "staging"
    std::string duid;
    std::string country;
    std::string model;
    std::vector<AgreementTerm> terms;  // in document order
};

// The latest answer to each term, per deployment and device.
class AgreementBook {
  public:
    // Merges the upload's terms into its device's entry and counts the upload.
    void Add(const AgreementUpload& upload);
    // {"production": {DUID: {"country", "model", "time", "uploads", "terms": {id: {"agree",
    // "agreeVer"}}}}, "staging": {...}}.
    Json::Value ToJson() const;
    // Forgets every device; returns how many entries there were.
    size_t Clear();

  private:
    mutable std::mutex m_mutex;  // guards m_devices
    Json::Value m_devices;
};

// Every usage event received, oldest first.
class LogBook {
  public:
    // Past `capacity` events the oldest is dropped.
    explicit LogBook(size_t capacity = 10000);

    // Keeps each event of a checked batch {"service", "header", "events"}.
    void Add(const std::string& deployment, const std::string& path, const Json::Value& batch);
    Json::Value ToJson() const;
    size_t Clear();

  private:
    const size_t m_capacity;
    mutable std::mutex m_mutex;  // guards m_events
    std::deque<Json::Value> m_events;
};

}  // namespace cloud
}  // namespace tarvo
