#include "web_server.h"

#include "client.h"

#include <memory>
#include <vector>

namespace tarvoscreen {

namespace {

// Every open page holds one thread with its event stream, so the pool is larger than
// cpp-httplib's default.
constexpr size_t kServerThreads = 32;
// A comment line this often keeps the stream open and finds pages that have gone.
constexpr std::chrono::seconds kKeepAlive{15};
const char* const kFavicon =
    "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 16 16'><rect x='1' y='3' width='14' height='9' "
    "rx='1' fill='#7fb2ff'/><rect x='5' y='13' width='6' height='1.5' fill='#7fb2ff'/></svg>";

void SendJson(httplib::Response& res, int status, const Json::Value& body) {
    res.status = status;
    res.set_header("Cache-Control", "no-store");
    res.set_content(tarvoctl::CompactJson(body), "application/json");
}

void SendError(httplib::Response& res, int status, const std::string& error) {
    Json::Value body(Json::objectValue);
    body["error"] = error;
    SendJson(res, status, body);
}

}  // namespace

WebServer::WebServer(HostLink& link, EventHub& hub) : m_link(link), m_hub(hub) {
    m_server.new_task_queue = [] { return new httplib::ThreadPool(kServerThreads); };
}

std::optional<int> WebServer::Bind(const std::string& web_dir, int port, std::string* error) {
    if (!m_server.set_mount_point("/", web_dir)) {
        *error = "cannot serve the page's files from " + web_dir;
        return std::nullopt;
    }
    m_server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        if (m_FromThisPage(req)) return httplib::Server::HandlerResponse::Unhandled;
        SendError(res, 403, "requests must come from this screen's own page on 127.0.0.1");
        return httplib::Server::HandlerResponse::Handled;
    });
    m_server.Post("/api/call",
                  [this](const httplib::Request& req, httplib::Response& res) { m_Call(req, res); });
    m_server.Get("/api/events", [this](const httplib::Request&, httplib::Response& res) { m_Events(res); });
    m_server.Get("/api/versions", [this](const httplib::Request&, httplib::Response& res) {
        SendJson(res, 200, m_link.Versions());
    });
    // Browsers ask for it whatever the page links; without one the console logs an error.
    m_server.Get("/favicon.ico", [](const httplib::Request&, httplib::Response& res) {
        res.set_content(kFavicon, "image/svg+xml");
    });
    m_port = port == 0 ? m_server.bind_to_any_port("127.0.0.1")
                       : (m_server.bind_to_port("127.0.0.1", port) ? port : -1);
    if (m_port <= 0) {
        *error = "cannot listen on 127.0.0.1:" + std::to_string(port);
        return std::nullopt;
    }
    return m_port;
}

bool WebServer::Run() { return m_server.listen_after_bind(); }

void WebServer::Stop() { m_server.stop(); }

bool WebServer::m_FromThisPage(const httplib::Request& req) const {
    const std::string port = ":" + std::to_string(m_port);
    const std::string host = req.get_header_value("Host");
    if (host != "127.0.0.1" + port && host != "localhost" + port) return false;
    if (req.method != "POST") return true;
    // A page of another origin may post a form without asking first, but never JSON.
    const std::string origin = req.get_header_value("Origin");
    const bool same_origin = origin.empty() || origin == "http://" + host;
    return same_origin && req.get_header_value("Content-Type").rfind("application/json", 0) == 0;
}

void WebServer::m_Call(const httplib::Request& req, httplib::Response& res) {
    const auto request = tarvoctl::ParseJson(req.body);
    if (!request || !request->isObject()) {
        SendError(res, 400, "the body must be one JSON object: the request for the service");
        return;
    }
    const CallOutcome outcome = m_link.Call(*request);
    switch (outcome.kind) {
        case CallOutcome::Kind::kReply: {
            Json::Value body(Json::objectValue);
            body["reply"] = outcome.reply;
            SendJson(res, 200, body);
            return;
        }
        case CallOutcome::Kind::kHostError:
            SendError(res, 502, outcome.error);
            return;
        case CallOutcome::Kind::kNoHost: {
            // No host is a state the page shows, not a failed request: an error status would be
            // logged in the browser's console as one.
            Json::Value body(Json::objectValue);
            body["no_host"] = true;
            body["error"] = outcome.error;
            SendJson(res, 200, body);
            return;
        }
    }
}

void WebServer::m_Events(httplib::Response& res) {
    const HubPosition start = m_hub.Position();
    auto after = std::make_shared<uint64_t>(start.last_seq);
    auto greeting = std::make_shared<std::string>("retry: 1000\n\n");
    if (start.host_up) {
        *greeting +=
            SseFrame(HubEvent{start.last_seq, "host", *start.host_up ? R"({"up":true})" : R"({"up":false})"});
    }
    if (start.store) *greeting += SseFrame(HubEvent{start.last_seq, "store", *start.store});
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider("text/event-stream",
                                     [this, after, greeting](size_t, httplib::DataSink& sink) {
                                         if (!greeting->empty()) {
                                             const std::string text = std::move(*greeting);
                                             greeting->clear();
                                             return sink.write(text.data(), text.size());
                                         }
                                         std::vector<HubEvent> events;
                                         switch (m_hub.Wait(*after, kKeepAlive, events)) {
                                             case WaitResult::kEvents: {
                                                 std::string text;
                                                 for (const auto& event : events) text += SseFrame(event);
                                                 *after = events.back().seq;
                                                 return sink.write(text.data(), text.size());
                                             }
                                             case WaitResult::kTimeOut:
                                                 return sink.write(": keep-alive\n\n", 14);
                                             case WaitResult::kClosed:
                                             case WaitResult::kFellBehind:
                                                 // The page's EventSource reconnects and reads everything
                                                 // afresh.
                                                 sink.done();
                                                 return true;
                                         }
                                         return false;
                                     });
}

}  // namespace tarvoscreen
