// What a small file held when it was last read, kept parsed and handed out again while the file
// is unchanged. Changes are learnt from inotify watches on the files' folders, so that a reader
// that looks at each call pays one look at the event queue and a map look-up, not a stat, an open
// and a parse. Any thread; m_mutex guards the entries and the watches.
#pragma once

#include <tarvo/call_scope.h>

#include "file_util.h"

#include <sys/stat.h>
#include <time.h>

#include <cstdint>
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

// The folders of cached files, watched on one inotify descriptor opened at the first watch.
// Not thread-safe: its owner's mutex guards it.
class FolderWatches {
  public:
    // Told of a change: `watch` -1 for every folder, `name` empty for every file of the folder.
    using Changed = std::function<void(int watch, const char* name)>;

    FolderWatches() = default;
    FolderWatches(const FolderWatches&) = delete;
    FolderWatches& operator=(const FolderWatches&) = delete;
    ~FolderWatches();

    // Watches `folder` ("" for the working folder); its watch, or -1 when inotify cannot watch it.
    int Add(const std::string& folder, const Changed& changed);
    // Reports every change queued since the last call; one ioctl(2) when there is none.
    void Drain(const Changed& changed);
    // Drops every watch.
    void Clear();

  private:
    int m_fd = -1;
    unsigned m_forks = 0;                  // the fork count when m_fd was opened
    std::map<int, std::string> m_folders;  // watch -> folder as the caller named it
};

// When something kept for one client call was read: the call (0 outside any, where nothing is
// kept) and how many files this process had replaced by then. A memo is good while both hold.
struct CallStamp {
    std::uint64_t call = 0;
    std::uint64_t replaced = 0;

    static CallStamp Now() { return CallStamp{CallScope::Current(), FilesReplaced()}; }
    bool operator==(const CallStamp& other) const { return call == other.call && replaced == other.replaced; }
};

template <class T>
class FileSnapshots {
  public:
    // Parses the file's content; null when it is not what the reader takes (nothing is kept then).
    using Parser = std::function<std::shared_ptr<const T>(const std::string& content)>;
    // The file's content as `parse` made it, or null when the file is missing or unreadable.
    // Inside a client call (CallScope) each path is looked at once, and again only after this
    // process replaced a file: every record of one answer sees the same files.
    std::shared_ptr<const T> Get(const std::string& path, const Parser& parse);

  private:
    std::shared_ptr<const T> m_Read(const std::string& path, const Parser& parse);

    struct Entry {
        std::string name;        // the file's name in its folder, as events give it
        int watch = -1;          // the folder's watch; -1: checked by stat at each call
        std::uint64_t read = 0;  // the read that fills it; another read or a change replaces it
        bool ready = false;      // false while its read is going on
        bool present = false;    // false: the file was missing (kept only while its folder is watched)
        FileStamp stamp;
        struct timespec checked {};  // when the stamp was last compared, on the monotonic clock
        std::shared_ptr<const T> value;
    };
    // Forgets the entries a change names.
    void Drop(int watch, const char* name);

    std::mutex m_mutex;  // guards everything below
    FolderWatches m_watches;
    std::map<std::string, Entry> m_entries;
    std::uint64_t m_reads = 0;
};

// The stamp of the regular file at `path`, following a symlink (`link` then true); false when
// there is none.
bool StampOf(const std::string& path, FileStamp& stamp, bool& link);
bool SameStamp(const FileStamp& left, const FileStamp& right);
// Whether a stamp taken no later than `read_start` can tell every later change of the file: its
// times lie far enough before the read that a change after it must give other times, whatever
// the file system's time granularity.
bool Settled(const FileStamp& stamp, const struct timespec& read_start);
// The real-time clock, the clock file times come from.
struct timespec Now();
// A cheap monotonic clock, to pace the checks of watched entries.
struct timespec CoarseNow();
// Whether a watched entry last checked at `checked` is to be checked by stat again.
bool CheckDue(const struct timespec& checked, const struct timespec& now);
// The whole content of `path`; false when it cannot be read.
bool ReadContent(const std::string& path, std::string& content);
std::string FolderOf(const std::string& path);
std::string NameOf(const std::string& path);

