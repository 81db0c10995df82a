#include "record.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace tarvo {
namespace cloud {

namespace {

std::string Iso8601Utc(std::chrono::system_clock::time_point now) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char text[96];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms % 1000));
    return text;
}

// httplib adds the peer's and its own address as pseudo headers; they never crossed the wire.
bool IsServerAddedHeader(const std::string& name) {
    return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

}  // namespace

std::string NowIso8601Utc() { return Iso8601Utc(std::chrono::system_clock::now()); }

RequestRecord::RequestRecord(size_t capacity) : m_capacity(capacity == 0 ? 1 : capacity) {}

void RequestRecord::Add(const std::string& server, const httplib::Request& req) {
    const auto now = std::chrono::system_clock::now();
    Json::Value entry(Json::objectValue);
    entry["server"] = server;
    entry["time"] = Iso8601Utc(now);
    entry["time_ms"] =
        Json::Int64(std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count());
    entry["method"] = req.method;
    entry["path"] = req.path;
    entry["target"] = req.target;
    entry["query"] = Json::Value(Json::objectValue);
    for (const auto& [key, value] : req.params) {
        // A repeated key keeps its first value here; "target" shows the query as it came.
        if (!entry["query"].isMember(key)) entry["query"][key] = value;
    }
    // "headers" gives the first value of each name; "header_lines" shows every line, so
    // a header sent twice is visible.
    entry["headers"] = Json::Value(Json::objectValue);
    entry["header_lines"] = Json::Value(Json::arrayValue);
    for (const auto& [name, value] : req.headers) {
        if (IsServerAddedHeader(name)) continue;
        if (!entry["headers"].isMember(name)) entry["headers"][name] = value;
        entry["header_lines"].append(name + ": " + value);
    }
    entry["body"] = req.body;
    entry["remote"] = req.remote_addr + ":" + std::to_string(req.remote_port);

    std::lock_guard<std::mutex> lock(m_mutex);
    entry["seq"] = Json::UInt64(m_next_seq++);
    m_entries.push_back(std::move(entry));
    while (m_entries.size() > m_capacity) m_entries.pop_front();
}

Json::Value RequestRecord::ToJson() const {
    Json::Value all(Json::arrayValue);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& entry : m_entries) all.append(entry);
    return all;
}

size_t RequestRecord::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    const size_t count = m_entries.size();
    m_entries.clear();
    return count;
}

}  // namespace cloud
}  // namespace tarvo
