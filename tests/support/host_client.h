// Test helpers for the host: a socket client that speaks the JSON-line protocol, and
// StartHost, which starts tarvo-service-host and waits until it answers a ping.
// Used from the test's thread only.
#pragma once

#include "process.h"
#include "tarvo_test.h"

#include <json/json.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace tarvo::test {

class HostClient {
  public:
    HostClient() = default;
    ~HostClient();
    HostClient(const HostClient&) = delete;
    HostClient& operator=(const HostClient&) = delete;

    bool Connect(const std::string& socket_path);
    // Connects and subscribes to notifications; true once the host accepted.
    bool Subscribe(const std::string& socket_path);
    // Sends `text` as is; SendLine adds the newline that ends a frame.
    bool SendText(const std::string& text);
    bool SendLine(const std::string& line) { return SendText(line + "\n"); }
    bool Send(const Json::Value& frame);
    // The next frame from the host; nullopt on time-out or a closed connection.
    std::optional<Json::Value> ReadFrame(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Sends {"id": next, "call": request} and reads the next frame, which must be its answer.
    std::optional<Json::Value> Call(const Json::Value& request);
    // Sends {"id": next, "control": name[, "state": state]} and reads the next frame.
    std::optional<Json::Value> Control(const std::string& name, std::optional<int> state = std::nullopt);

  private:
    int m_fd = -1;
    int m_nextId = 1;
    std::string m_buffer;
};

// Compact one-line JSON, as the host writes it.
std::string ToLine(const Json::Value& value);
Json::Value ParseLine(const std::string& line);

// ROOT/run/tarvodatacontrol.sock.
std::string DefaultSocket(const TempRoot& root);

// Starts the host on `module` under `root` and waits until it answers a ping on
// `socket` (default: the root's socket). Null, with a test failure naming the host's
// output, when it does not come up.
std::unique_ptr<ChildProcess> StartHost(const TempRoot& root, const std::string& module,
                                        const std::string& socket = "");

// A call of `name` with no arguments.
Json::Value Method(const std::string& name);
// The lines of ROOT's log file that hold `text`.
size_t LogCount(const TempRoot& root, const std::string& text);

// tarvoctl --root ROOT `args`, run to its end.
RunResult RunCtl(const TempRoot& root, const std::vector<std::string>& args,
                 std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Starts tarvo-cloud on loopback ports of its choosing, which it writes into `root`'s profile and
// `ports`, and points the television's values (US, English, `duid`) at it. Null when it fails.
std::unique_ptr<ChildProcess> StartCloud(const TempRoot& root, const std::string& duid, Json::Value& ports);

}  // namespace tarvo::test
