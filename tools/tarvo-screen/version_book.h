// What the screen has seen of each disclaimer: its version and answer, and, once a new version
// replaced it, the version before and whether the user had agreed to that one. The service keeps
// no old versions, so the updated-terms prompt names the old one from here. Kept in a file beside
// the host's socket so that it outlives the screen. Any thread; m_mutex guards m_book.
#pragma once

#include <json/json.h>

#include <mutex>
#include <string>
#include <vector>

namespace tarvoscreen {

class VersionBook {
  public:
    explicit VersionBook(const std::string& socket_path);

    // Brings the book up to date with `records` (the disclaimers every requester sees now).
    void Update(const std::vector<Json::Value>& records);
    // {id: {"version", "agreed", "previous", "previous_agreed"}}.
    Json::Value Snapshot() const;

  private:
    void m_Save() const;

    const std::string m_path;
    mutable std::mutex m_mutex;
    Json::Value m_book{Json::objectValue};
};

}  // namespace tarvoscreen
