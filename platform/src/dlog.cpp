// The platform log and its in-memory capture for tests.
#include <dlog.h>
#include <tarvo/log_capture.h>
#include <tarvo/platform.h>

#include "file_util.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
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

void Deliver(const std::string& message) {
    CaptureRegistry& registry = Captures();
    if (registry.live.load(std::memory_order_acquire) == 0) return;
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

std::string TimeStamp() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char text[40];
    size_t n = strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    snprintf(text + n, sizeof(text) - n, ".%03ld", now.tv_nsec / 1000000L);
    return text;
}

// One write per line, so that lines of several threads or processes never mix.
void AppendLine(const std::string& path, const std::string& line) {
    // Readable by everyone, also from a process whose umask keeps its own files private.
    int fd = detail::OpenForAppend(path, 0644, 0755);
    if (fd < 0) return;
    ssize_t ignored = write(fd, line.data(), line.size());
    (void)ignored;
    close(fd);
}

// The lowest priority mirrored to stderr: TARVO_LOG_LEVEL debug, info, warn or error. Unset, the
// mirror shows warnings and errors, so that a terminal is not flooded; the file gets every line.
int MirrorLevel() {
    const char* level = getenv("TARVO_LOG_LEVEL");
    if (level == nullptr || *level == '\0') return DLOG_WARN;
    if (strcmp(level, "debug") == 0) return DLOG_VERBOSE;
    if (strcmp(level, "info") == 0) return DLOG_INFO;
    if (strcmp(level, "error") == 0) return DLOG_ERROR;
    return DLOG_WARN;
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

}  // namespace platform
}  // namespace tarvo

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
    (void)log_id;
    if (fmt == nullptr) return -1;
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    int needed = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string message;
    if (needed > 0) {
        message.resize(static_cast<size_t>(needed) + 1);
        vsnprintf(message.data(), message.size(), fmt, args);
        message.resize(static_cast<size_t>(needed));
    }
    va_end(args);
    while (!message.empty() && message.back() == '\n') message.pop_back();

    char prefix[64];
    snprintf(prefix, sizeof(prefix), " %c/", tarvo::platform::PriorityLetter(prio));
    std::string line = tarvo::platform::TimeStamp() + prefix + (tag != nullptr ? tag : "") + "(" +
                       std::to_string(getpid()) + "): " + message + "\n";

    tarvo::platform::AppendLine(platform_path("/var/log/tarvo.log"), line);
    const char* mirror = getenv("TARVO_LOG_STDERR");
    if (mirror != nullptr && strcmp(mirror, "1") == 0 && prio >= tarvo::platform::MirrorLevel()) {
        ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
        (void)ignored;
    }
    tarvo::platform::Deliver(message);
    return static_cast<int>(message.size());
}
