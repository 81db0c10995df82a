// The cloud's listening servers: each owns one httplib server bound to 127.0.0.1 and runs
// it on a thread of its own. Only the main thread calls these operations, in the order
// Add, BindAll, StartAll, StopAll.
#pragma once

#include <httplib.h>
#include <json/json.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tarvo {
namespace cloud {

// Writes one line to stderr for each answered request, and turns an exception of a
// handler into a logged 500 answer.
void LogRequests(httplib::Server& server, const std::string& name);

class Listeners {
  public:
    Listeners() = default;
    Listeners(const Listeners&) = delete;
    Listeners& operator=(const Listeners&) = delete;
    ~Listeners();

    // Takes `server` (plain or TLS) under `name`, to listen on `port` (0 picks a free one);
    // returns it so that routes can be installed.
    httplib::Server& Add(const std::string& name, int port, std::unique_ptr<httplib::Server> server);
    // Binds every server; false with the listener's name and port in `error` on failure.
    bool BindAll(std::string* error);
    void StartAll();
    // Stops and joins every running server.
    void StopAll();
    // {"name": bound port, ...}.
    Json::Value Ports() const;

  private:
    struct Entry {
        std::string name;
        int requested_port = 0;
        int bound_port = -1;
        std::unique_ptr<httplib::Server> server;
        std::thread thread;
    };
    std::vector<Entry> m_entries;
};

}  // namespace cloud
}  // namespace tarvo
