#include "file_snapshot.h"

#include "file_util.h"

#include <pthread.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace tarvo {
namespace platform {
namespace detail {

namespace {

// Longer than the coarsest time step of the file systems a root lives on (one second) and than
// the lag of the kernel's coarse clock behind the real-time clock.
constexpr time_t kSettleSeconds = 1;

// What changes a folder's cached files: writes in place, renames over them, removals, and the
// folder itself going away.
constexpr uint32_t kFolderEvents = IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE |
                                   IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// Counted up in each forked child: a child shares its parent's inotify queue, and reading it would
// take the parent's events, so a child opens a queue of its own.
std::atomic<unsigned> g_forks{0};

unsigned Forks() {
    static const bool registered = [] {
        pthread_atfork(nullptr, nullptr, [] { g_forks.fetch_add(1, std::memory_order_relaxed); });
        return true;
    }();
    (void)registered;
    return g_forks.load(std::memory_order_relaxed);
}

bool Before(const struct timespec& left, const struct timespec& right) {
    return left.tv_sec < right.tv_sec || (left.tv_sec == right.tv_sec && left.tv_nsec < right.tv_nsec);
}

bool SameTime(const struct timespec& left, const struct timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

}  // namespace

FolderWatches::~FolderWatches() { Clear(); }

int FolderWatches::Add(const std::string& folder, const Changed& changed) {
    if (m_fd < 0) {
        m_forks = Forks();
        m_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (m_fd < 0) return -1;
    }
    const std::string named = folder.empty() ? "." : folder;
    const int watch = inotify_add_watch(m_fd, named.c_str(), kFolderEvents);
    if (watch < 0) return -1;
    // Another watch of the same name watches a folder since moved away or replaced.
    for (auto it = m_folders.begin(); it != m_folders.end();) {
        if (it->first == watch || it->second != named) {
            ++it;
            continue;
        }
        inotify_rm_watch(m_fd, it->first);
        changed(it->first, "");
        it = m_folders.erase(it);
    }
    m_folders[watch] = named;
    return watch;
}

void FolderWatches::Drain(const Changed& changed) {
    if (m_fd < 0) return;
    if (m_forks != Forks()) {
        // Only the parent's queue: closing this copy leaves the parent's watches alone.
        close(m_fd);
        m_fd = -1;
        m_folders.clear();
        changed(-1, "");
        return;
    }
    // Asking how much is queued costs less than a read that finds nothing.
    int queued = 0;
    if (ioctl(m_fd, FIONREAD, &queued) == 0 && queued == 0) return;
    alignas(struct inotify_event) char buffer[4096];
    while (true) {
        const ssize_t got = read(m_fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            // Events that cannot be read may have named anything.
            if (got == 0 || errno != EAGAIN) changed(-1, "");
            return;
        }
        for (ssize_t offset = 0; offset < got;) {
            const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
            offset += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                changed(-1, "");
                continue;
            }
            const bool gone = (event->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0;
            changed(event->wd, gone || event->len == 0 ? "" : event->name);
            // A folder moved away is still watched where it went.
            if (gone && m_folders.erase(event->wd) > 0 && (event->mask & IN_IGNORED) == 0) {
                inotify_rm_watch(m_fd, event->wd);
            }
        }
    }
}

void FolderWatches::Clear() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
    m_folders.clear();
}

bool StampOf(const std::string& path, FileStamp& stamp, bool& link) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return false;
    link = S_ISLNK(st.st_mode);
    if ((link && stat(path.c_str(), &st) != 0) || !S_ISREG(st.st_mode)) return false;
    stamp.device = st.st_dev;
    stamp.inode = st.st_ino;
    stamp.size = st.st_size;
    stamp.modified = st.st_mtim;
    stamp.changed = st.st_ctim;
    return true;
}

bool SameStamp(const FileStamp& left, const FileStamp& right) {
    return left.device == right.device && left.inode == right.inode && left.size == right.size &&
           SameTime(left.modified, right.modified) && SameTime(left.changed, right.changed);
}

bool Settled(const FileStamp& stamp, const struct timespec& read_start) {
    struct timespec limit = read_start;
    limit.tv_sec -= kSettleSeconds;
    return Before(stamp.changed, limit) && Before(stamp.modified, limit);
}

struct timespec Now() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

struct timespec CoarseNow() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now;
}

bool CheckDue(const struct timespec& checked, const struct timespec& now) {
    struct timespec due = checked;
    due.tv_sec += 1;
    return !Before(now, due);
}

bool ReadContent(const std::string& path, std::string& content) {
    auto text = ReadWholeFile(path);
    if (!text) return false;
    content = std::move(*text);
    return true;
}

std::string FolderOf(const std::string& path) { return DirName(path); }

std::string NameOf(const std::string& path) { return BaseName(path); }

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
