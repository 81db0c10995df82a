// Plain HTTP/1.1 to the development cloud's admin endpoint (tarvo-cloud): one request per
// connection, JSON in and out, bounded in time. Main thread only.
#pragma once

#include <json/json.h>

#include <chrono>
#include <optional>
#include <string>

namespace tarvoctl {

struct HttpAnswer {
    int status = 0;
    std::string body;
};

class AdminEndpoint {
  public:
    // `url` is "http://HOST:PORT", as --cloud-admin takes it.
    explicit AdminEndpoint(std::string url) : m_url(std::move(url)) {}

    // The admin URL from ROOT/run/cloud.json (written by scripts/run.sh); nullopt with the reason.
    static std::optional<std::string> FromRunState(const std::string& root, std::string* error);

    // The answer to METHOD PATH with `body` (sent as JSON when not empty); nullopt with the reason
    // when no HTTP answer came within `timeout`.
    std::optional<HttpAnswer> Exchange(const std::string& method, const std::string& path,
                                       const std::string& body, std::string* error,
                                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // A 200 answer's body as JSON; nullopt with the reason otherwise.
    std::optional<Json::Value> Get(const std::string& path, std::string* error) const;
    std::optional<Json::Value> Post(const std::string& path, const Json::Value& body,
                                    std::string* error) const;

    const std::string& Url() const { return m_url; }

  private:
    std::optional<Json::Value> m_Json(const std::string& method, const std::string& path,
                                      const std::string& body, std::string* error) const;

    std::string m_url;
};

}  // namespace tarvoctl
