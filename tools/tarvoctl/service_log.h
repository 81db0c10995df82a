// Reading the platform log ROOT/var/log/tarvo.log, which the host and every tool append to:
// its lines as entries (time, level, tag, pid, the service's function and message), and a
// cursor that hands out what was written since it was made, following the log across its
// rotation (tarvo.log.1 the newest rotated file, .2 the one before). Main thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarvoctl {

struct LogEntry {
    std::string time;  // "YYYY-MM-DD HH:MM:SS.mmm"
    char level = '?';  // V D I W E F
    std::string tag;
    std::string pid;
    std::string function;  // the service's own lines name the function that wrote them
    std::string message;   // without the service's prefix and colour codes; continuation lines joined by '\n'
};

// The service's log tag.
constexpr const char* kServiceTag = "TarvoDataControl";

// A line of the log as an entry; nullopt when it is no line start (a continuation).
std::optional<LogEntry> ParseLogLine(const std::string& line);
// The level a letter stands for, on the scale debug 0, info 1, warn 2, error 3.
int LevelRank(char letter);
// "debug", "info", "warn" or "error" as its rank; nullopt for any other word.
std::optional<int> ParseLevel(const std::string& word);

class LogCursor {
  public:
    // Starts at the end of `path` as it is now (when `from_start`, at the start of the oldest
    // rotated file, so that the rotated files are read first, oldest first).
    explicit LogCursor(std::string path, bool from_start = false);

    // The entries completed since the last call. An entry is held back until the next line
    // starts, since the service writes some messages over several lines.
    std::vector<LogEntry> Read();
    // Like Read, and also hands out the last entry that is still open.
    std::vector<LogEntry> ReadAll();
    // The service's entries since the last call, the last one included.
    std::vector<LogEntry> ReadService();
    // The log or a rotated file of it exists.
    bool Exists() const;
    const std::string& Path() const { return m_path; }

  private:
    std::vector<LogEntry> m_Read(bool flush);
    // Appends `path` from `offset` to its end to m_partial; the offset reached.
    uint64_t m_Take(const std::string& path, uint64_t offset);
    std::string m_Rotated(int index) const;

    std::string m_path;
    std::vector<std::string> m_backlog;  // rotated files still to read whole, oldest first
    uint64_t m_inode = 0;                // the file m_offset is in; 0 before it was seen
    uint64_t m_offset = 0;
    std::string m_partial;
    std::optional<LogEntry> m_open;
};

// The text of the first entry whose message starts with `prefix`, after it; nullopt when none.
std::optional<std::string> FindAfter(const std::vector<LogEntry>& entries, const std::string& prefix);
bool Contains(const std::vector<LogEntry>& entries, const std::string& prefix);

}  // namespace tarvoctl
