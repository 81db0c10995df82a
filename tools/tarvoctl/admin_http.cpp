#include "admin_http.h"

#include "client.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

namespace tarvoctl {

namespace {

class Socket {
  public:
    explicit Socket(int fd) : m_fd(fd) {}
    ~Socket() {
        if (m_fd >= 0) close(m_fd);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int Fd() const { return m_fd; }

  private:
    int m_fd;
};

struct AddressInfoDeleter {
    void operator()(addrinfo* info) const { freeaddrinfo(info); }
};

using Clock = std::chrono::steady_clock;

// Waits for `events` on the socket until `deadline`; false on time-out or error.
bool Ready(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        pollfd entry{fd, events, 0};
        const int ready = poll(&entry, 1, static_cast<int>(left));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

// "http://HOST:PORT" split; false when it is not of that form.
bool SplitUrl(const std::string& url, std::string* host, std::string* port) {
    const std::string scheme = "http://";
    if (url.compare(0, scheme.size(), scheme) != 0) return false;
    std::string rest = url.substr(scheme.size());
    while (!rest.empty() && rest.back() == '/') rest.pop_back();
    const size_t colon = rest.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == rest.size()) return false;
    *host = rest.substr(0, colon);
    *port = rest.substr(colon + 1);
    return port->find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

std::optional<std::string> AdminEndpoint::FromRunState(const std::string& root, std::string* error) {
    const std::string path = root + "/run/cloud.json";
    std::ifstream in(path);
    if (!in) {
        *error =
            "no " + path + " (scripts/run.sh writes it when it starts the cloud; or give --cloud-admin URL)";
        return std::nullopt;
    }
    std::stringstream text;
    text << in.rdbuf();
    const auto ports = ParseJson(text.str());
    if (!ports || !(*ports)["admin"].isInt()) {
        *error = path + " names no admin port";
        return std::nullopt;
    }
    return "http://127.0.0.1:" + std::to_string((*ports)["admin"].asInt());
}

std::optional<HttpAnswer> AdminEndpoint::Exchange(const std::string& method, const std::string& path,
                                                  const std::string& body, std::string* error,
                                                  std::chrono::milliseconds timeout) const {
    const auto deadline = Clock::now() + timeout;
    std::string host, port;
    if (!SplitUrl(m_url, &host, &port)) {
        *error = "the admin URL \"" + m_url + "\" is not of the form http://HOST:PORT";
        return std::nullopt;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0 || found == nullptr) {
        *error = "cannot resolve " + host;
        return std::nullopt;
    }
    const std::unique_ptr<addrinfo, AddressInfoDeleter> addresses(found);
    Socket socket(::socket(found->ai_family, found->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket.Fd() < 0) {
        *error = "cannot make a socket";
        return std::nullopt;
    }
    const bool connecting = connect(socket.Fd(), found->ai_addr, found->ai_addrlen) != 0;
    int failure = 0;
    socklen_t length = sizeof(failure);
    if ((connecting && (errno != EINPROGRESS || !Ready(socket.Fd(), POLLOUT, deadline))) ||
        getsockopt(socket.Fd(), SOL_SOCKET, SO_ERROR, &failure, &length) != 0 || failure != 0) {
        *error = "no cloud admin endpoint answers at " + m_url;
        return std::nullopt;
    }

    std::string request = method + " " + path + " HTTP/1.1\r\nHost: " + host + ":" + port +
                          "\r\nConnection: close\r\nAccept: application/json\r\n";
    if (!body.empty()) request += "Content-Type: application/json\r\n";
    request += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    for (size_t sent = 0; sent < request.size();) {
        const ssize_t n = send(socket.Fd(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
        } else if ((n < 0 && errno != EAGAIN && errno != EINTR) || !Ready(socket.Fd(), POLLOUT, deadline)) {
            *error = "the request to " + m_url + path + " could not be sent";
            return std::nullopt;
        }
    }
    // The server closes the connection after its answer.
    std::string answer;
    char buffer[16384];
    for (;;) {
        const ssize_t n = recv(socket.Fd(), buffer, sizeof(buffer), 0);
        if (n > 0) {
            answer.append(buffer, static_cast<size_t>(n));
        } else if (n == 0) {
            break;
        } else if ((errno != EAGAIN && errno != EINTR) || !Ready(socket.Fd(), POLLIN, deadline)) {
            *error = "no complete answer from " + m_url + path + " in time";
            return std::nullopt;
        }
    }
    const size_t head_end = answer.find("\r\n\r\n");
    HttpAnswer parsed;
    if (answer.compare(0, 5, "HTTP/") != 0 || head_end == std::string::npos ||
        std::sscanf(answer.c_str(), "HTTP/%*s %d", &parsed.status) != 1) {
        *error = "the answer from " + m_url + path + " is no HTTP";
        return std::nullopt;
    }
    parsed.body = answer.substr(head_end + 4);
    return parsed;
}

std::optional<Json::Value> AdminEndpoint::m_Json(const std::string& method, const std::string& path,
                                                 const std::string& body, std::string* error) const {
    const auto answer = Exchange(method, path, body, error);
    if (!answer) return std::nullopt;
    const auto json = ParseJson(answer->body);
    if (answer->status != 200) {
        *error = method + " " + path + " answered HTTP " + std::to_string(answer->status) +
                 (json && (*json)["error"].isString() ? ": " + (*json)["error"].asString() : "");
        return std::nullopt;
    }
    if (!json) *error = method + " " + path + " answered no JSON";
    return json;
}

std::optional<Json::Value> AdminEndpoint::Get(const std::string& path, std::string* error) const {
    return m_Json("GET", path, "", error);
}

std::optional<Json::Value> AdminEndpoint::Post(const std::string& path, const Json::Value& body,
                                               std::string* error) const {
    return m_Json("POST", path, CompactJson(body), error);
}

}  // namespace tarvoctl
