// The host serving the echo module: the wire protocol, notifications, power controls,
// start-up failures and its end on SIGTERM.
#include "host_client.h"
#include "process.h"
#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>

namespace tarvo {
namespace test {
namespace {

Json::Value Request(const std::string& method) {
    Json::Value request(Json::objectValue);
    request["method"] = method;
    return request;
}

class HostProtocol : public ::testing::Test {
  protected:
    void SetUp() override {
        m_host = StartHost(m_root, TARVO_ECHO_MODULE_PATH);
        ASSERT_NE(m_host, nullptr);
        ASSERT_TRUE(m_client.Connect(DefaultSocket(m_root)));
    }

    TempRoot m_root;
    std::unique_ptr<ChildProcess> m_host;
    HostClient m_client;
};

TEST_F(HostProtocol, CallsAreAnsweredWithTheirIdAndAThrowingCallGetsAnError) {
    Json::Value request = Request("hello");
    request["count"] = 3;
    const auto answer = m_client.Call(request);
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)["id"], 1);
    EXPECT_EQ((*answer)["reply"]["echo"], request);
    EXPECT_EQ((*answer)["reply"]["type"], "tarvodatacontrol");

    const auto empty = m_client.Call(Request("empty"));
    ASSERT_TRUE(empty);
    EXPECT_EQ((*empty)["id"], 2);
    ASSERT_TRUE(empty->isMember("reply"));
    EXPECT_TRUE((*empty)["reply"].isNull());

    ASSERT_TRUE(m_client.SendLine(R"({"id": "text-id", "call": {"method": "typed"}, "type": "other"})"));
    const auto typed_answer = m_client.ReadFrame();
    ASSERT_TRUE(typed_answer);
    EXPECT_EQ((*typed_answer)["id"], "text-id");
    EXPECT_EQ((*typed_answer)["reply"]["type"], "other");

    const auto failed = m_client.Call(Request("throw"));
    ASSERT_TRUE(failed);
    EXPECT_EQ((*failed)["id"], 3);
    EXPECT_EQ((*failed)["error"], "echo module refuses to answer");
    EXPECT_FALSE(failed->isMember("reply"));

    const auto next = m_client.Call(Request("after"));
    ASSERT_TRUE(next);
    EXPECT_EQ((*next)["reply"]["echo"]["method"], "after");
    EXPECT_TRUE(WaitUntil([&] {
        return ReadFile(m_root.At("/var/log/tarvo.log")).find("echo module refuses") != std::string::npos;
    }));
}

TEST_F(HostProtocol, MalformedLinesGetErrorFramesAndTheConnectionStaysOpen) {
    // A call line of `size` bytes in all.
    auto sized = [](int id, size_t size) {
        std::string line = R"({"id": )" + std::to_string(id) + R"(, "call": {"method": ")";
        return line + std::string(size - line.size() - 3, 'x') + R"("}})";
    };
    const std::pair<std::string, Json::Value> cases[] = {
        {"this is no json", Json::Value()},
        {"[1, 2, 3]", Json::Value()},
        {R"({"id": 7, "call": {"method": "x"})", Json::Value()},
        {R"({"id": 8, "unknown": true})", 8},
        {R"({"id": 9, "call": "not an object"})", 9},
        {R"({"id": 10, "control": "reboot"})", 10},
        {R"({"id": 11, "control": "power-off", "state": "high"})", 11},
        {R"({"id": 12, "subscribe": false})", 12},
        {sized(13, 1024 * 1024 + 1), Json::Value()},
    };
    for (const auto& [line, id] : cases) {
        ASSERT_TRUE(m_client.SendLine(line));
        const auto answer = m_client.ReadFrame();
        ASSERT_TRUE(answer) << line.substr(0, 80);
        EXPECT_EQ((*answer)["id"], id) << line.substr(0, 80);
        EXPECT_TRUE((*answer)["error"].isString()) << line.substr(0, 80);
    }

    // A line of just the limit is still a frame.
    ASSERT_TRUE(m_client.SendLine(sized(14, 1024 * 1024)));
    const auto big = m_client.ReadFrame();
    ASSERT_TRUE(big);
    EXPECT_EQ((*big)["reply"]["echo"]["method"].asString().size(), 1024u * 1024u - 34u);

    const auto after = m_client.Call(Request("still-open"));
    ASSERT_TRUE(after);
    EXPECT_EQ((*after)["reply"]["echo"]["method"], "still-open");
}

