// The platform log and its in-memory capture for tests.
#include <dlog.h>
#include <tarvo/log_batch.h>
#include <tarvo/log_capture.h>
#include <tarvo/platform.h>

#include "file_util.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <signal.h>
#include <string_view>
#include <vector>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace tarvo {
namespace platform {

namespace {

struct CaptureState {
    mutable std::mutex mutex;  // guards lines
    mutable std::condition_variable changed;
    std::vector<std::string> lines;
};

}  // namespace

struct LogCapture::State : CaptureState {};

namespace {

// The live captures. Leaked on purpose: a log line may be written while the process exits.
struct CaptureRegistry {
    std::mutex mutex;  // guards captures
    std::vector<std::shared_ptr<CaptureState>> captures;
    std::atomic<int> live{0};
};

CaptureRegistry& Captures() {
    static CaptureRegistry* registry = new CaptureRegistry();
    return *registry;
}

bool CapturesLive() { return Captures().live.load(std::memory_order_acquire) != 0; }

void Deliver(const std::string& message) {
    CaptureRegistry& registry = Captures();
    std::vector<std::shared_ptr<CaptureState>> targets;
    {
        std::lock_guard<std::mutex> lock(registry.mutex);
        targets = registry.captures;
    }
    for (const auto& state : targets) {
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->lines.push_back(message);
        }
        state->changed.notify_all();
    }
}

char PriorityLetter(int prio) {
    static const char kLetters[] = {'V', 'D', 'I', 'W', 'E', 'F'};
    int index = std::clamp(prio - DLOG_VERBOSE, 0, 5);
    return kLetters[index];
}

// "YYYY-MM-DD HH:MM:SS.mmm" into `out` (at least 24 bytes); its length. The calendar part is
// worked out once a second per thread.
size_t TimeStamp(char* out) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    thread_local time_t cached_second = -1;
    thread_local char cached_text[24];
    thread_local size_t cached_length = 0;
    if (now.tv_sec != cached_second) {
        struct tm local;
        localtime_r(&now.tv_sec, &local);
        cached_length = strftime(cached_text, sizeof(cached_text), "%Y-%m-%d %H:%M:%S", &local);
        cached_second = now.tv_sec;
    }
    memcpy(out, cached_text, cached_length);
    const long ms = now.tv_nsec / 1000000L;
    out[cached_length] = '.';
    out[cached_length + 1] = static_cast<char>('0' + ms / 100);
    out[cached_length + 2] = static_cast<char>('0' + ms / 10 % 10);
    out[cached_length + 3] = static_cast<char>('0' + ms % 10);
    return cached_length + 4;
}

// How large the log grows: each file up to TARVO_LOG_MAX_BYTES (default 1 MiB), and
// TARVO_LOG_FILES files in all (default 4: tarvo.log and tarvo.log.1 to .3, the oldest last),
// as the television's log ring keeps it. Read when the file is opened.
struct LogLimits {
    off_t maxBytes = 1024 * 1024;
    int files = 4;
};

// long long: the byte bound passes 2 GiB, beyond a 32-bit long.
long long PositiveFromEnv(const char* name, long long fallback, long long most) {
    const char* text = getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value <= 0) return fallback;
    return std::min(value, most);
}

LogLimits LimitsFromEnv() {
    LogLimits limits;
    limits.maxBytes = static_cast<off_t>(PositiveFromEnv("TARVO_LOG_MAX_BYTES", limits.maxBytes, 1LL << 40));
    limits.files = static_cast<int>(PositiveFromEnv("TARVO_LOG_FILES", limits.files, 100));
    return limits;
}

// The type, size, link count and identity of the open file `fd` into `st`. Not fstat: a look at a
// file's times makes the kernel give the next write a fine-grained time stamp of its own, and so
// every write of the log its own inode update in the journal.
bool StatusOf(int fd, struct stat& st) {
    struct statx status {};
    if (statx(fd, "", AT_EMPTY_PATH, STATX_TYPE | STATX_MODE | STATX_NLINK | STATX_INO | STATX_SIZE,
              &status) != 0) {
        return errno == ENOSYS && fstat(fd, &st) == 0;
    }
    st.st_mode = status.stx_mode;
    st.st_nlink = status.stx_nlink;
    st.st_ino = status.stx_ino;
    st.st_dev = makedev(status.stx_dev_major, status.stx_dev_minor);
    st.st_size = static_cast<off_t>(status.stx_size);
    return true;
}

