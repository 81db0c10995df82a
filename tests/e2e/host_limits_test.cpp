// The host serving the echo module under clients that misbehave: one that never reads, many
// at once, one that leaves a line unfinished. None of them holds up the others.
#include "host_client.h"
#include "process.h"
#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarvo {
namespace test {
namespace {

class HostLimits : public ::testing::Test {
  protected:
    void Start() {
        m_host = StartHost(m_root, TARVO_ECHO_MODULE_PATH);
        ASSERT_NE(m_host, nullptr);
        ASSERT_TRUE(m_client.Connect(DefaultSocket(m_root)));
    }

    TempRoot m_root;
    std::unique_ptr<ChildProcess> m_host;
    HostClient m_client;
};

// A raw client socket, for what HostClient does not do: connect without waiting, send a
// line without its end.
class RawClient {
  public:
    explicit RawClient(const std::string& path)
        : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        // A full listen backlog fails a non-blocking connect at once.
        m_connected =
            m_fd >= 0 && connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~RawClient() { close(m_fd); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool Connected() const { return m_connected; }
    void Send(const std::string& text) {
        for (size_t sent = 0; sent < text.size();) {
            pollfd pfd{m_fd, POLLOUT, 0};
            if (poll(&pfd, 1, 10000) <= 0) return;
            const ssize_t n = send(m_fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (n <= 0 && errno != EAGAIN && errno != EINTR) return;
            if (n > 0) sent += static_cast<size_t>(n);
        }
    }
    // The next line, or nullopt at the end of the stream or after 10 s.
    std::optional<std::string> ReadLine() {
        std::string line;
        char c = 0;
        while (true) {
            pollfd pfd{m_fd, POLLIN, 0};
            if (poll(&pfd, 1, 10000) <= 0 || read(m_fd, &c, 1) != 1) return std::nullopt;
            if (c == '\n') return line;
            line += c;
        }
    }

  private:
    const int m_fd;
    bool m_connected = false;
};

// Every frame the host sends until it closes the connection (bounded by `timeout`).
std::vector<Json::Value> ReadUntilClosed(HostClient& client, std::chrono::milliseconds timeout) {
    std::vector<Json::Value> frames;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto frame = client.ReadFrame(std::chrono::seconds(5));
        if (!frame) break;
        frames.push_back(*frame);
    }
    return frames;
}

TEST_F(HostLimits, ASubscriberThatNeverReadsHoldsUpNoCallerAndIsClosedWithAnError) {
    Start();
    HostClient stalled;
    ASSERT_TRUE(stalled.Connect(DefaultSocket(m_root)));
    ASSERT_TRUE(stalled.SendLine(R"({"id": 1, "subscribe": true})"));
    const auto subscribed = stalled.ReadFrame();
    ASSERT_TRUE(subscribed && (*subscribed)["ok"].asBool());

    // Each call notifies; the stalled subscriber reads none of it.
    Json::Value request(Json::objectValue);
    request["method"] = "notify";
    int answered = 0;
    for (int i = 0; i < 3000; ++i) {
        const auto answer = m_client.Call(request);
        if (!answer || !answer->isMember("reply")) break;
        ++answered;
    }
    EXPECT_EQ(answered, 3000);

    const auto frames = ReadUntilClosed(stalled, std::chrono::seconds(60));
    ASSERT_FALSE(frames.empty());
    EXPECT_TRUE(frames.back()["id"].isNull());
    EXPECT_NE(frames.back()["error"].asString().find("unread"), std::string::npos) << ToLine(frames.back());
    EXPECT_LT(frames.size(), 3000u);
    for (size_t i = 0; i + 1 < frames.size(); ++i) ASSERT_TRUE(frames[i].isMember("notification")) << i;
}

TEST_F(HostLimits, ABurstOfConnectsGetsThroughAndThoseBeyondTheLimitAreRefused) {
    Start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 200; ++i) {
        clients.push_back(std::make_unique<RawClient>(DefaultSocket(m_root)));
        ASSERT_TRUE(clients.back()->Connected()) << "connect " << i << ": " << std::strerror(errno);
    }
    int served = 0;
    int refused = 0;
    for (const auto& client : clients) {
        client->Send("{\"id\": 1, \"control\": \"ping\"}\n");
        const auto line = client->ReadLine();
        ASSERT_TRUE(line);
        const Json::Value frame = ParseLine(*line);
        if (frame["ok"].asBool()) ++served;
        if (frame["error"].isString()) ++refused;
    }
    clients.clear();
    EXPECT_EQ(served + refused, 200);
    EXPECT_LE(served, 64);
    EXPECT_GE(served, 60);

    // The slots come back once those clients have gone.
    EXPECT_TRUE(WaitUntil([&] {
        HostClient late;
        const auto pong = late.Connect(DefaultSocket(m_root)) ? late.Control("ping") : std::nullopt;
        return pong && (*pong)["ok"].asBool();
    }));
}

TEST_F(HostLimits, AnUnfinishedLineClosesItsConnectionWhileAnIdleOneStaysOpen) {
    setenv("TARVO_HOST_LINE_TIMEOUT_MS", "300", 1);
    Start();
    RawClient partial(DefaultSocket(m_root));
    ASSERT_TRUE(partial.Connected());
    partial.Send(R"({"id": 1, "call": {"method": ")" + std::string(512 * 1024, 'x'));

    const auto error = partial.ReadLine();
    ASSERT_TRUE(error);
    const Json::Value frame = ParseLine(*error);
    EXPECT_TRUE(frame["id"].isNull());
    EXPECT_NE(frame["error"].asString().find("unfinished"), std::string::npos) << *error;
    EXPECT_FALSE(partial.ReadLine());

    // m_client has been idle all along, with no line begun.
    const auto pong = m_client.Control("ping");
    ASSERT_TRUE(pong);
    EXPECT_TRUE((*pong)["ok"].asBool());
}

}  // namespace
}  // namespace test
}  // namespace tarvo
