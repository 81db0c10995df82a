// One client connection: its socket and its bounded queue of outgoing frames. The reader thread
// writes an answer itself when nothing is queued or being written; otherwise frames wait in the
// queue for the connection's writer thread, in the order they were queued, so any thread may
// queue without waiting on the client. m_mutex guards the queue, who writes, the reader's state
// and the closing state.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

#include <sys/types.h>

namespace tarvo {
namespace host {

struct QueueLimits {
    size_t maxFrames = 1024;
    // A single frame larger than this still goes out when the queue is empty.
    size_t maxBytes = 8 * 1024 * 1024;
    // Once closing, a client that takes no byte for this long loses its last frames.
    std::chrono::milliseconds finalFlush{20000};
};

class Connection {
  public:
    using Clock = std::chrono::steady_clock;

    Connection(int fd, QueueLimits limits);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int Fd() const { return m_fd; }
    bool Closing() const { return m_closing; }
    bool Subscribed();

    // Queues one frame; false when it was dropped because the connection is closing. A frame
    // that overflows the queue drops it: the client gets a final error frame and is closed.
    bool Queue(std::string frame);
    // The reader's answer to a line: written at once when nothing is queued or being written,
    // as far as the socket takes it without waiting, the rest left to the writer; queued
    // otherwise. With `subscribe`, the connection subscribes as the answer goes, so every later
    // notification follows it. False when the connection is closing.
    bool Answer(std::string frame, bool subscribe = false);
    // Queues a notification when the connection has subscribed.
    void QueueNotification(const std::string& frame);
    // Queues `final_frame` (when not empty) as the last frame; the writer sends what is
    // queued, then shuts the socket.
    void Close(const std::string& final_frame = "");
    // Sends nothing more and wakes both threads of the connection.
    void Abort();

    // The reader has bytes to read; false when the connection is closing.
    bool BeginReading();
    // The reader has answered what it read; `line_open` when part of a line waits for the rest.
    void EndReading(bool line_open);
    // When the connection is idle (not subscribed, no line begun or being answered, nothing
    // to write and nothing unread), since when.
    bool IdleSince(Clock::time_point& since);
    // Closes the connection when it is still idle; false when it is not.
    bool CloseIfIdle();

    // The writer thread's body: sends queued frames until closed and drained or the peer goes.
    void WriteLoop();

  private:
    bool m_QueueLocked(std::string frame);
    bool m_IdleLocked();
    // Sends what the socket takes without waiting; the bytes sent, or -1 when the peer is gone.
    ssize_t m_SendNow(const std::string& frame);
    bool m_Send(const std::string& frame);

    const int m_fd;
    const QueueLimits m_limits;
    // guards m_queue, m_queuedBytes, m_subscribed, m_writing, m_reading, m_frontPartial,
    // m_lastActive and the writes of m_closing
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::string> m_queue;
    size_t m_queuedBytes = 0;
    bool m_subscribed = false;
    bool m_writing = false;       // a thread is sending on the socket; no other may start
    bool m_reading = false;       // a line is begun or being answered
    bool m_frontPartial = false;  // the queue's first frame is the rest of one partly sent
    Clock::time_point m_lastActive = Clock::now();
    std::atomic<bool> m_closing{false};
    std::atomic<bool> m_aborted{false};
};

}  // namespace host
}  // namespace tarvo
