// What a small file held when it was last read, kept parsed and handed out again while the file
// is unchanged, so that a reader that looks at each call pays a stat(2), not an open and a parse.
// Any thread; m_mutex guards m_entries.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tarvo {
namespace platform {
namespace detail {

// The identity and times of one version of a file: replacing it by rename gives a new inode,
// writing in place new times.
struct FileStamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    struct timespec modified {};
    struct timespec changed {};
};

template <class T>
class FileSnapshots {
  public:
    // Parses the file's content; null when it is not what the reader takes (nothing is kept then).
    using Parser = std::function<std::shared_ptr<const T>(const std::string& content)>;
    // The file's content as `parse` made it, or null when the file is missing or unreadable.
    std::shared_ptr<const T> Get(const std::string& path, const Parser& parse);

  private:
    struct Entry {
        FileStamp stamp;
        std::shared_ptr<const T> value;
    };
    std::mutex m_mutex;  // guards m_entries
    std::map<std::string, Entry> m_entries;
};

// The stamp of the regular file at `path`; false when there is none.
bool StampOf(const std::string& path, FileStamp& stamp);
bool SameStamp(const FileStamp& left, const FileStamp& right);
// Whether a stamp taken no later than `read_start` can tell every later change of the file: its
// times lie far enough before the read that a change after it must give other times, whatever
// the file system's time granularity.
bool Settled(const FileStamp& stamp, const struct timespec& read_start);
// The real-time clock, the clock file times come from.
struct timespec Now();
// The whole content of `path`; false when it cannot be read.
bool ReadContent(const std::string& path, std::string& content);

template <class T>
std::shared_ptr<const T> FileSnapshots<T>::Get(const std::string& path, const Parser& parse) {
    const struct timespec read_start = Now();
    FileStamp stamp;
    if (!StampOf(path, stamp)) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.erase(path);
        return nullptr;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_entries.find(path);
        if (found != m_entries.end() && SameStamp(found->second.stamp, stamp)) return found->second.value;
    }
    std::string content;
    if (!ReadContent(path, content)) return nullptr;
    std::shared_ptr<const T> value = parse(content);
    std::lock_guard<std::mutex> lock(m_mutex);
    // A file changed less than a time step before it was read could change again unseen: such a
    // version is read again at each call until it has settled.
    if (value != nullptr && Settled(stamp, read_start)) {
        // A process reads a handful of files; a bound keeps a stray caller from growing the map.
        if (m_entries.size() >= 1024) m_entries.clear();
        m_entries[path] = Entry{stamp, value};
    } else {
        m_entries.erase(path);
    }
    return value;
}

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