// The log file, kept open between lines: each line (or batch of lines) is one write(2) to it, so
// that lines of several threads or processes never mix and a line is in the kernel's hands, safe
// from a crash of the process, as soon as it is written. Before a write that would take the file
// past its size, the files move one place down the ring and a new file begins.
class LogFile {
  public:
    void Append(std::string_view text) {
        const char* root = getenv("TARVO_ROOT");
        std::lock_guard<std::mutex> lock(m_mutex);
        // Another root, or the file was removed: the next line goes to a file at the path again.
        struct stat st {};
        if (m_fd >= 0 &&
            (m_root != (root != nullptr ? root : "") || !StatusOf(m_fd, st) || st.st_nlink == 0)) {
            Close();
        }
        if (m_fd < 0) {
            m_root = root != nullptr ? root : "";
            m_path = platform_path("/var/log/tarvo.log");
            if (!Open() || !StatusOf(m_fd, st)) return;
        }
        if (S_ISREG(st.st_mode) && st.st_size > 0 &&
            st.st_size + static_cast<off_t>(text.size()) > m_limits.maxBytes) {
            Rotate(st);
            if (m_fd < 0) return;
        }
        ssize_t ignored = write(m_fd, text.data(), text.size());
        (void)ignored;
    }

    // The descriptor a crash handler writes held lines to: no lock, no allocation. A descriptor
    // closed by a root change meanwhile only makes that write fail.
    int CrashFd() const { return m_crashFd.load(std::memory_order_acquire); }

  private:
    bool Open() {
        m_limits = LimitsFromEnv();
        // It holds the device id, signing input and server answers: the owner's only, whatever
        // the umask and whatever mode an older file had.
        m_fd = detail::OpenForAppend(m_path, 0600, 0755);
        if (m_fd < 0) return false;
        // Only a file of our own: the path may lead to a device (a link to /dev/null, say).
        struct stat st {};
        if (fstat(m_fd, &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 07777) != 0600) fchmod(m_fd, 0600);
        m_crashFd.store(m_fd, std::memory_order_release);
        return true;
    }

    void Close() {
        m_crashFd.store(-1, std::memory_order_release);
        close(m_fd);
        m_fd = -1;
    }

    std::string RingName(int index) const { return m_path + "." + std::to_string(index); }

    // True when the path names the file `mine` is.
    bool PathIs(const struct stat& mine) const {
        struct stat live {};
        return stat(m_path.c_str(), &live) == 0 && live.st_ino == mine.st_ino && live.st_dev == mine.st_dev;
    }

    // Called with the full file's status. Another process may have turned the ring already, and
    // this descriptor then names a file further down it: the line goes to the new file instead.
    // The lock on the file makes two processes that fill it at once turn the ring only once.
    void Rotate(const struct stat& full) {
        if (PathIs(full)) {
            flock(m_fd, LOCK_EX);
            if (PathIs(full)) {
                for (int index = m_limits.files - 2; index >= 1; --index) {
                    rename(RingName(index).c_str(), RingName(index + 1).c_str());
                }
                if (m_limits.files > 1) {
                    rename(m_path.c_str(), RingName(1).c_str());
                } else {
                    unlink(m_path.c_str());
                }
            }
            flock(m_fd, LOCK_UN);
        }
        Close();
        Open();
    }

    std::mutex m_mutex;  // guards m_fd, m_root, m_path and m_limits
    int m_fd = -1;
    std::atomic<int> m_crashFd{-1};
    std::string m_root;  // the TARVO_ROOT m_fd was opened under
    std::string m_path;
    LogLimits m_limits;
};

// Made on first use and never destroyed: a line may be logged while the process exits.
LogFile& TheLogFile() {
    static LogFile* file = new LogFile();
    return *file;
}

// The held lines of one live LogBatch. Slots are static so that a crash handler can read any of
// them safely: a slot never moves or goes away, and `committed` only covers whole lines.
struct BatchSlot {
    std::atomic<bool> used{false};
    std::atomic<size_t> committed{0};
    char data[16384];
};
constexpr size_t kBatchSlots = 32;
BatchSlot g_batchSlots[kBatchSlots];

// Initial-exec: read by a signal handler, which must not make the loader allocate the thread's
// storage.
thread_local BatchSlot* t_batch __attribute__((tls_model("initial-exec"))) = nullptr;
thread_local int t_batchDepth __attribute__((tls_model("initial-exec"))) = 0;

// SIGTRAP: a trap instruction (__builtin_trap) raises it on arm64, where x86-64 raises SIGILL.
const int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP};
struct sigaction g_previous[sizeof(kCrashSignals) / sizeof(kCrashSignals[0])];

