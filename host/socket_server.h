// Serves clients on a Unix socket: one accept thread, one detached thread per
// connection, each tracked in m_connections so that Stop can shut every one down.
// Notifications arrive from any thread and go to subscribed connections only.
#pragma once

#include "frames.h"

#include <Sedge/Sedge.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace tarvo {
namespace host {

class SocketServer {
  public:
    explicit SocketServer(FrameHandler handler);
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
    // Writes a notification frame to every subscribed connection.
    void Broadcast(const Sedge::TCMessage& message);

  private:
    struct Connection;

    void m_AcceptLoop();
    // Reads and answers lines until the peer goes; its thread then forgets the connection.
    void m_ServeConnection(std::shared_ptr<Connection> connection);
    void m_HandleLine(Connection& connection, const std::string& line);

    FrameHandler m_handler;
    std::string m_path;
    int m_listenFd = -1;
    std::atomic<bool> m_stopping{false};
    std::thread m_acceptThread;
    std::mutex m_mutex;  // guards m_connections
    std::set<std::shared_ptr<Connection>> m_connections;
};

}  // namespace host
}  // namespace tarvo
