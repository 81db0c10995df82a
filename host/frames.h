// The host's wire protocol: one JSON object per line. FrameHandler turns one client line
// into its answer frame, calling the module's proxy or the platform's power controls.
// It keeps no state of its own, so every connection thread may call it at once.
#pragma once

#include <Sedge/Sedge.h>
#include <bracken/ser.h>
#include <json/json.h>

#include <cstddef>
#include <memory>
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

// Reads request lines into JSON; one per connection, used by its reader thread only, so that
// the JsonCpp reader is made once rather than for every line.
class LineParser {
  public:
    LineParser();
    // The line as a JSON object; false with a reason a client can read.
    bool Parse(const std::string& line, Json::Value& out, std::string& reason);

  private:
    std::unique_ptr<Json::CharReader> m_reader;
};

class FrameHandler {
  public:
    FrameHandler(bracken::ser::ServiceProxy* proxy, std::string service_name);

    FrameOutcome Handle(const std::string& line, LineParser& parser) const;
    FrameOutcome Handle(const std::string& line) const;

    static Json::Value ErrorFrame(const Json::Value& id, const std::string& reason);
    static Json::Value NotificationFrame(const Sedge::TCMessage& message);
    // Compact JSON followed by a newline; strings keep their UTF-8, and bytes that are not
    // UTF-8 become U+FFFD. The bytes are JsonCpp's StreamWriter's, written by RapidJSON.
    static std::string Serialize(const Json::Value& frame);
    // The same frame written by JsonCpp's StreamWriter: the bytes Serialize must match.
    static std::string SerializeWithJsonCpp(const Json::Value& frame);

  private:
    Json::Value m_Call(Json::Value& frame) const;
    Json::Value m_Control(const Json::Value& frame) const;

    bracken::ser::ServiceProxy* m_proxy;
    std::string m_serviceName;
};

}  // namespace host
}  // namespace tarvo
