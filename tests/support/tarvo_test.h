// Shared test helpers: a fresh emulated root per test, device profile edits and
// bounded waits.
#pragma once

#include <json/json.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace tarvo::test {

// Makes a fresh temporary root, points TARVO_ROOT at it and prepares it as a
// television would be (folders and a default device profile). Removed at destruction.
class TempRoot {
  public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::string& Path() const { return m_path; }
    // ROOT + tv_path.
    std::string At(const std::string& tv_path) const;

    Json::Value Profile() const;
    void WriteProfile(const Json::Value& profile) const;
    // Applies `edit` to the current profile and writes it back.
    void EditProfile(const std::function<void(Json::Value&)>& edit) const;

  private:
    std::string m_path;
};

// A profile with every member set, for a UHD retail set in the US on ethernet.
Json::Value DefaultProfile();

// Polls `condition` every 10 ms until it holds or `timeout` passes.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
std::vector<std::string> Lines(const std::string& text);
// Parses JSON text; null when it is none.
Json::Value ParseText(const std::string& text);

// A vconf key of the current root: its text ("<unset>" when it has none), its number (-99).
std::string VconfText(const std::string& key);
int VconfNumber(const std::string& key);

}  // namespace tarvo::test
