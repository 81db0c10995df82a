#include "client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace tarvoctl {

namespace {

// How long a call or control may take before the host is given up on.
constexpr std::chrono::seconds kAnswerTimeout{120};

}  // namespace

Client::~Client() {
    if (m_fd >= 0) close(m_fd);
}

bool Client::Connect(const std::string& path) {
    m_path = path;
    m_closed = false;
    m_buffer.clear();
    m_searched = 0;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) return false;
    if (connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        close(m_fd);
        m_fd = -1;
        return false;
    }
    return true;
}

std::optional<Json::Value> Client::Call(const Json::Value& request, const std::string& type) {
    Json::Value frame(Json::objectValue);
    frame["call"] = request;
    if (!type.empty()) frame["type"] = type;
    return m_Request(frame);
}

std::optional<Json::Value> Client::Control(const std::string& name, std::optional<int> state) {
    Json::Value frame(Json::objectValue);
    frame["control"] = name;
    if (state) frame["state"] = *state;
    return m_Request(frame);
}

bool Client::Subscribe() {
    Json::Value frame(Json::objectValue);
    frame["subscribe"] = true;
    const auto answer = m_Request(frame);
    m_subscribed = answer && answer->get("ok", false).asBool();
    return m_subscribed;
}

std::optional<Json::Value> Client::ReadFrame(std::chrono::milliseconds timeout) {
    if (!m_queued.empty()) {
        Json::Value frame = m_queued.front();
        m_queued.pop_front();
        return frame;
    }
    return m_ReadFromSocket(timeout);
}

void Client::m_ReopenIfClosedByHost() {
    // A subscriber's connection is never closed as idle; reopening would lose the subscription.
    if (m_fd < 0 || m_subscribed || !m_buffer.empty()) return;
    pollfd pfd{m_fd, POLLIN, 0};
    if (poll(&pfd, 1, 0) <= 0) return;
    char byte = 0;
    if (recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0) return;
    close(m_fd);
    m_fd = -1;
    Connect(m_path);
}

std::optional<Json::Value> Client::m_Request(Json::Value frame) {
    m_ReopenIfClosedByHost();
    const int id = m_nextId++;
    frame["id"] = id;
    if (!m_WriteLine(CompactJson(frame))) return std::nullopt;
    const auto deadline = std::chrono::steady_clock::now() + kAnswerTimeout;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        auto answer = m_ReadFromSocket(left);
        if (!answer) {
            if (m_closed) return std::nullopt;
            continue;
        }
        if (answer->isMember("notification")) {
            m_queued.push_back(*answer);
            continue;
        }
        const Json::Value& answer_id = (*answer)["id"];
        if (answer_id.isInt() && answer_id.asInt() == id) return answer;
        // An error about a line the host could not read names no id.
        if (answer_id.isNull() && answer->isMember("error")) return answer;
    }
}

std::optional<Json::Value> Client::m_ReadFromSocket(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const auto newline = m_buffer.find('\n', m_searched);
        if (newline != std::string::npos) {
            const std::string line = m_buffer.substr(0, newline);
            m_buffer.erase(0, newline + 1);
            m_searched = 0;
            auto frame = ParseJson(line);
            if (frame && frame->isObject()) return frame;
            continue;
        }
        if (m_closed) return std::nullopt;
        int wait_ms = -1;
        if (timeout.count() >= 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return std::nullopt;
            wait_ms = static_cast<int>(left.count());
        }
        pollfd pfd{m_fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, wait_ms);
        // A signal ends the wait so that the caller can see why.
        if (ready < 0) return std::nullopt;
        if (ready == 0) continue;
        char chunk[65536];
        const ssize_t n = read(m_fd, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) return std::nullopt;
        if (n <= 0) {
            m_closed = true;
            continue;
        }
        // A long line comes in many chunks: each is searched for its end once.
        m_searched = m_buffer.size();
        m_buffer.append(chunk, static_cast<size_t>(n));
    }
}

bool Client::m_WriteLine(const std::string& line) {
    const std::string text = line + "\n";
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t n = send(m_fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            m_closed = true;
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

std::string PrettyJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

std::optional<Json::Value> ParseJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt;
    }
    return value;
}

std::string DefaultRoot() {
    if (const char* env = std::getenv("TARVO_ROOT"); env != nullptr && *env != '\0') return env;
    if (const char* xdg = std::getenv("XDG_STATE_HOME"); xdg != nullptr && *xdg != '\0') {
        return std::string(xdg) + "/tarvo/root";
    }
    const char* home = std::getenv("HOME");
    return std::string(home ? home : "") + "/.local/state/tarvo/root";
}

}  // namespace tarvoctl
