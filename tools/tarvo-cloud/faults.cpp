#include "faults.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <limits>
#include <map>

namespace tarvo {
namespace cloud {

namespace {

const std::map<std::string, FaultKind>& KindNames() {
    static const std::map<std::string, FaultKind> names = {{"stat_error", FaultKind::kStatError},
                                                           {"not_json", FaultKind::kNotJson},
                                                           {"http_status", FaultKind::kHttpStatus},
                                                           {"delay", FaultKind::kDelay},
                                                           {"drop", FaultKind::kDrop},
                                                           {"big_chunk", FaultKind::kBigChunk},
                                                           {"empty", FaultKind::kEmpty},
                                                           {"not_xml", FaultKind::kNotXml},
                                                           {"wrong_root", FaultKind::kWrongRoot},
                                                           {"ok_with_err", FaultKind::kOkWithErr},
                                                           {"untrusted_cert", FaultKind::kUntrustedCert},
                                                           {"body", FaultKind::kBody}};
    return names;
}

struct PathKinds {
    const char* path;
    std::vector<FaultKind> kinds;
};

// What each server can play: the OpenAPI answers are JSON, the agreement answers XML, and the
// log server answers only with its status.
const std::vector<PathKinds>& KindsByPath() {
    static const std::vector<FaultKind> openapi = {
        FaultKind::kStatError, FaultKind::kNotJson,  FaultKind::kHttpStatus, FaultKind::kDelay,
        FaultKind::kDrop,      FaultKind::kBigChunk, FaultKind::kEmpty};
    static const std::vector<PathKinds> table = {
        {"checkversion", openapi},
        {"disclaimers", openapi},
        {"any", openapi},
        {"agreement",
         {FaultKind::kStatError, FaultKind::kNotXml, FaultKind::kWrongRoot, FaultKind::kOkWithErr,
          FaultKind::kHttpStatus, FaultKind::kDelay, FaultKind::kDrop, FaultKind::kBigChunk,
          FaultKind::kEmpty, FaultKind::kUntrustedCert, FaultKind::kBody}},
        {"log", {FaultKind::kHttpStatus, FaultKind::kDelay, FaultKind::kDrop}}};
    return table;
}

bool IsOpenApiRoute(const std::string& route) { return route == "checkversion" || route == "disclaimers"; }

std::string KindName(FaultKind kind) {
    for (const auto& [name, value] : KindNames()) {
        if (value == kind) return name;
    }
    return "unknown";
}

// Reads an optional whole number within [low, high] from `request[key]`.
bool ReadNumber(const Json::Value& request, const char* key, long long low, long long high, long long* out,
                std::string* error) {
    if (!request.isMember(key)) return true;
    const Json::Value& value = request[key];
    if (!value.isInt64() || value.asLargestInt() < low || value.asLargestInt() > high) {
        *error = std::string("\"") + key + "\" must be a whole number from " + std::to_string(low) + " to " +
                 std::to_string(high);
        return false;
    }
    *out = value.asLargestInt();
    return true;
}

bool MatchesEndpoint(int fd, const std::string& peer_addr, int peer_port, int local_port) {
    sockaddr_storage local{};
    sockaddr_storage peer{};
    socklen_t local_len = sizeof(local);
    socklen_t peer_len = sizeof(peer);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &local_len) != 0) return false;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_len) != 0) return false;
    if (local.ss_family != AF_INET || peer.ss_family != AF_INET) return false;
    const auto* l = reinterpret_cast<const sockaddr_in*>(&local);
    const auto* p = reinterpret_cast<const sockaddr_in*>(&peer);
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &p->sin_addr, text, sizeof(text));
    return ntohs(l->sin_port) == local_port && ntohs(p->sin_port) == peer_port && peer_addr == text;
}

}  // namespace

