// The host's wire protocol: one JSON object per line. FrameHandler turns one client line
// into its answer frame, calling the module's proxy or the platform's power controls.
// It keeps no state of its own, so every connection thread may call it at once.
#pragma once

#include <Sedge/Sedge.h>
#include <bracken/ser.h>
#include <json/json.h>

#include <cstddef>
#include <string>

namespace tarvo {
namespace host {

// Longest line a client may send, newline excluded.
constexpr size_t kMaxLineBytes = 1024 * 1024;

struct FrameOutcome {
    Json::Value answer;
    // The frame asked for notifications; the caller subscribes the connection when it
    // writes the answer.
    bool subscribe = false;
};

class FrameHandler {
  public:
    FrameHandler(bracken::ser::ServiceProxy* proxy, std::string service_name);

    FrameOutcome Handle(const std::string& line) const;

    static Json::Value ErrorFrame(const Json::Value& id, const std::string& reason);
    static Json::Value NotificationFrame(const Sedge::TCMessage& message);
    // Compact JSON followed by a newline; strings keep their UTF-8.
    static std::string Serialize(const Json::Value& frame);

  private:
    Json::Value m_Call(const Json::Value& frame) const;
    Json::Value m_Control(const Json::Value& frame) const;

    bracken::ser::ServiceProxy* m_proxy;
    std::string m_serviceName;
};

}  // namespace host
}  // namespace tarvo
