// A cpp-httplib server on 127.0.0.1 and an ephemeral port, running on its own
// thread from construction until destruction. Routes are added before Start().
#pragma once

#include <httplib.h>

#include <gtest/gtest.h>

#include "tarvo_test.h"

#include <string>
#include <thread>

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

    void Start() {
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

  private:
    int m_port = 0;
    std::thread m_thread;
};

}  // namespace test
}  // namespace tarvo
