// A client of tarvo-service-host: one Unix-socket connection speaking JSON lines.
// Used from one thread. Notifications that arrive while an answer is awaited are kept
// in m_queued and handed out by ReadFrame in the order they came. Frames from the host may be
// of any length (a reply is not bound by the 1 MiB a request line may take).
#pragma once

#include <json/json.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>

namespace tarvoctl {

class Client {
  public:
    Client() = default;
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // False when nothing listens at `path` (missing, refused or not a socket).
    bool Connect(const std::string& path);
    // The host's answer frame to a call ("reply" or "error"); nullopt when the connection
    // is lost or no answer comes in time.
    std::optional<Json::Value> Call(const Json::Value& request, const std::string& type = "");
    // The answer frame to a control ("ping", "power-off", "wakeup").
    std::optional<Json::Value> Control(const std::string& name, std::optional<int> state = std::nullopt);
    // True once the host has accepted the subscription.
    bool Subscribe();
    // The next frame the host sends; nullopt on time-out, on a signal or when the
    // connection is lost (see Closed). A negative time-out waits for ever.
    std::optional<Json::Value> ReadFrame(std::chrono::milliseconds timeout);
    bool Closed() const { return m_closed; }

  private:
    std::optional<Json::Value> m_Request(Json::Value frame);
    // A busy host closes the connections that wait idle: one closed before a request is sent
    // is opened again, as nothing was lost.
    void m_ReopenIfClosedByHost();
    std::optional<Json::Value> m_ReadFromSocket(std::chrono::milliseconds timeout);
    bool m_WriteLine(const std::string& line);

    int m_fd = -1;
    std::string m_path;
    bool m_closed = false;
    bool m_subscribed = false;
    int m_nextId = 1;
    std::string m_buffer;
    size_t m_searched = 0;  // m_buffer holds no newline before this
    std::deque<Json::Value> m_queued;
};

// Compact JSON on one line, strings kept as UTF-8.
std::string CompactJson(const Json::Value& value);
// Indented JSON for people.
std::string PrettyJson(const Json::Value& value);
std::optional<Json::Value> ParseJson(const std::string& text);
// The root a tool works on when none is given: TARVO_ROOT, else $XDG_STATE_HOME/tarvo/root, else
// ~/.local/state/tarvo/root (where scripts/run.sh keeps it).
std::string DefaultRoot();

}  // namespace tarvoctl
