#include "socket_server.h"

#include <dlog.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <system_error>
#include <utility>
#include <vector>

namespace tarvo {
namespace host {

namespace {

constexpr const char* kLogTag = "TarvoHost";
// A client that stops reading must not stall the notifying thread for ever.
constexpr int kSendTimeoutSeconds = 5;

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

// Creates each missing folder of `dir` with mode 0700.
bool MakePrivateDirs(const std::string& dir, std::string& error) {
    if (dir.empty()) return true;
    struct stat st {};
    if (stat(dir.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) return true;
        error = dir + " is not a folder";
        return false;
    }
    const auto slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !MakePrivateDirs(dir.substr(0, slash), error))
        return false;
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        error = Errno("cannot create " + dir);
        return false;
    }
    chmod(dir.c_str(), 0700);
    return true;
}

bool FillAddress(const std::string& path, sockaddr_un& address, std::string& error) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        error = "socket path \"" + path + "\" is empty or longer than " +
                std::to_string(sizeof(address.sun_path) - 1) + " bytes";
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Removes a socket file that no live host answers on; refuses when one does.
bool ClearStaleSocket(const std::string& path, const sockaddr_un& address, std::string& error) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return true;
    if (!S_ISSOCK(st.st_mode)) {
        error = path + " exists and is not a socket";
        return false;
    }
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        error = Errno("socket");
        return false;
    }
    const bool live = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(probe);
    if (live) {
        error = "a host is already serving on " + path;
        return false;
    }
    if (unlink(path.c_str()) != 0) {
        error = Errno("cannot remove the stale socket " + path);
        return false;
    }
    return true;
}

}  // namespace

struct SocketServer::Connection {
    explicit Connection(int fd_) : fd(fd_) {}
    ~Connection() { close(fd); }

    // Sends one whole frame; false once the peer is gone.
    bool Write(const std::string& text) {
        std::lock_guard<std::mutex> lock(writeMutex);
        return WriteLocked(text);
    }
    bool WriteLocked(const std::string& text) {
        size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                shutdown(fd, SHUT_RDWR);
                return false;
            }
            sent += static_cast<size_t>(n);
        }
        return true;
    }

    const int fd;
    std::mutex writeMutex;  // guards writes to fd, so frames never interleave
    std::atomic<bool> subscribed{false};
};

SocketServer::SocketServer(FrameHandler handler) : m_handler(std::move(handler)) {}

SocketServer::~SocketServer() {
    Stop();
    if (m_acceptThread.joinable()) m_acceptThread.join();
    if (m_listenFd >= 0) close(m_listenFd);
}

bool SocketServer::Open(const std::string& path, std::string& error) {
    sockaddr_un address;
    if (!FillAddress(path, address, error)) return false;
    const auto slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !MakePrivateDirs(path.substr(0, slash), error))
        return false;
    if (!ClearStaleSocket(path, address, error)) return false;

    m_listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listenFd < 0) {
        error = Errno("socket");
        return false;
    }
    if (bind(m_listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        error = Errno("cannot bind " + path);
        return false;
    }
    m_path = path;
    // Nobody can connect before listen, so the mode is right before the first client.
    if (chmod(path.c_str(), 0600) != 0 || listen(m_listenFd, 64) != 0) {
        error = Errno("cannot listen on " + path);
        unlink(path.c_str());
        return false;
    }
    return true;
}

void SocketServer::Serve() {
    m_acceptThread = std::thread([this] { m_AcceptLoop(); });
}

void SocketServer::Stop() {
    if (m_stopping.exchange(true)) return;
    if (m_listenFd >= 0) shutdown(m_listenFd, SHUT_RDWR);
    if (!m_path.empty()) unlink(m_path.c_str());
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& connection : m_connections) shutdown(connection->fd, SHUT_RDWR);
}

void SocketServer::Broadcast(const Sedge::TCMessage& message) {
    std::vector<std::shared_ptr<Connection>> targets;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& connection : m_connections) {
            if (connection->subscribed) targets.push_back(connection);
        }
    }
    if (targets.empty()) return;
    const std::string text = FrameHandler::Serialize(FrameHandler::NotificationFrame(message));
    for (const auto& connection : targets) connection->Write(text);
}

void SocketServer::m_AcceptLoop() {
    while (!m_stopping) {
        const int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (!m_stopping && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
                // Out of descriptors or memory for now: clients that leave free some.
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                continue;
            }
            if (!m_stopping)
                __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "accept failed: %s", std::strerror(errno));
            return;
        }
        timeval timeout{kSendTimeoutSeconds, 0};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
        auto connection = std::make_shared<Connection>(fd);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping) return;
            m_connections.insert(connection);
        }
        try {
            std::thread([this, connection] {
                try {
                    m_ServeConnection(connection);
                } catch (const std::exception& e) {
                    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "connection ended: %s", e.what());
                } catch (...) {
                    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag,
                                 "connection ended by an unknown exception");
                }
                std::lock_guard<std::mutex> lock(m_mutex);
                m_connections.erase(connection);
            }).detach();
        } catch (const std::system_error& e) {
            // Out of threads for now: this client is turned away, the host goes on.
            __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "cannot serve a client: %s", e.what());
            std::lock_guard<std::mutex> lock(m_mutex);
            m_connections.erase(connection);
        }
    }
}

void SocketServer::m_ServeConnection(std::shared_ptr<Connection> connection) {
    std::string pending;
    bool discarding = false;  // inside a line over the limit, until its newline
    std::vector<char> buffer(64 * 1024);
    while (true) {
        const ssize_t n = read(connection->fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        size_t start = 0;
        const size_t end = static_cast<size_t>(n);
        while (start < end) {
            const char* newline =
                static_cast<const char*>(std::memchr(buffer.data() + start, '\n', end - start));
            const size_t stop = newline ? static_cast<size_t>(newline - buffer.data()) : end;
            if (!discarding) pending.append(buffer.data() + start, stop - start);
            if (pending.size() > kMaxLineBytes) {
                pending.clear();
                discarding = true;
            }
            if (newline == nullptr) break;
            if (discarding) {
                connection->Write(FrameHandler::Serialize(
                    FrameHandler::ErrorFrame(Json::Value(), "line longer than 1 MiB, discarded")));
                discarding = false;
            } else {
                m_HandleLine(*connection, pending);
            }
            pending.clear();
            start = stop + 1;
        }
    }
    if (!pending.empty() && !discarding) m_HandleLine(*connection, pending);
}

void SocketServer::m_HandleLine(Connection& connection, const std::string& line) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) return;
    const FrameOutcome outcome = m_handler.Handle(line);
    const std::string text = FrameHandler::Serialize(outcome.answer);
    if (!outcome.subscribe) {
        connection.Write(text);
        return;
    }
    // Subscribed before the answer goes out, so that a client that has read it misses
    // nothing; the write lock keeps any notification behind the answer.
    std::lock_guard<std::mutex> lock(connection.writeMutex);
    connection.subscribed = true;
    if (!connection.WriteLocked(text)) connection.subscribed = false;
}

}  // namespace host
}  // namespace tarvo
