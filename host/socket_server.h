// Serves clients on a Unix socket: one accept thread, and per connection a reader thread
// that answers its lines and a writer thread that drains its queue, both detached and the
// connection tracked in m_connections so that Stop can shut every one down. A reader writes
// its answer itself only while the socket takes it at once; the rest, and notifications (from
// any thread), enter queues: no caller ever waits on a client. When every connection is taken,
// the longest idle one (not subscribed, no line begun) makes room for the newcomer.
#pragma once

#include "connection.h"
#include "frames.h"

#include <Sedge/Sedge.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace tarvo {
namespace host {

struct ServerLimits {
    size_t maxConnections = 64;
    // Subscribers may take no more, so that a crowd of them cannot leave callers no room.
    size_t maxSubscribers = 56;
    // A line that stays unfinished this long closes its connection.
    std::chrono::milliseconds lineTimeout{10000};
    QueueLimits queue;
};

class SocketServer {
  public:
    SocketServer(FrameHandler handler, ServerLimits limits);
    ~SocketServer();
    SocketServer(const SocketServer&) = delete;
    SocketServer& operator=(const SocketServer&) = delete;

    // Binds and listens at `path` (its folder made 0700 when missing, the socket 0600,
    // a stale socket file replaced). False with `error` set on failure.
    bool Open(const std::string& path, std::string& error);
    // Starts the accept thread.
    void Serve();
    // Stops accepting, removes the socket file and shuts every connection down.
    void Stop();
    // Queues a notification frame for every subscribed connection.
    void Broadcast(const Sedge::TCMessage& message);

  private:
    struct Tracked;

    void m_AcceptLoop();
    // Starts the connection's writer and reader threads; false when it cannot.
    bool m_StartThreads(const std::shared_ptr<Tracked>& tracked);
    // Reads and answers lines until the peer goes, the connection closes or a line stays
    // unfinished too long.
    void m_ReadLoop(Connection& connection);
    void m_HandleLine(Connection& connection, LineParser& parser, const std::string& line);
    // Closes the longest idle connection to make room for a new one; false when none is idle.
    // Called with m_mutex held.
    bool m_CloseLongestIdleLocked();
    // Each of a connection's two threads calls this at its end; the last forgets it.
    void m_ThreadEnded(const std::shared_ptr<Tracked>& tracked);

    FrameHandler m_handler;
    const ServerLimits m_limits;
    std::string m_path;
    int m_listenFd = -1;
    std::atomic<bool> m_stopping{false};
    std::thread m_acceptThread;
    std::mutex m_mutex;  // guards m_connections and m_subscribers
    std::set<std::shared_ptr<Tracked>> m_connections;
    size_t m_subscribers = 0;
};

}  // namespace host
}  // namespace tarvo
