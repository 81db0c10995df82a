#include "connection.h"

#include "frames.h"

#include <dlog.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
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

bool Connection::Answer(std::string frame, bool subscribe) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_closing) return false;
    if (m_writing || !m_queue.empty()) {
        const bool queued = m_QueueLocked(std::move(frame));
        if (subscribe) m_subscribed = queued;
        return queued;
    }
    // Nothing is ahead of this frame: this thread writes it, and the writer waits until it has.
    m_writing = true;
    if (subscribe) m_subscribed = true;
    lock.unlock();
    const ssize_t sent = m_SendNow(frame);
    lock.lock();
    m_writing = false;
    if (sent < 0) {
        m_closing = true;
        shutdown(m_fd, SHUT_RDWR);
    } else if (static_cast<size_t>(sent) < frame.size()) {
        // The client reads slowly: the writer sends the rest, ahead of anything queued meanwhile.
        frame.erase(0, static_cast<size_t>(sent));
        m_queuedBytes += frame.size();
        m_queue.push_front(std::move(frame));
        m_frontPartial = true;
    }
    if (!m_queue.empty() || m_closing) m_wake.notify_all();
    return sent >= 0;
}

bool Connection::BeginReading() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closing) return false;
    m_reading = true;
    m_lastActive = Clock::now();
    return true;
}

void Connection::EndReading(bool line_open) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_reading = line_open;
    m_lastActive = Clock::now();
}

bool Connection::m_IdleLocked() {
    if (m_closing || m_subscribed || m_reading || m_writing || !m_queue.empty()) return false;
    // Bytes the reader has not yet taken are a request on its way.
    pollfd pfd{m_fd, POLLIN, 0};
    return poll(&pfd, 1, 0) == 0;
}

bool Connection::IdleSince(Clock::time_point& since) {
    std::lock_guard<std::mutex> lock(m_mutex);
    since = m_lastActive;
    return m_IdleLocked();
}

bool Connection::CloseIfIdle() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_IdleLocked()) return false;
    m_aborted = true;
    m_closing = true;
    shutdown(m_fd, SHUT_RDWR);
    m_wake.notify_all();
    return true;
}

bool Connection::m_QueueLocked(std::string frame) {
    if (m_closing) return false;
    const bool full =
        m_queue.size() >= m_limits.maxFrames || m_queuedBytes + frame.size() > m_limits.maxBytes;
    if (!m_queue.empty() && full) {
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, kLogTag,
                     "a client left %zu frames (%zu bytes) unread: closing its connection", m_queue.size(),
                     m_queuedBytes);
        // The rest of a frame partly sent must still go, or the error frame would land inside it.
        const size_t kept = m_frontPartial ? 1 : 0;
        m_queue.erase(m_queue.begin() + static_cast<std::ptrdiff_t>(kept), m_queue.end());
        m_queue.push_back(FrameHandler::Serialize(FrameHandler::ErrorFrame(
            Json::Value(), "the connection is closed: it left " + std::to_string(m_limits.maxFrames) +
                               " frames or " + std::to_string(m_limits.maxBytes) + " bytes unread")));
        m_queuedBytes = 0;
        for (const std::string& queued : m_queue) m_queuedBytes += queued.size();
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
        // A frame the reader is writing goes out whole before anything queued.
        m_wake.wait(lock, [this] { return m_aborted || (!m_writing && (!m_queue.empty() || m_closing)); });
        if (m_aborted || m_queue.empty()) break;
        std::string frame = std::move(m_queue.front());
        m_queue.pop_front();
        m_queuedBytes -= frame.size();
        m_frontPartial = false;
        m_writing = true;
        lock.unlock();
        const bool sent = m_Send(frame);
        lock.lock();
        m_writing = false;
        if (!sent) break;
    }
    m_closing = true;
    m_queue.clear();
    m_queuedBytes = 0;
    lock.unlock();
    // Ends the reader's wait as well; the descriptor is closed with the last owner.
    shutdown(m_fd, SHUT_RDWR);
}

ssize_t Connection::m_SendNow(const std::string& frame) {
    size_t sent = 0;
    while (sent < frame.size()) {
        const ssize_t n = send(m_fd, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        } else {
            return -1;
        }
    }
    return static_cast<ssize_t>(sent);
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