TEST_F(HostProtocol, FramesThatAreNotUtf8AreRefusedAndErrorsNameTheMemberAndItsType) {
    const std::string bad_ids[] = {"\xff",     "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                                   "\xe2\x82", "\\udc00"};
    for (const auto& id : bad_ids) {
        ASSERT_TRUE(m_client.SendLine(R"({"id": ")" + id + R"(", "call": {"method": "x"}})"));
        const auto answer = m_client.ReadFrame();
        ASSERT_TRUE(answer);
        EXPECT_TRUE((*answer)["id"].isNull()) << ToLine(*answer);
        EXPECT_NE((*answer)["error"].asString().find("UTF-8"), std::string::npos) << ToLine(*answer);
    }
    // Characters outside ASCII are echoed whole.
    ASSERT_TRUE(m_client.SendLine("{\"id\": \"caf\xc3\xa9 \xf0\x9f\x93\xba\", \"control\": \"ping\"}"));
    const auto wide = m_client.ReadFrame();
    ASSERT_TRUE(wide);
    EXPECT_EQ((*wide)["id"], "caf\xc3\xa9 \xf0\x9f\x93\xba");

    const std::pair<std::string, std::string> cases[] = {
        {R"({"id": 4, "call": "hello"})", R"(member "call" must be an object, got a string)"},
        {R"({"id": 4, "call": {}, "type": 7})", R"(member "type" must be a string, got 7)"},
        {R"({"id": 4, "subscribe": false})", R"(member "subscribe" must be true, got false)"},
        {R"({"id": 4, "control": ["ping"]})", R"(member "control" must be a string, got an array)"},
        {R"({"id": 4, "control": "wakeup", "state": "7"})",
         R"(member "state" must be a whole number from -2147483648 to 2147483647, got a string)"},
        {R"([4])", "the frame must be a JSON object, got an array"},
    };
    for (const auto& [line, error] : cases) {
        ASSERT_TRUE(m_client.SendLine(line));
        const auto answer = m_client.ReadFrame();
        ASSERT_TRUE(answer);
        EXPECT_EQ((*answer)["error"], error) << line;
    }
}

TEST_F(HostProtocol, NotificationsReachSubscribersOnly) {
    HostClient listener;
    ASSERT_TRUE(listener.Connect(DefaultSocket(m_root)));
    ASSERT_TRUE(listener.SendLine(R"({"id": 5, "subscribe": true})"));
    const auto ok = listener.ReadFrame();
    ASSERT_TRUE(ok);
    EXPECT_EQ((*ok)["id"], 5);
    EXPECT_EQ((*ok)["ok"], true);

    const auto reply = m_client.Call(Request("notify"));
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->isMember("notification"));
    EXPECT_EQ((*reply)["reply"]["echo"]["method"], "notify");

    const auto notification = listener.ReadFrame();
    ASSERT_TRUE(notification);
    EXPECT_EQ((*notification)["type"], "tarvodatacontrol");
    EXPECT_EQ((*notification)["notification"]["name"], "echo_notified");
    EXPECT_FALSE(notification->isMember("id"));

    // The caller did not subscribe: nothing more comes to it.
    EXPECT_FALSE(m_client.ReadFrame(std::chrono::milliseconds(300)));

    // A subscriber that calls gets its reply and the notification as separate frames.
    const auto own = listener.Call(Request("notify"));
    ASSERT_TRUE(own);
    const auto second = listener.ReadFrame();
    ASSERT_TRUE(second);
    const bool reply_first = own->isMember("reply");
    EXPECT_TRUE(reply_first ? second->isMember("notification") : (*second)["reply"].isObject());
}

