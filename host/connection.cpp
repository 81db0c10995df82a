#include "connection.h"

#include "frames.h"

#include <dlog.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace tarvo {
namespace host {

namespace {

constexpr const char* kLogTag = "TarvoHost";
// How often a writer waiting on a full socket looks whether it should give up.
constexpr int kWriteSliceMs = 200;

}  // namespace

Connection::Connection(int fd, QueueLimits limits) : m_fd(fd), m_limits(limits) {}

Connection::~Connection() { close(m_fd); }

bool Connection::Queue(std::string frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_QueueLocked(std::move(frame));
}

bool Connection::Subscribed() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_subscribed;
}

void Connection::QueueNotification(const std::string& frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_subscribed) m_QueueLocked(frame);
}

void Connection::Subscribe(std::string answer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_subscribed = m_QueueLocked(std::move(answer));
}

bool Connection::m_QueueLocked(std::string frame) {
    if (m_closing) return false;
    const bool full =
        m_queue.size() >= m_limits.maxFrames || m_queuedBytes + frame.size() > m_limits.maxBytes;
    if (!m_queue.empty() && full) {
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, kLogTag,
                     "a client left %zu frames (%zu bytes) unread: closing its connection", m_queue.size(),
                     m_queuedBytes);
        m_queue.clear();
        m_queue.push_back(FrameHandler::Serialize(FrameHandler::ErrorFrame(
            Json::Value(), "the connection is closed: it left " + std::to_string(m_limits.maxFrames) +
                               " frames or " + std::to_string(m_limits.maxBytes) + " bytes unread")));
        m_queuedBytes = m_queue.back().size();
        m_closing = true;
        // Nothing it sends from now on is read; its reader thread sees the end at once.
        shutdown(m_fd, SHUT_RD);
        m_wake.notify_all();
        return false;
    }
    m_queuedBytes += frame.size();
    m_queue.push_back(std::move(frame));
    m_wake.notify_all();
    return true;
}

void Connection::Close(const std::string& final_frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closing) return;
    if (!final_frame.empty()) {
        m_queuedBytes += final_frame.size();
        m_queue.push_back(final_frame);
    }
    m_closing = true;
    m_wake.notify_all();
}

void Connection::Abort() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_aborted = true;
    m_closing = true;
    shutdown(m_fd, SHUT_RDWR);
    m_wake.notify_all();
}

void Connection::WriteLoop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (true) {
        m_wake.wait(lock, [this] { return !m_queue.empty() || m_closing; });
        if (m_aborted || m_queue.empty()) break;
        std::string frame = std::move(m_queue.front());
        m_queue.pop_front();
        m_queuedBytes -= frame.size();
        lock.unlock();
        const bool sent = m_Send(frame);
        lock.lock();
        if (!sent) break;
    }
    m_closing = true;
    m_queue.clear();
    m_queuedBytes = 0;
    lock.unlock();
    // Ends the reader's wait as well; the descriptor is closed with the last owner.
    shutdown(m_fd, SHUT_RDWR);
}

bool Connection::m_Send(const std::string& frame) {
    using Clock = std::chrono::steady_clock;
    auto progress = Clock::now();
    bool saw_closing = m_closing;
    size_t sent = 0;
    while (sent < frame.size()) {
        if (m_aborted) return false;
        if (!saw_closing && m_closing) {
            // The client's time to take its last frames starts now.
            saw_closing = true;
            progress = Clock::now();
        }
        if (saw_closing && Clock::now() - progress > m_limits.finalFlush) return false;
        const ssize_t n = send(m_fd, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            progress = Clock::now();
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd pfd{m_fd, POLLOUT, 0};
            poll(&pfd, 1, kWriteSliceMs);
            continue;
        }
        return false;
    }
    return true;
}

}  // namespace host
}  // namespace tarvo