// Writes every slot's held lines; async-signal-safe. A batch ending at the same moment may have
// its lines written twice, never lost.
void WriteHeldLines() {
    const int fd = TheLogFile().CrashFd();
    if (fd < 0) return;
    for (BatchSlot& slot : g_batchSlots) {
        if (!slot.used.load(std::memory_order_acquire)) continue;
        const size_t held = slot.committed.load(std::memory_order_acquire);
        if (held == 0) continue;
        ssize_t ignored = write(fd, slot.data, held);
        (void)ignored;
    }
}

void OnCrashSignal(int signal, siginfo_t* info, void* context) {
    WriteHeldLines();
    // Hand the signal to whoever had it before. A fault the kernel raised comes back when the
    // faulting instruction runs again; one sent by kill() or raise() is sent again.
    for (size_t i = 0; i < sizeof(kCrashSignals) / sizeof(kCrashSignals[0]); ++i) {
        if (kCrashSignals[i] != signal) continue;
        const struct sigaction& previous = g_previous[i];
        if ((previous.sa_flags & SA_SIGINFO) != 0 && previous.sa_sigaction != nullptr) {
            previous.sa_sigaction(signal, info, context);
            return;
        }
        if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN &&
            previous.sa_handler != nullptr) {
            previous.sa_handler(signal);
            return;
        }
        sigaction(signal, &previous, nullptr);
        if (info == nullptr || info->si_code <= 0) raise(signal);
        return;
    }
}

void InstallCrashWriter() {
    static std::once_flag once;
    std::call_once(once, [] {
        for (size_t i = 0; i < sizeof(kCrashSignals) / sizeof(kCrashSignals[0]); ++i) {
            struct sigaction action {};
            action.sa_sigaction = OnCrashSignal;
            action.sa_flags = SA_SIGINFO | SA_ONSTACK;
            sigemptyset(&action.sa_mask);
            sigaction(kCrashSignals[i], &action, &g_previous[i]);
        }
        std::atexit(WriteHeldLines);
    });
}

void FlushBatch(BatchSlot& slot) {
    const size_t held = slot.committed.load(std::memory_order_relaxed);
    if (held == 0) return;
    TheLogFile().Append(std::string_view(slot.data, held));
    slot.committed.store(0, std::memory_order_release);
}

void AppendLine(std::string_view line) {
    BatchSlot* slot = t_batch;
    if (slot == nullptr) {
        TheLogFile().Append(line);
        return;
    }
    size_t held = slot->committed.load(std::memory_order_relaxed);
    if (line.size() > sizeof(slot->data) - held) {
        FlushBatch(*slot);
        held = 0;
    }
    // A line longer than the whole slot goes out on its own, after what was held before it.
    if (line.size() > sizeof(slot->data)) {
        TheLogFile().Append(line);
        return;
    }
    memcpy(slot->data + held, line.data(), line.size());
    slot->committed.store(held + line.size(), std::memory_order_release);
}

