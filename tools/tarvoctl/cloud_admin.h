// The development cloud's admin endpoint (tarvo-cloud) over cpp-httplib's client: JSON in and
// out, bounded in time. Main thread only.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>

namespace tarvoctl {

class AdminEndpoint {
  public:
    // `url` is "http://HOST:PORT", as --cloud-admin takes it.
    explicit AdminEndpoint(std::string url) : m_url(std::move(url)) {}

    // The admin URL from ROOT/run/cloud.json (written by scripts/run.sh); nullopt with the reason.
    static std::optional<std::string> FromRunState(const std::string& root, std::string* error);

    // A 200 answer's body as JSON; nullopt with the reason otherwise.
    std::optional<Json::Value> Get(const std::string& path, std::string* error) const;
    std::optional<Json::Value> Post(const std::string& path, const Json::Value& body,
                                    std::string* error) const;

    const std::string& Url() const { return m_url; }

  private:
    std::optional<Json::Value> m_Json(const std::string& method, const std::string& path,
                                      const std::string* body, std::string* error) const;

    std::string m_url;
};

}  // namespace tarvoctl
