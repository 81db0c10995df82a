// Faults injected into the servers' answers: a table of at most one fault per route
// ("checkversion", "disclaimers", "any" for both of those, "agreement", "log"), set and
// cleared by the admin thread and taken by listener threads; m_mutex guards m_faults.
#pragma once

#include <httplib.h>
#include <json/json.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarvo {
namespace cloud {

enum class FaultKind {
    kStatError,
    kNotJson,
    kHttpStatus,
    kDelay,
    kDrop,
    kBigChunk,
    kEmpty,
    kNotXml,
    kWrongRoot,
    kOkWithErr,
    kUntrustedCert,
    kBody
};

struct Fault {
    std::string path;  // "checkversion", "disclaimers", "any", "agreement" or "log"
    FaultKind kind = FaultKind::kStatError;
    std::string code;  // empty: 5000 for stat_error, the status for http_status
    std::string msg;   // empty: a stock text of the kind
    int status = 500;
    int delay_ms = 1000;
    size_t bytes = 20000;
    long remaining = -1;  // requests it still applies to; -1 is without limit
    std::string body;     // the answer of kind "body", as given
};

struct FaultParseResult {
    std::optional<Fault> fault;
    std::string error;  // why the request was refused, when `fault` is empty
};

// Reads the admin form {"path", "kind", "code", "msg", "status", "delay_ms", "bytes", "count"};
// a kind that the path's server cannot play is refused.
FaultParseResult ParseFault(const Json::Value& request);
Json::Value FaultToJson(const Fault& fault);

class FaultTable {
  public:
    // Replaces the fault of the same path.
    void Set(const Fault& fault);
    // Removes every fault; returns how many there were.
    size_t Clear();
    // The fault that applies to one request of `route`, counting it as used; for the two
    // OpenAPI routes a fault of the route itself wins over one of "any". An untrusted_cert
    // fault is never taken here: it belongs to the handshake.
    std::optional<Fault> Take(const std::string& route);
    // Takes the untrusted_cert fault of `route` for one TLS handshake; false when there is none.
    bool TakeUntrustedCert(const std::string& route);
    Json::Value ToJson() const;

  private:
    std::optional<Fault> TakeWhere(const std::string& route, bool handshake);

    mutable std::mutex m_mutex;  // guards m_faults
    std::vector<Fault> m_faults;
};

// The reason phrase of an HTTP error status, for the bodies of injected statuses.
const char* HttpStatusText(int status);

// Shuts the connection that carries `req` down, so that its client gets no answer at all.
// False with a logged reason when the connection cannot be found.
bool DropConnection(const httplib::Request& req);

}  // namespace cloud
}  // namespace tarvo
