// One client connection: its socket and its bounded queue of outgoing frames, which the
// connection's writer thread sends in the order they were queued. Any thread may queue
// without waiting on the client; m_mutex guards the queue and the closing state.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

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
    // Queues a notification when the connection has subscribed.
    void QueueNotification(const std::string& frame);
    // Subscribes and queues the answer in one step, so every later notification follows it.
    void Subscribe(std::string answer);
    // Queues `final_frame` (when not empty) as the last frame; the writer sends what is
    // queued, then shuts the socket.
    void Close(const std::string& final_frame = "");
    // Sends nothing more and wakes both threads of the connection.
    void Abort();

    // The writer thread's body: sends queued frames until closed and drained or the peer goes.
    void WriteLoop();

  private:
    bool m_QueueLocked(std::string frame);
    bool m_Send(const std::string& frame);

    const int m_fd;
    const QueueLimits m_limits;
    std::mutex m_mutex;  // guards m_queue, m_queuedBytes, m_subscribed and the writes of m_closing
    std::condition_variable m_wake;
    std::deque<std::string> m_queue;
    size_t m_queuedBytes = 0;
    bool m_subscribed = false;
    std::atomic<bool> m_closing{false};
    std::atomic<bool> m_aborted{false};
};

}  // namespace host
}  // namespace tarvo