template <class T>
void FileSnapshots<T>::Drop(int watch, const char* name) {
    for (auto it = m_entries.begin(); it != m_entries.end();) {
        const Entry& entry = it->second;
        const bool named = watch < 0 || (entry.watch == watch && (*name == '\0' || entry.name == name));
        it = named ? m_entries.erase(it) : std::next(it);
    }
}

template <class T>
std::shared_ptr<const T> FileSnapshots<T>::Get(const std::string& path, const Parser& parse) {
    // Taken before the read: a file replaced during it clears the memo at the next look.
    const CallStamp now = CallStamp::Now();
    if (now.call == 0) return m_Read(path, parse);
    struct Memo {
        const void* owner = nullptr;
        CallStamp stamp;
        std::map<std::string, std::shared_ptr<const T>> values;
    };
    thread_local Memo memo;
    if (memo.owner != this || !(memo.stamp == now)) {
        memo.values.clear();
        memo.owner = this;
        memo.stamp = now;
    }
    const auto found = memo.values.find(path);
    if (found != memo.values.end()) return found->second;
    std::shared_ptr<const T> value = m_Read(path, parse);
    memo.values.emplace(path, value);
    return value;
}

template <class T>
std::shared_ptr<const T> FileSnapshots<T>::m_Read(const std::string& path, const Parser& parse) {
    const struct timespec now = CoarseNow();
    const FolderWatches::Changed drop = [this](int watch, const char* name) { Drop(watch, name); };
    std::unique_lock<std::mutex> lock(m_mutex);
    m_watches.Drain(drop);
    const auto found = m_entries.find(path);
    if (found != m_entries.end() && found->second.ready) {
        Entry& entry = found->second;
        // No event named it, so it is current; only a folder further up being replaced goes
        // unseen, which a stat now and then catches.
        if (entry.watch >= 0 && !CheckDue(entry.checked, now)) return entry.value;
        FileStamp stamp;
        bool link = false;
        const bool present = StampOf(path, stamp, link);
        if (present == entry.present && (!present || SameStamp(stamp, entry.stamp))) {
            entry.checked = now;
            return entry.value;
        }
    }
    // A process reads a handful of files; a bound keeps a stray caller from growing the map.
    if (m_entries.size() >= 1024) {
        m_entries.clear();
        m_watches.Clear();
    }
    // Watched before the read, so that a change from the read on is seen.
    const int watch = m_watches.Add(FolderOf(path), drop);
    const std::uint64_t read = ++m_reads;
    Entry& pending = m_entries[path];
    pending = Entry{};
    pending.name = NameOf(path);
    pending.watch = watch;
    pending.read = read;
    lock.unlock();
    const struct timespec read_start = Now();
    FileStamp stamp;
    bool link = false;
    const bool present = StampOf(path, stamp, link);
    std::string content;
    std::shared_ptr<const T> value = present && ReadContent(path, content) ? parse(content) : nullptr;
    lock.lock();
    const auto mine = m_entries.find(path);
    // Gone: the file changed during the read (or a later read took the entry over).
    if (mine == m_entries.end() || mine->second.read != read) return value;
    Entry& entry = mine->second;
    // A link's target may change in a folder nobody watches.
    if (link) entry.watch = -1;
    // Unwatched, a file changed less than a time step before it was read could change again
    // unseen: such a version is read again at each call until it has settled.
    const bool keep =
        present ? value != nullptr && (entry.watch >= 0 || Settled(stamp, read_start)) : entry.watch >= 0;
    if (!keep) {
        m_entries.erase(mine);
        return value;
    }
    entry.ready = true;
    entry.present = present;
    entry.stamp = stamp;
    entry.checked = now;
    entry.value = value;
    return value;
}

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
