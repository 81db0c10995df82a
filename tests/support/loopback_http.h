// A cpp-httplib server on 127.0.0.1 and an ephemeral port, running on its own thread from Start()
// until destruction; it keeps every request it answers.
#pragma once

#include <httplib.h>

#include <gtest/gtest.h>

#include "tarvo_test.h"

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarvo::test {

class LoopbackHttp {
  public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    LoopbackHttp() = default;
    ~LoopbackHttp() {
        server.stop();
        if (m_thread.joinable()) m_thread.join();
    }
    LoopbackHttp(const LoopbackHttp&) = delete;
    LoopbackHttp& operator=(const LoopbackHttp&) = delete;

    std::vector<httplib::Request> Requests() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

    // Answers from now on with `handler` instead of `answer`.
    void Answer(Handler handler) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_handler = std::move(handler);
    }

    // Answers every GET, PUT and POST with `answer` (status 500 on /fail) until Answer() is called.
    void Start() {
        auto record = [this](const httplib::Request& request, httplib::Response& response) {
            Handler handler;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_requests.push_back(request);
                handler = m_handler;
            }
            if (handler) return handler(request, response);
            response.status = request.path == "/fail" ? 500 : 200;
            response.set_content(answer, "text/plain");
        };
        server.Get(".*", record).Put(".*", record).Post(".*", record);
        m_port = server.bind_to_any_port("127.0.0.1");
        ASSERT_GT(m_port, 0);
        m_thread = std::thread([this] { server.listen_after_bind(); });
        // stop() only works on a running server, so the destructor needs it running.
        ASSERT_TRUE(WaitUntil([this] { return server.is_running(); }));
    }

    int Port() const { return m_port; }
    std::string Url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(m_port) + path;
    }

    httplib::Server server;
    std::string answer = "answer";  // set while no request is under way

  private:
    int m_port = 0;
    std::thread m_thread;
    mutable std::mutex m_mutex;  // guards m_requests, m_handler
    std::vector<httplib::Request> m_requests;
    Handler m_handler;
};

}  // namespace tarvo::test