FaultParseResult ParseFault(const Json::Value& request) {
    FaultParseResult result;
    if (!request.isObject()) {
        result.error = "the fault must be a JSON object";
        return result;
    }
    Fault fault;
    const std::string path = request["path"].isString() ? request["path"].asString() : std::string();
    const auto& table = KindsByPath();
    const auto known =
        std::find_if(table.begin(), table.end(), [&](const PathKinds& p) { return path == p.path; });
    if (known == table.end()) {
        result.error =
            "\"path\" must be \"checkversion\", \"disclaimers\", \"any\", \"agreement\" or \"log\"";
        return result;
    }
    fault.path = path;
    const auto kind =
        request["kind"].isString() ? KindNames().find(request["kind"].asString()) : KindNames().end();
    if (kind == KindNames().end() ||
        std::find(known->kinds.begin(), known->kinds.end(), kind->second) == known->kinds.end()) {
        std::string names;
        for (FaultKind k : known->kinds) names += (names.empty() ? "" : ", ") + KindName(k);
        result.error = "\"kind\" of path \"" + path + "\" must be one of " + names;
        return result;
    }
    fault.kind = kind->second;
    if (request.isMember("code")) {
        if (!request["code"].isString() && !request["code"].isInt64()) {
            result.error = "\"code\" must be a string or a whole number";
            return result;
        }
        fault.code = request["code"].isString() ? request["code"].asString()
                                                : std::to_string(request["code"].asLargestInt());
    }
    if (request.isMember("msg")) {
        if (!request["msg"].isString()) {
            result.error = "\"msg\" must be a string";
            return result;
        }
        fault.msg = request["msg"].asString();
    }
    if (fault.kind == FaultKind::kBody) {
        if (!request["body"].isString()) {
            result.error = "\"body\" must be the answer's text";
            return result;
        }
        fault.body = request["body"].asString();
    }
    long long status = fault.status;
    long long delay = fault.delay_ms;
    long long bytes = static_cast<long long>(fault.bytes);
    long long count = fault.remaining;
    if (!ReadNumber(request, "status", 100, 599, &status, &result.error) ||
        !ReadNumber(request, "delay_ms", 0, 600000, &delay, &result.error) ||
        !ReadNumber(request, "bytes", 0, 64LL * 1024 * 1024, &bytes, &result.error) ||
        !ReadNumber(request, "count", 1, std::numeric_limits<int>::max(), &count, &result.error)) {
        return result;
    }
    fault.status = static_cast<int>(status);
    fault.delay_ms = static_cast<int>(delay);
    fault.bytes = static_cast<size_t>(bytes);
    fault.remaining = static_cast<long>(count);
    result.fault = fault;
    return result;
}

Json::Value FaultToJson(const Fault& fault) {
    Json::Value json(Json::objectValue);
    json["path"] = fault.path;
    json["kind"] = KindName(fault.kind);
    if (!fault.code.empty()) json["code"] = fault.code;
    if (!fault.msg.empty()) json["msg"] = fault.msg;
    if (fault.kind == FaultKind::kBody) json["body_bytes"] = Json::UInt64(fault.body.size());
    json["status"] = fault.status;
    json["delay_ms"] = fault.delay_ms;
    json["bytes"] = Json::UInt64(fault.bytes);
    if (fault.remaining >= 0) json["count"] = Json::Int64(fault.remaining);
    return json;
}

void FaultTable::Set(const Fault& fault) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& existing : m_faults) {
        if (existing.path == fault.path) {
            existing = fault;
            return;
        }
    }
    m_faults.push_back(fault);
}

size_t FaultTable::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    const size_t count = m_faults.size();
    m_faults.clear();
    return count;
}

std::optional<Fault> FaultTable::Take(const std::string& route) { return TakeWhere(route, false); }

bool FaultTable::TakeUntrustedCert(const std::string& route) { return TakeWhere(route, true).has_value(); }

std::optional<Fault> FaultTable::TakeWhere(const std::string& route, bool handshake) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto chosen = m_faults.end();
    for (auto it = m_faults.begin(); it != m_faults.end(); ++it) {
        if (it->path == route) {
            chosen = it;
            break;
        }
        if (it->path == "any" && IsOpenApiRoute(route)) chosen = it;
    }
    if (chosen == m_faults.end() || (chosen->kind == FaultKind::kUntrustedCert) != handshake)
        return std::nullopt;
    Fault taken = *chosen;
    if (chosen->remaining > 0 && --chosen->remaining == 0) m_faults.erase(chosen);
    return taken;
}

Json::Value FaultTable::ToJson() const {
    Json::Value all(Json::arrayValue);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& fault : m_faults) all.append(FaultToJson(fault));
    return all;
}

const char* HttpStatusText(int status) {
    switch (status) {
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 429:
            return "Too Many Requests";
        case 500:
            return "Internal Server Error";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        default:
            return "HTTP error";
    }
}

bool DropConnection(const httplib::Request& req) {
    if (req.ssl != nullptr) {
        const int fd = SSL_get_fd(req.ssl);
        return fd >= 0 && shutdown(fd, SHUT_RDWR) == 0;
    }
    // httplib hands a handler no socket, so find the one whose two ends are this request's.
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        std::fprintf(stderr, "tarvo-cloud: cannot list /proc/self/fd: %s\n", std::strerror(errno));
        return false;
    }
    bool dropped = false;
    while (dirent* entry = readdir(dir)) {
        char* end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == dirfd(dir)) continue;
        if (MatchesEndpoint(static_cast<int>(fd), req.remote_addr, req.remote_port, req.local_port)) {
            dropped = shutdown(static_cast<int>(fd), SHUT_RDWR) == 0;
            break;
        }
    }
    closedir(dir);
    if (!dropped) {
        std::fprintf(stderr, "tarvo-cloud: found no connection from %s:%d to drop\n", req.remote_addr.c_str(),
                     req.remote_port);
    }
    return dropped;
}

}  // namespace cloud
}  // namespace tarvo
