#include "listeners.h"

#include <chrono>
#include <cstdio>

namespace tarvo {
namespace cloud {

namespace {
constexpr const char* kLoopback = "127.0.0.1";
}

void LogRequests(httplib::Server& server, const std::string& name) {
    server.set_logger([name](const httplib::Request& req, const httplib::Response& res) {
        std::fprintf(stderr, "tarvo-cloud: %s %s %s -> %d\n", name.c_str(), req.method.c_str(),
                     req.target.c_str(), res.status);
    });
    server.set_exception_handler(
        [name](const httplib::Request& req, httplib::Response& res, std::exception_ptr ep) {
            std::string what = "unknown exception";
            try {
                if (ep) std::rethrow_exception(ep);
            } catch (const std::exception& e) {
                what = e.what();
            } catch (...) {
            }
            std::fprintf(stderr, "tarvo-cloud: %s %s %s failed: %s\n", name.c_str(), req.method.c_str(),
                         req.path.c_str(), what.c_str());
            res.status = 500;
            res.set_content("{\"error\":\"internal error\"}", "application/json");
        });
}

Listeners::~Listeners() { StopAll(); }

httplib::Server& Listeners::Add(const std::string& name, int port, std::unique_ptr<httplib::Server> server) {
    Entry entry;
    entry.name = name;
    entry.requested_port = port;
    entry.server = std::move(server);
    // httplib's default adds SO_REUSEPORT, which lets a second cloud share a port unnoticed.
    entry.server->set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
    // Headers and body go out in separate writes; with Nagle the body waits for the client's
    // delayed ACK (about 40 ms a request). Accepted sockets inherit the option on Linux.
    entry.server->set_tcp_nodelay(true);
    m_entries.push_back(std::move(entry));
    return *m_entries.back().server;
}

bool Listeners::BindAll(std::string* error) {
    for (auto& entry : m_entries) {
        if (entry.requested_port == 0) {
            entry.bound_port = entry.server->bind_to_any_port(kLoopback);
        } else if (entry.server->bind_to_port(kLoopback, entry.requested_port)) {
            entry.bound_port = entry.requested_port;
        }
        if (entry.bound_port <= 0) {
            *error = "cannot listen for " + entry.name + " on " + kLoopback + ":" +
                     std::to_string(entry.requested_port);
            return false;
        }
    }
    return true;
}

void Listeners::StartAll() {
    for (auto& entry : m_entries) {
        httplib::Server* server = entry.server.get();
        const std::string name = entry.name;
        entry.thread = std::thread([server, name] {
            if (!server->listen_after_bind()) {
                std::fprintf(stderr, "tarvo-cloud: the %s server stopped with an error\n", name.c_str());
            }
        });
    }
    // A stop that comes before a server runs would be lost, so wait until each one runs.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (auto& entry : m_entries) {
        while (!entry.server->is_running() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

void Listeners::StopAll() {
    for (auto& entry : m_entries) {
        if (entry.server) entry.server->stop();
    }
    for (auto& entry : m_entries) {
        if (entry.thread.joinable()) entry.thread.join();
    }
}

Json::Value Listeners::Ports() const {
    Json::Value ports(Json::objectValue);
    for (const auto& entry : m_entries) ports[entry.name] = entry.bound_port;
    return ports;
}

}  // namespace cloud
}  // namespace tarvo