// `value` in decimal into `out` (at least 21 bytes, no terminator); its length.
size_t Decimal(long value, char* out) {
    char digits[24];
    size_t count = 0;
    unsigned long rest =
        value < 0 ? 0UL - static_cast<unsigned long>(value) : static_cast<unsigned long>(value);
    do {
        digits[count++] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    size_t length = 0;
    if (value < 0) out[length++] = '-';
    while (count > 0) out[length++] = digits[--count];
    return length;
}

// The process id of the lines: asked once, and again in a forked child.
pid_t LinePid() {
    static std::atomic<pid_t> pid{0};
    static const bool registered = [] {
        pthread_atfork(nullptr, nullptr, [] { pid.store(0, std::memory_order_relaxed); });
        return true;
    }();
    (void)registered;
    pid_t known = pid.load(std::memory_order_relaxed);
    if (known == 0) {
        known = getpid();
        pid.store(known, std::memory_order_relaxed);
    }
    return known;
}

// Info lines under these tags tell the outcome of one piece of work (a transfer, a client call):
// few enough to show on a terminal beside the warnings.
bool IsOutcomeTag(const char* tag) {
    return tag != nullptr && (strcmp(tag, "TarvoHttp") == 0 || strcmp(tag, "TarvoCall") == 0);
}

// What the stderr mirror shows, from TARVO_LOG_LEVEL: debug, info, warn or error, each with every
// level above it. Unset (or warn), warnings and errors and the outcome lines, so that a terminal
// is not flooded; the file gets every line.
struct MirrorFilter {
    int lowest = DLOG_WARN;
    bool outcomes = true;

    static MirrorFilter FromEnv() {
        MirrorFilter filter;
        const char* level = getenv("TARVO_LOG_LEVEL");
        if (level == nullptr) return filter;
        if (strcmp(level, "debug") == 0) filter.lowest = DLOG_VERBOSE;
        if (strcmp(level, "info") == 0) filter.lowest = DLOG_INFO;
        if (strcmp(level, "error") == 0) {
            filter.lowest = DLOG_ERROR;
            filter.outcomes = false;
        }
        return filter;
    }

    bool Shows(int prio, const char* tag) const {
        return prio >= lowest || (outcomes && prio == DLOG_INFO && IsOutcomeTag(tag));
    }
};

// Drops the colour sequences (ESC '[' digits and ';' 'm') the service's lines carry from
// text[0, length), in place: they belong on a terminal only. Any other escape stays as written.
// The new length.
size_t StripColours(char* text, size_t length) {
    const void* first = memchr(text, '\033', length);
    if (first == nullptr) return length;
    size_t read = static_cast<size_t>(static_cast<const char*>(first) - text);
    size_t kept = read;
    while (read < length) {
        if (text[read] == '\033' && read + 1 < length && text[read + 1] == '[') {
            size_t end = read + 2;
            while (end < length && (isdigit(static_cast<unsigned char>(text[end])) != 0 || text[end] == ';'))
                ++end;
            if (end < length && text[end] == 'm') {
                read = end + 1;
                continue;
            }
        }
        const void* next = memchr(text + read + 1, '\033', length - read - 1);
        const size_t stop =
            next != nullptr ? static_cast<size_t>(static_cast<const char*>(next) - text) : length;
        memmove(text + kept, text + read, stop - read);
        kept += stop - read;
        read = stop;
    }
    return kept;
}

// "TIME P/TAG(PID): " into `out`, which has room for HeadRoom(tag_length); its length. Put
// together by hand: snprintf costs more than the rest of the line.
constexpr size_t HeadRoom(size_t tag_length) { return 24 + 3 + tag_length + 1 + 21 + 3; }

size_t PutHead(char* out, int prio, const char* tag, size_t tag_length) {
    size_t head = TimeStamp(out);
    out[head++] = ' ';
    out[head++] = PriorityLetter(prio);
    out[head++] = '/';
    memcpy(out + head, tag, tag_length);
    head += tag_length;
    out[head++] = '(';
    head += Decimal(static_cast<long>(LinePid()), out + head);
    memcpy(out + head, "): ", 3);
    return head + 3;
}

// Where a line is put together: straight in the free part of the thread's batch when there is
// one with room, so that a held line is never copied; else in a buffer of the thread's own.
struct LineSpace {
    char* data;
    size_t size;
    BatchSlot* slot;  // the batch `data` lies in, or null
};

LineSpace SpaceInBatch(size_t head_room) {
    BatchSlot* slot = t_batch;
    if (slot == nullptr) return LineSpace{nullptr, 0, nullptr};
    const size_t held = slot->committed.load(std::memory_order_relaxed);
    // Too little room left for a line of the usual length: the buffer takes it and AppendLine
    // writes the batch out first.
    if (sizeof(slot->data) - held < head_room + 512) return LineSpace{nullptr, 0, nullptr};
    return LineSpace{slot->data + held, sizeof(slot->data) - held, slot};
}

int PrintLine(int prio, const char* tag, const char* fmt, va_list args) {
    // The buffer grows to the longest line the thread wrote (a server's whole answer may be one),
    // so that a long line is formatted once, not measured first; past 64 KiB it is given back
    // after the line.
    thread_local std::vector<char> buffer(4096);
    constexpr size_t kKeptBytes = 64 * 1024;
    const char* tag_text = tag != nullptr ? tag : "";
    const size_t tag_length = strlen(tag_text);
    const size_t head_room = HeadRoom(tag_length);
    LineSpace space = SpaceInBatch(head_room);
    if (space.slot == nullptr) {
        if (buffer.size() < head_room + 4096) buffer.resize(head_room + 4096);
        space = LineSpace{buffer.data(), buffer.size(), nullptr};
    }
    const size_t head = PutHead(space.data, prio, tag_text, tag_length);
    va_list copy;
    va_copy(copy, args);
    // Room for the newline stays after the message.
    int needed = vsnprintf(space.data + head, space.size - head - 1, fmt, copy);
    va_end(copy);
    if (needed < 0) needed = 0;
    if (head + static_cast<size_t>(needed) + 1 >= space.size) {
        // Growing the buffer keeps a head already in it; one made in the batch is copied over.
        if (buffer.size() < head + static_cast<size_t>(needed) + 2)
            buffer.resize(head + static_cast<size_t>(needed) + 2);
        if (space.slot != nullptr) memcpy(buffer.data(), space.data, head);
        space = LineSpace{buffer.data(), buffer.size(), nullptr};
        vsnprintf(space.data + head, static_cast<size_t>(needed) + 1, fmt, args);
    }
    char* text = space.data;
    size_t length = head + static_cast<size_t>(needed);
    while (length > head && text[length - 1] == '\n') --length;
    const int written = static_cast<int>(length - head);
    // Taken before the colours go: a capture keeps the message as the caller wrote it.
    std::string captured;
    const bool capture = CapturesLive();
    if (capture) captured.assign(text + head, length - head);
    text[length++] = '\n';

    // Read once: the environment a process starts with says whether its lines go to a terminal.
    static const bool mirror = [] {
        const char* value = getenv("TARVO_LOG_STDERR");
        return value != nullptr && strcmp(value, "1") == 0;
    }();
    static const bool mirror_colours = isatty(STDERR_FILENO) == 1;
    static const MirrorFilter mirror_filter = MirrorFilter::FromEnv();
    const bool mirrored = mirror && mirror_filter.Shows(prio, tag);
    if (mirrored && mirror_colours) {
        ssize_t ignored = write(STDERR_FILENO, text, length);
        (void)ignored;
    }
    length = StripColours(text, length);
    if (space.slot != nullptr) {
        space.slot->committed.store(static_cast<size_t>(text + length - space.slot->data),
                                    std::memory_order_release);
    } else {
        AppendLine(std::string_view(text, length));
    }
    if (mirrored && !mirror_colours) {
        ssize_t ignored = write(STDERR_FILENO, text, length);
        (void)ignored;
    }
    if (capture) Deliver(captured);
    if (buffer.size() > kKeptBytes) {
        buffer.resize(4096);
        buffer.shrink_to_fit();
    }
    return written;
}

}  // namespace

