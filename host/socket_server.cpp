#include "socket_server.h"

#include <dlog.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
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
// Room for a burst of clients that connect before the accept thread comes round.
constexpr int kListenBacklog = SOMAXCONN > 1024 ? SOMAXCONN : 1024;

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

// Tells a client that it cannot be served, without waiting on it, and closes its socket.
void Refuse(int fd, const std::string& reason) {
    const std::string text = FrameHandler::Serialize(FrameHandler::ErrorFrame(Json::Value(), reason));
    const ssize_t ignored = send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)ignored;
    close(fd);
}

}  // namespace

struct SocketServer::Tracked {
    Tracked(int fd, const QueueLimits& limits) : connection(fd, limits) {}

    Connection connection;
    std::atomic<int> threadsRunning{2};
    bool counted = false;  // counted among the subscribers; guarded by the server's m_mutex
};

SocketServer::SocketServer(FrameHandler handler, ServerLimits limits)
    : m_handler(std::move(handler)), m_limits(limits) {}

SocketServer::~SocketServer() {
    Stop();
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
    if (chmod(path.c_str(), 0600) != 0 || listen(m_listenFd, kListenBacklog) != 0) {
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
    // The shut listening socket ends its accept at once.
    if (m_acceptThread.joinable()) m_acceptThread.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& tracked : m_connections) tracked->connection.Abort();
}

void SocketServer::Broadcast(const Sedge::TCMessage& message) {
    std::lock_guard<std::mutex> lock(m_mutex);
    bool any = false;
    for (const auto& tracked : m_connections) any = any || tracked->connection.Subscribed();
    if (!any) return;
    const std::string text = FrameHandler::Serialize(FrameHandler::NotificationFrame(message));
    for (const auto& tracked : m_connections) tracked->connection.QueueNotification(text);
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
        std::shared_ptr<Tracked> tracked;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping) {
                close(fd);
                return;
            }
            if (m_connections.size() < m_limits.maxConnections || m_CloseLongestIdleLocked()) {
                tracked = std::make_shared<Tracked>(fd, m_limits.queue);
                m_connections.insert(tracked);
            }
        }
        if (tracked == nullptr) {
            Refuse(fd, "the host serves at most " + std::to_string(m_limits.maxConnections) +
                           " connections at once; try again later");
            continue;
        }
        if (!m_StartThreads(tracked)) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_connections.erase(tracked);
        }
    }
}

bool SocketServer::m_StartThreads(const std::shared_ptr<Tracked>& tracked) {
    // A thread that throws would end the process: each body logs and returns instead.
    auto guarded = [this, tracked](const char* role, auto body) {
        return [this, tracked, role, body] {
            try {
                body(tracked->connection);
            } catch (const std::exception& e) {
                __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "connection %s ended: %s", role, e.what());
                tracked->connection.Abort();
            } catch (...) {
                __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "connection %s ended by an unknown exception",
                             role);
                tracked->connection.Abort();
            }
            m_ThreadEnded(tracked);
        };
    };
    try {
        std::thread(guarded("writer", [](Connection& connection) { connection.WriteLoop(); })).detach();
    } catch (const std::system_error& e) {
        // Out of threads for now: this client is turned away, the host goes on.
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "cannot serve a client: %s", e.what());
        return false;
    }
    try {
        std::thread(guarded("reader", [this](Connection& connection) { m_ReadLoop(connection); })).detach();
    } catch (const std::system_error& e) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "cannot serve a client: %s", e.what());
        tracked->connection.Abort();
        m_ThreadEnded(tracked);
    }
    return true;
}

void SocketServer::m_ThreadEnded(const std::shared_ptr<Tracked>& tracked) {
    if (tracked->threadsRunning.fetch_sub(1) != 1) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (tracked->counted) --m_subscribers;
    tracked->counted = false;
    m_connections.erase(tracked);
}

bool SocketServer::m_CloseLongestIdleLocked() {
    std::vector<std::pair<Connection::Clock::time_point, std::shared_ptr<Tracked>>> idle;
    for (const auto& tracked : m_connections) {
        Connection::Clock::time_point since;
        if (tracked->connection.IdleSince(since)) idle.emplace_back(since, tracked);
    }
    std::sort(idle.begin(), idle.end(),
              [](const auto& left, const auto& right) { return left.first < right.first; });
    for (const auto& [since, tracked] : idle) {
        // It may have begun a line since it was looked at.
        if (!tracked->connection.CloseIfIdle()) continue;
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, kLogTag,
                     "every connection is taken: closing one idle for %lld ms to make room",
                     static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                Connection::Clock::now() - since)
                                                .count()));
        // Its threads end on their own; the room is the newcomer's now.
        m_connections.erase(tracked);
        return true;
    }
    return false;
}

