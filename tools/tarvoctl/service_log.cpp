#include "service_log.h"

#include "terminal.h"

#include <sys/stat.h>

#include <cctype>
#include <fstream>
#include <iterator>

namespace tarvoctl {

namespace {

bool IsTimeStamp(const std::string& line) {
    static const char kShape[] = "0000-00-00 00:00:00.000";
    if (line.size() < sizeof(kShape)) return false;
    for (size_t i = 0; i + 1 < sizeof(kShape); ++i) {
        const bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
        if ((kShape[i] == '0') != digit) return false;
        if (!digit && line[i] != kShape[i]) return false;
    }
    return true;
}

// More rotated files than the platform ever keeps.
constexpr int kMostRotated = 100;

struct FileState {
    uint64_t inode = 0;  // 0: no such file
    uint64_t size = 0;
};

FileState StateOf(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return FileState{};
    return FileState{static_cast<uint64_t>(info.st_ino), static_cast<uint64_t>(info.st_size)};
}

}  // namespace

std::optional<LogEntry> ParseLogLine(const std::string& line) {
    // "2024-05-01 10:00:00.000 W/Tag(42): text"
    if (!IsTimeStamp(line) || line.size() < 27 || line[23] != ' ' || line[25] != '/') return std::nullopt;
    LogEntry entry;
    entry.time = line.substr(0, 23);
    entry.level = line[24];
    const size_t open = line.find('(', 26);
    const size_t close = open == std::string::npos ? open : line.find("): ", open);
    if (close == std::string::npos) return std::nullopt;
    entry.tag = line.substr(26, open - 26);
    entry.pid = line.substr(open + 1, close - open - 1);
    std::string text = line.substr(close + 3);
    // The service writes "File.cpp: Function(12) > [Function:12]message" in colour.
    const size_t arrow = text.find(" > ");
    if (entry.tag == kServiceTag && arrow != std::string::npos) {
        std::string rest = StripAnsi(text.substr(arrow + 3));
        const size_t first = rest.find_first_not_of(' ');
        rest = first == std::string::npos ? std::string() : rest.substr(first);
        const size_t bracket = rest.find(']');
        if (!rest.empty() && rest[0] == '[' && bracket != std::string::npos) {
            const std::string where = rest.substr(1, bracket - 1);
            entry.function = where.substr(0, where.rfind(':'));
            rest = rest.substr(bracket + 1);
        }
        entry.message = rest;
    } else {
        entry.message = StripAnsi(text);
    }
    return entry;
}

int LevelRank(char letter) {
    switch (letter) {
        case 'I':
            return 1;
        case 'W':
            return 2;
        case 'E':
        case 'F':
            return 3;
        default:
            return 0;
    }
}

std::optional<int> ParseLevel(const std::string& word) {
    static const char* kNames[] = {"debug", "info", "warn", "error"};
    for (int i = 0; i < 4; ++i) {
        if (word == kNames[i]) return i;
    }
    return std::nullopt;
}

LogCursor::LogCursor(std::string path, bool from_start) : m_path(std::move(path)) {
    if (from_start) {
        for (int index = 1; index <= kMostRotated && StateOf(m_Rotated(index)).inode != 0; ++index) {
            m_backlog.insert(m_backlog.begin(), m_Rotated(index));
        }
        return;
    }
    const FileState live = StateOf(m_path);
    m_inode = live.inode;
    m_offset = live.size;
}

std::string LogCursor::m_Rotated(int index) const { return m_path + "." + std::to_string(index); }

bool LogCursor::Exists() const { return StateOf(m_path).inode != 0 || StateOf(m_Rotated(1)).inode != 0; }

std::vector<LogEntry> LogCursor::Read() { return m_Read(false); }

std::vector<LogEntry> LogCursor::ReadAll() { return m_Read(true); }

std::vector<LogEntry> LogCursor::ReadService() {
    std::vector<LogEntry> service;
    // A message of several lines is written at once, so what has arrived is whole.
    for (auto& entry : m_Read(true)) {
        if (entry.tag == kServiceTag) service.push_back(std::move(entry));
    }
    return service;
}

uint64_t LogCursor::m_Take(const std::string& path, uint64_t offset) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return offset;
    in.seekg(static_cast<std::streamoff>(offset));
    std::string chunk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    m_partial += chunk;
    return offset + chunk.size();
}

std::vector<LogEntry> LogCursor::m_Read(bool flush) {
    std::vector<LogEntry> entries;
    for (const std::string& rotated : m_backlog) m_Take(rotated, 0);
    m_backlog.clear();
    const FileState live = StateOf(m_path);
    if (m_inode != 0 && live.inode != m_inode) {
        // The file being read was rotated: the rest of it, then the files rotated after it, are
        // read before the live one. A file no longer found was removed with what it held.
        int found = 0;
        for (int index = 1; index <= kMostRotated; ++index) {
            const FileState rotated = StateOf(m_Rotated(index));
            if (rotated.inode == 0) break;
            if (rotated.inode == m_inode) {
                found = index;
                break;
            }
        }
        if (found > 0) m_Take(m_Rotated(found), m_offset);
        for (int index = found - 1; index >= 1; --index) m_Take(m_Rotated(index), 0);
        m_offset = 0;
    } else if (live.size < m_offset) {
        // A log that was emptied is read again from its start.
        m_offset = 0;
        m_partial.clear();
    }
    m_inode = live.inode;
    if (live.inode != 0 && live.size > m_offset) m_offset = m_Take(m_path, m_offset);
    size_t start = 0;
    for (size_t end; (end = m_partial.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string line = m_partial.substr(start, end - start);
        if (auto entry = ParseLogLine(line)) {
            if (m_open) entries.push_back(std::move(*m_open));
            m_open = std::move(entry);
        } else if (m_open) {
            m_open->message += "\n" + StripAnsi(line);
        }
    }
    m_partial.erase(0, start);
    if (flush && m_open) {
        entries.push_back(std::move(*m_open));
        m_open.reset();
    }
    return entries;
}

std::optional<std::string> FindAfter(const std::vector<LogEntry>& entries, const std::string& prefix) {
    for (const auto& entry : entries) {
        if (entry.message.compare(0, prefix.size(), prefix) == 0) return entry.message.substr(prefix.size());
    }
    return std::nullopt;
}

bool Contains(const std::vector<LogEntry>& entries, const std::string& prefix) {
    return FindAfter(entries, prefix).has_value();
}

}  // namespace tarvoctl