LogCapture::LogCapture() : m_state(std::make_shared<State>()) {
    CaptureRegistry& registry = Captures();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.captures.push_back(m_state);
    registry.live.fetch_add(1, std::memory_order_release);
}

LogCapture::~LogCapture() {
    CaptureRegistry& registry = Captures();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto& list = registry.captures;
    const CaptureState* mine = m_state.get();
    list.erase(
        std::remove_if(list.begin(), list.end(), [&](const auto& state) { return state.get() == mine; }),
        list.end());
    registry.live.fetch_sub(1, std::memory_order_release);
}

std::vector<std::string> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->lines;
}

bool LogCapture::Contains(const std::string& text) const { return Count(text) > 0; }

size_t LogCapture::Count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return static_cast<size_t>(
        std::count_if(m_state->lines.begin(), m_state->lines.end(),
                      [&](const std::string& line) { return line.find(text) != std::string::npos; }));
}

bool LogCapture::WaitFor(const std::string& text, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->changed.wait_for(lock, timeout, [&] {
        return std::any_of(m_state->lines.begin(), m_state->lines.end(),
                           [&](const std::string& line) { return line.find(text) != std::string::npos; });
    });
}

LogBatch::LogBatch() {
    if (t_batchDepth++ > 0) return;
    InstallCrashWriter();
    for (BatchSlot& slot : g_batchSlots) {
        bool expected = false;
        if (slot.used.compare_exchange_strong(expected, true, std::memory_order_acq_rel)) {
            slot.committed.store(0, std::memory_order_release);
            t_batch = &slot;
            return;
        }
    }
    // Every slot is taken: this thread's lines are written one by one, as without a batch.
}

LogBatch::~LogBatch() {
    if (--t_batchDepth > 0) return;
    BatchSlot* slot = t_batch;
    if (slot == nullptr) return;
    t_batch = nullptr;
    FlushBatch(*slot);
    slot->used.store(false, std::memory_order_release);
}

}  // namespace platform
}  // namespace tarvo

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
    (void)log_id;
    if (fmt == nullptr) return -1;
    va_list args;
    va_start(args, fmt);
    const int written = tarvo::platform::PrintLine(prio, tag, fmt, args);
    va_end(args);
    return written;
}