void SocketServer::m_ReadLoop(Connection& connection) {
    using Clock = std::chrono::steady_clock;
    LineParser parser;
    std::string pending;
    bool discarding = false;  // inside a line over the limit, until its newline
    bool line_open = false;   // bytes of an unfinished line have come, since line_started
    Clock::time_point line_started;
    std::vector<char> buffer(64 * 1024);
    while (!connection.Closing()) {
        int wait_ms = -1;
        if (line_open) {
            const auto left = line_started + m_limits.lineTimeout - Clock::now();
            if (left <= Clock::duration::zero()) {
                __dlog_print(LOG_ID_MAIN, DLOG_WARN, kLogTag, "a client left a line unfinished: closing it");
                connection.Close(FrameHandler::Serialize(FrameHandler::ErrorFrame(
                    Json::Value(), "the connection is closed: a line stayed unfinished for " +
                                       std::to_string(m_limits.lineTimeout.count()) + " ms")));
                return;
            }
            wait_ms = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
        }
        pollfd pfd{connection.Fd(), POLLIN, 0};
        const int ready = poll(&pfd, 1, wait_ms);
        if (ready < 0 && errno != EINTR) break;
        if (ready <= 0) continue;
        // Marked busy before the bytes are taken, so that it is never closed as idle with them.
        if (!connection.BeginReading()) break;
        const ssize_t n = read(connection.Fd(), buffer.data(), buffer.size());
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
            connection.EndReading(line_open);
            continue;
        }
        if (n <= 0) break;
        size_t start = 0;
        const size_t end = static_cast<size_t>(n);
        bool line_ended = false;
        while (start < end && !connection.Closing()) {
            const char* newline =
                static_cast<const char*>(std::memchr(buffer.data() + start, '\n', end - start));
            const size_t stop = newline ? static_cast<size_t>(newline - buffer.data()) : end;
            if (!discarding) pending.append(buffer.data() + start, stop - start);
            if (pending.size() > kMaxLineBytes) {
                // Its memory goes at once; the rest of the line is skipped as it comes.
                std::string().swap(pending);
                discarding = true;
            }
            if (newline == nullptr) break;
            if (discarding) {
                connection.Answer(FrameHandler::Serialize(
                    FrameHandler::ErrorFrame(Json::Value(), "line longer than 1 MiB, discarded")));
                discarding = false;
            } else {
                m_HandleLine(connection, parser, pending);
            }
            // A big line's memory is not kept for the life of the connection.
            if (pending.capacity() > buffer.size()) {
                std::string().swap(pending);
            } else {
                pending.clear();
            }
            line_ended = true;
            start = stop + 1;
        }
        const bool was_open = line_open;
        line_open = !pending.empty() || discarding;
        if (line_open && (!was_open || line_ended)) line_started = Clock::now();
        connection.EndReading(line_open);
    }
    // A last line without its newline before the peer stopped sending is still a frame.
    if (!pending.empty() && !discarding && !connection.Closing()) m_HandleLine(connection, parser, pending);
    connection.Close();
}

void SocketServer::m_HandleLine(Connection& connection, LineParser& parser, const std::string& line) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) return;
    FrameOutcome outcome = m_handler.Handle(line, parser);
    if (outcome.subscribe && !connection.Subscribed()) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_subscribers >= m_limits.maxSubscribers) {
            outcome.subscribe = false;
            outcome.answer = FrameHandler::ErrorFrame(
                outcome.answer["id"], "the host takes at most " + std::to_string(m_limits.maxSubscribers) +
                                          " subscribers at once; try again later");
        } else {
            // Counted before the answer goes, so that two at once cannot both pass the limit.
            for (const auto& tracked : m_connections) {
                if (&tracked->connection != &connection || tracked->counted) continue;
                tracked->counted = true;
                ++m_subscribers;
            }
        }
    }
    // Subscribed as the answer goes, so that a client that has read it misses nothing.
    connection.Answer(FrameHandler::Serialize(outcome.answer), outcome.subscribe);
}

}  // namespace host
}  // namespace tarvo
