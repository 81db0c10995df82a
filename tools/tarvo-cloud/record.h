// In-memory record of every request the cloud's servers received, oldest first.
// Listener threads append, the admin thread reads and clears; m_mutex guards m_entries
// and m_next_seq.
#pragma once

#include <httplib.h>
#include <json/json.h>

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

namespace tarvo {
namespace cloud {

// Now in UTC with milliseconds, "2024-05-01T12:00:00.123Z".
std::string NowIso8601Utc();

class RequestRecord {
  public:
    // Past `capacity` entries the oldest is dropped, so a long run cannot grow without bound.
    explicit RequestRecord(size_t capacity = 10000);

    // Keeps method, path, target, query, headers, body, peer and time; `server` names the listener.
    void Add(const std::string& server, const httplib::Request& req);
    // Every entry, oldest first, as a JSON array.
    Json::Value ToJson() const;
    // Forgets every entry; returns how many there were.
    size_t Clear();

  private:
    const size_t m_capacity;
    mutable std::mutex m_mutex;  // guards m_entries, m_next_seq
    std::deque<Json::Value> m_entries;
    uint64_t m_next_seq = 1;
};

}  // namespace cloud
}  // namespace tarvo