TEST_F(HostProtocol, PowerControlsReachTheModuleInOrderWithTheirState) {
    // Without a state, the state is 0.
    ASSERT_TRUE(m_client.SendLine(R"({"id": 1, "control": "power-off"})"));
    const auto first = m_client.ReadFrame();
    ASSERT_TRUE(first);
    EXPECT_EQ((*first)["ok"], true);

    ASSERT_TRUE(m_client.Control("wakeup", 7));
    const auto last = m_client.Control("power-off", 1 << 30);
    ASSERT_TRUE(last);
    EXPECT_EQ((*last)["ok"], true);

    const auto log = m_client.Call(Request("power-log"));
    ASSERT_TRUE(log);
    const Json::Value& entries = (*log)["reply"]["log"];
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0], "power-off:0");
    EXPECT_EQ(entries[1], "wakeup:7");
    EXPECT_EQ(entries[2], "power-off:" + std::to_string(1 << 30));
}

TEST_F(HostProtocol, SigtermEndsTheHostCleanlyAndRemovesItsSocket) {
    struct stat st {};
    ASSERT_EQ(stat(DefaultSocket(m_root).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_NE(
        m_host->Stderr().find("tarvo-service-host: serving tarvodatacontrol on " + DefaultSocket(m_root)),
        std::string::npos);

    ASSERT_TRUE(m_host->Signal(SIGTERM));
    const auto code = m_host->Wait(std::chrono::seconds(10));
    ASSERT_TRUE(code);
    EXPECT_EQ(*code, 0);
    EXPECT_FALSE(std::filesystem::exists(DefaultSocket(m_root)));
    EXPECT_FALSE(m_client.ReadFrame(std::chrono::milliseconds(500)));
}

class HostStartUp : public ::testing::Test {
  protected:
    RunResult RunHost(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {TARVO_HOST_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgram(argv, {}, m_root.Path() + "/host-run");
    }

    TempRoot m_root;
};

TEST_F(HostStartUp, AMissingModuleOrSymbolEndsTheHostAndASocketIsPrivateAndReplacedWhenStale) {
    const auto missing = RunHost({"--module", m_root.At("/no/such/module.so"), "--root", m_root.Path()});
    EXPECT_NE(missing.exit_code.value_or(0), 0);
    EXPECT_NE(missing.err.find("cannot load module"), std::string::npos) << missing.err;

    const auto broken = RunHost({"--module", TARVO_BROKEN_MODULE_PATH, "--root", m_root.Path()});
    EXPECT_NE(broken.exit_code.value_or(0), 0);
    EXPECT_NE(broken.err.find("g_service"), std::string::npos) << broken.err;
    EXPECT_FALSE(std::filesystem::exists(DefaultSocket(m_root)));

    const auto usage = RunHost({"--root", m_root.Path()});
    EXPECT_EQ(usage.exit_code, 2);

    // A socket in a new folder gets a private folder, and a stale socket is replaced.
    const std::string socket = m_root.At("/private/sockets/host.sock");
    {
        auto host = StartHost(m_root, TARVO_ECHO_MODULE_PATH, socket);
        ASSERT_NE(host, nullptr);
        struct stat st {};
        ASSERT_EQ(stat(m_root.At("/private/sockets").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0700u);
        // Killed without a chance to clean up, it leaves its socket behind.
        ASSERT_TRUE(host->Signal(SIGKILL));
        ASSERT_TRUE(host->Wait(std::chrono::seconds(10)));
        ASSERT_TRUE(std::filesystem::exists(socket));
    }
    auto again = StartHost(m_root, TARVO_ECHO_MODULE_PATH, socket);
    ASSERT_NE(again, nullptr);

    // A second host on a live socket refuses to start.
    const auto second =
        RunHost({"--module", TARVO_ECHO_MODULE_PATH, "--root", m_root.Path(), "--socket", socket});
    EXPECT_NE(second.exit_code.value_or(0), 0);
    EXPECT_NE(second.err.find("already serving"), std::string::npos) << second.err;
}

}  // namespace
}  // namespace test
}  // namespace tarvo
