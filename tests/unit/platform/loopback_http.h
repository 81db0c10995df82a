// A cpp-httplib server on 127.0.0.1 and an ephemeral port, running on its own
// thread from Start() until destruction. Routes of a test are added before Start().
#pragma once

#include <httplib.h>

#include <gtest/gtest.h>

#include "tarvo_test.h"

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarvo {
namespace test {

class LoopbackHttp {
  public:
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

    // Keeps every GET, PUT and POST that no earlier route took and answers it with `answer`,
    // with status 500 on /fail.
    void Start() {
        auto record = [this](const httplib::Request& request, httplib::Response& response) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(request);
            response.status = request.path == "/fail" ? 500 : 200;
            response.set_content(answer, "text/plain");
        };
        server.Get(".*", record).Put(".*", record).Post(".*", record);
        m_port = server.bind_to_any_port("127.0.0.1");
        ASSERT_GT(m_port, 0);
        // The socket already listens, so requests queue until the thread accepts them.
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
    mutable std::mutex m_mutex;  // guards m_requests
    std::vector<httplib::Request> m_requests;
};

}  // namespace test
}  // namespace tarvo
