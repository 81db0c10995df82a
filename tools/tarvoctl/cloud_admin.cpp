#include "cloud_admin.h"

#include "client.h"

#include <httplib.h>

#include <fstream>
#include <sstream>

namespace tarvoctl {

namespace {

constexpr time_t kConnectSeconds = 5;
constexpr time_t kAnswerSeconds = 10;

}  // namespace

std::optional<std::string> AdminEndpoint::FromRunState(const std::string& root, std::string* error) {
    const std::string path = root + "/run/cloud.json";
    std::ifstream in(path);
    if (!in) {
        *error =
            "no " + path + " (scripts/run.sh writes it when it starts the cloud; or give --cloud-admin URL)";
        return std::nullopt;
    }
    std::stringstream text;
    text << in.rdbuf();
    const auto ports = ParseJson(text.str());
    if (!ports || !(*ports)["admin"].isInt()) {
        *error = path + " names no admin port";
        return std::nullopt;
    }
    return "http://127.0.0.1:" + std::to_string((*ports)["admin"].asInt());
}

std::optional<Json::Value> AdminEndpoint::m_Json(const std::string& method, const std::string& path,
                                                 const std::string* body, std::string* error) const {
    if (m_url.rfind("http://", 0) != 0) {
        *error = "the admin URL \"" + m_url + "\" is not of the form http://HOST:PORT";
        return std::nullopt;
    }
    httplib::Client client(m_url);
    if (!client.is_valid()) {
        *error = "the admin URL \"" + m_url + "\" is not of the form http://HOST:PORT";
        return std::nullopt;
    }
    client.set_connection_timeout(kConnectSeconds, 0);
    client.set_read_timeout(kAnswerSeconds, 0);
    client.set_write_timeout(kAnswerSeconds, 0);
    const httplib::Headers accept = {{"Accept", "application/json"}};
    const auto answer =
        body ? client.Post(path, accept, *body, "application/json") : client.Get(path, accept);
    if (!answer) {
        *error = answer.error() == httplib::Error::Connection
                     ? "no cloud admin endpoint answers at " + m_url
                     : method + " " + m_url + path + " failed: " + httplib::to_string(answer.error());
        return std::nullopt;
    }
    const auto json = ParseJson(answer->body);
    if (answer->status != 200) {
        *error = method + " " + path + " answered HTTP " + std::to_string(answer->status) +
                 (json && json->isObject() && (*json)["error"].isString() ? ": " + (*json)["error"].asString()
                                                                          : "");
        return std::nullopt;
    }
    if (!json) *error = method + " " + path + " answered no JSON";
    return json;
}

std::optional<Json::Value> AdminEndpoint::Get(const std::string& path, std::string* error) const {
    return m_Json("GET", path, nullptr, error);
}

std::optional<Json::Value> AdminEndpoint::Post(const std::string& path, const Json::Value& body,
                                               std::string* error) const {
    const std::string text = CompactJson(body);
    return m_Json("POST", path, &text, error);
}

}  // namespace tarvoctl
