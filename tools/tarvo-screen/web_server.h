// The page and its JSON bridge on 127.0.0.1, served by cpp-httplib: each request, an open event
// stream included, runs on a thread of the server's pool. Requests that name another host, or
// calls that come from another origin, are refused, so no other web page can answer for the user.
#pragma once

#include "event_hub.h"
#include "host_link.h"

#include <httplib.h>

#include <optional>
#include <string>

namespace tarvoscreen {

class WebServer {
  public:
    WebServer(HostLink& link, EventHub& hub);

    // Serves `web_dir` and binds 127.0.0.1:port (0: a free port); the port bound, or nullopt
    // with the reason in `error`.
    std::optional<int> Bind(const std::string& web_dir, int port, std::string* error);
    // Serves until Stop; false when the server failed.
    bool Run();
    void Stop();

  private:
    bool m_FromThisPage(const httplib::Request& req) const;
    void m_Call(const httplib::Request& req, httplib::Response& res);
    void m_Events(httplib::Response& res);

    HostLink& m_link;
    EventHub& m_hub;
    httplib::Server m_server;
    int m_port = 0;
};

}  // namespace tarvoscreen
