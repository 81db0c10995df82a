#include "file_snapshot.h"

#include "file_util.h"

#include <time.h>

namespace tarvo {
namespace platform {
namespace detail {

namespace {

// Longer than the coarsest time step of the file systems a root lives on (one second) and than
// the lag of the kernel's coarse clock behind the real-time clock.
constexpr time_t kSettleSeconds = 1;

bool Before(const struct timespec& left, const struct timespec& right) {
    return left.tv_sec < right.tv_sec || (left.tv_sec == right.tv_sec && left.tv_nsec < right.tv_nsec);
}

bool SameTime(const struct timespec& left, const struct timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

}  // namespace

bool StampOf(const std::string& path, FileStamp& stamp) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
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

bool ReadContent(const std::string& path, std::string& content) {
    auto text = ReadWholeFile(path);
    if (!text) return false;
    content = std::move(*text);
    return true;
}

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
