// The host serving the echo module: the wire protocol, notifications, power controls, SIGTERM,
// misbehaving clients that hold up no other; start-up failures and the real service's file modes.
#include "host_client.h"
#include "process.h"
#include "tarvo_test.h"

#include <cstdlib>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace tarvo::test {
namespace {

constexpr size_t kNone = std::string::npos;

unsigned Mode(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

class Host : public ::testing::Test {
  protected:
    void SetUp() override {
        m_host = StartHost(m_root, TARVO_ECHO_MODULE_PATH);
        ASSERT_NE(m_host, nullptr);
        ASSERT_TRUE(m_client.Connect(DefaultSocket(m_root)));
    }

    // The frame that answers `line` on `client`; null when none comes.
    static Json::Value Answer(HostClient& client, const std::string& line) {
        EXPECT_TRUE(client.SendLine(line));
        const auto frame = client.ReadFrame();
        EXPECT_TRUE(frame) << "no answer to " << line.substr(0, 80);
        return frame ? *frame : Json::Value();
    }
    Json::Value Answer(const std::string& line) { return Answer(m_client, line); }

    TempRoot m_root;
    std::unique_ptr<ChildProcess> m_host;
    HostClient m_client;
};

TEST_F(Host, CallsAreAnsweredWithTheirIdAndAThrowingCallOrAnotherModulesTypeGetsAnError) {
    const Json::Value hello = Answer(R"({"id": 1, "call": {"method": "hello", "count": 3}})");
    EXPECT_EQ(hello["id"], 1);
    EXPECT_EQ(hello["reply"]["echo"], ParseLine(R"({"method": "hello", "count": 3})"));
    EXPECT_EQ(hello["reply"]["type"], "tarvodatacontrol");
    const Json::Value empty = Answer(R"({"id": 2, "call": {"method": "empty"}})");
    EXPECT_TRUE(empty.isMember("reply") && empty["reply"].isNull()) << ToLine(empty);
    EXPECT_EQ(Answer(R"({"id": "t", "call": {"method": "typed"}, "type": "other"})")["reply"]["type"],
              "other");

    const Json::Value failed = Answer(R"({"id": 3, "call": {"method": "throw"}})");
    EXPECT_EQ(failed["id"], 3);
    EXPECT_FALSE(failed.isMember("reply"));
    EXPECT_EQ(Answer(R"({"id": 4, "call": {"method": "after"}})")["reply"]["echo"]["method"], "after");

    // The service reads no 64-bit or real numbers and indexes no list itself; another module may.
    const std::pair<const char*, const char*> calls[] = {
        {R"({"id": 1, "call": {"method": "read", "as": "int64", "value": 1e30}})",
         R"(member "value" must be a number from -9223372036854775808 to 9223372036854775807, got 1e+30)"},
        {R"({"id": 2, "call": {"method": "read", "as": "uint64", "value": -1}})",
         R"(member "value" must be a number from 0 to 18446744073709551615, got -1)"},
        {R"({"id": 3, "call": {"method": "read", "as": "double", "value": "2.5"}})",
         R"(member "value" must be a number, got a string)"},
        {R"({"id": 4, "call": {"method": "read", "as": "array", "value": {"key": 1}}})",
         R"(member "value" must be an array, got an object)"},
    };
    for (const auto& [line, error] : calls) EXPECT_EQ(Answer(line)["error"], error) << line;
    EXPECT_EQ(Answer(R"({"id": 6, "call": {"method": "read", "as": "int64", "value": 12}})")["reply"]["read"],
              12);
}

TEST_F(Host, BadFramesGetErrorsNamingTheMemberAndItsTypeAndTheConnectionStaysOpen) {
    // A call line of `size` bytes in all.
    auto sized = [](int id, size_t size) {
        std::string line = R"({"id": )" + std::to_string(id) + R"(, "call": {"method": ")";
        return line + std::string(size - line.size() - 3, 'x') + R"("}})";
    };
    struct Bad {
        std::string line;
        Json::Value id;
        std::string error;  // the whole error, or a part of it when `part`
        bool part = false;
    };
    const Bad bad[] = {
        {"this is no json", Json::Value(), "", true},
        {"[1, 2, 3]", Json::Value(), "the frame must be a JSON object, got an array"},
        {R"({"id": 7, "call": {"method": "x"})", Json::Value(), "", true},
        {R"({"id": 8, "unknown": true})", 8, "", true},
        {R"({"id": 9, "call": "not an object"})", 9, R"(member "call" must be an object, got a string)"},
        {R"({"id": 10, "control": "reboot"})", 10, "", true},
        {R"({"id": 12, "subscribe": false})", 12, R"(member "subscribe" must be true, got false)"},
        {R"({"id": 4, "call": {}, "type": 7})", 4, R"(member "type" must be a string, got 7)"},
        {R"({"id": 4, "control": "wakeup", "state": "7"})", 4,
         R"(member "state" must be a whole number from -2147483648 to 2147483647, got a string)"},
        {sized(13, 1024 * 1024 + 1), Json::Value(), "", true},
        // Not UTF-8: overlong, a surrogate, cut short, in a comment JsonCpp skips, an escaped
        // lone surrogate.
        {"{\"id\": \"\xc0\xaf\", \"call\": {}}", Json::Value(), "the line is not valid UTF-8"},
        {"{\"id\": \"\xed\xa0\x80\", \"call\": {}}", Json::Value(), "the line is not valid UTF-8"},
        {"{\"id\": \"\xe2\x82\", \"call\": {}}", Json::Value(), "the line is not valid UTF-8"},
        {"{\"id\": 15, /* \xff */ \"call\": {}}", Json::Value(), "the line is not valid UTF-8"},
        {R"({"id": "\udc00", "call": {}})", Json::Value(), "UTF-8", true},
        {R"({"id": 16, "call": )" + std::string(2000, '[') + std::string(2000, ']') + "}", Json::Value(),
         "the line is not JSON the host reads: it nests too deeply"},
    };
    for (const Bad& b : bad) {
        const Json::Value answer = Answer(b.line);
        EXPECT_EQ(answer["id"], b.id) << b.line.substr(0, 80);
        EXPECT_TRUE(answer["error"].isString()) << b.line.substr(0, 80);
        const std::string error = answer["error"].asString();
        EXPECT_TRUE(b.part ? error.find(b.error) != kNone : error == b.error)
            << b.line.substr(0, 80) << error;
    }

    // A line of just the limit is still a frame, and characters outside ASCII are echoed whole.
    EXPECT_EQ(Answer(sized(14, 1024 * 1024))["reply"]["echo"]["method"].asString().size(),
              1024u * 1024u - 34u);
    EXPECT_EQ(Answer("{\"id\": \"caf\xc3\xa9 \xf0\x9f\x93\xba\", \"control\": \"ping\"}")["id"],
              "caf\xc3\xa9 \xf0\x9f\x93\xba");
}

TEST_F(Host, NotificationsReachSubscribersOnlyPowerControlsTheModuleAndSigtermEndsItCleanly) {
    HostClient listener;
    ASSERT_TRUE(listener.Connect(DefaultSocket(m_root)));
    EXPECT_EQ(Answer(listener, R"({"id": 5, "subscribe": true})")["ok"], true);
    EXPECT_EQ(Answer(R"({"id": 1, "call": {"method": "notify"}})")["reply"]["echo"]["method"], "notify");
    const auto notification = listener.ReadFrame();
    ASSERT_TRUE(notification);
    EXPECT_EQ((*notification)["type"], "tarvodatacontrol");
    EXPECT_EQ((*notification)["notification"]["name"], "echo_notified");
    EXPECT_FALSE(notification->isMember("id"));
    // The caller did not subscribe: nothing more comes to it.
    EXPECT_FALSE(m_client.ReadFrame(std::chrono::milliseconds(300)));

    // A subscriber that calls gets its reply and the notification as separate frames.
    const Json::Value own = Answer(listener, R"({"id": 6, "call": {"method": "notify"}})");
    const auto second = listener.ReadFrame();
    ASSERT_TRUE(second);
    EXPECT_TRUE(own.isMember("reply") ? second->isMember("notification") : (*second)["reply"].isObject());

    // Power controls reach the module in order with their state; without a state, the state is 0.
    EXPECT_EQ(Answer(R"({"id": 1, "control": "power-off"})")["ok"], true);
    ASSERT_TRUE(m_client.Control("wakeup", 7));
    EXPECT_EQ(m_client.Control("power-off", 1 << 30).value_or(Json::Value())["ok"], true);
    EXPECT_EQ(Answer(R"({"id": 2, "call": {"method": "power-log"}})")["reply"]["log"],
              ParseLine(R"(["power-off:0", "wakeup:7", "power-off:1073741824"])"));

    EXPECT_EQ(Mode(DefaultSocket(m_root)), 0600u);
    ASSERT_TRUE(m_host->Signal(SIGTERM));
    EXPECT_EQ(m_host->Wait(std::chrono::seconds(10)), 0);
    EXPECT_FALSE(std::filesystem::exists(DefaultSocket(m_root)));
    EXPECT_FALSE(m_client.ReadFrame(std::chrono::milliseconds(500)));
}

TEST_F(Host, ASubscriberThatNeverReadsHoldsUpNoCallerAndIsClosedWithAnError) {
    HostClient stalled;
    ASSERT_TRUE(stalled.Connect(DefaultSocket(m_root)));
    ASSERT_TRUE(Answer(stalled, R"({"id": 1, "subscribe": true})")["ok"].asBool());

    // Each call notifies; the stalled subscriber reads none of it.
    for (int i = 0; i < 3000; ++i) {
        const auto answer = m_client.Call(ParseLine(R"({"method": "notify"})"));
        ASSERT_TRUE(answer && answer->isMember("reply")) << i;
    }

    std::vector<Json::Value> frames;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        const auto frame = stalled.ReadFrame(std::chrono::seconds(5));
        if (!frame) break;
        frames.push_back(*frame);
    }
    ASSERT_FALSE(frames.empty());
    EXPECT_TRUE(frames.back()["id"].isNull());
    EXPECT_NE(frames.back()["error"].asString().find("unread"), kNone) << ToLine(frames.back());
    EXPECT_LT(frames.size(), 3000u);
    for (size_t i = 0; i + 1 < frames.size(); ++i) ASSERT_TRUE(frames[i].isMember("notification")) << i;
}

TEST_F(Host, SilentConnectionsLockOutNoCallerAndNoSubscriberAndSubscribersLeaveRoomForCallers) {
    HostClient subscriber;
    ASSERT_TRUE(subscriber.Connect(DefaultSocket(m_root)));
    ASSERT_TRUE(Answer(subscriber, R"({"id": 1, "subscribe": true})")["ok"].asBool());
    HostClient half_line;
    ASSERT_TRUE(half_line.Connect(DefaultSocket(m_root)));
    ASSERT_TRUE(half_line.SendText(R"({"id": 2, "control": )"));

    // More silent connections than the host takes, all open at once.
    std::vector<std::unique_ptr<HostClient>> silent;
    for (int i = 0; i < 80; ++i) {
        silent.push_back(std::make_unique<HostClient>());
        ASSERT_TRUE(silent.back()->Connect(DefaultSocket(m_root))) << "connect " << i;
    }
    for (int round = 0; round < 3; ++round) {
        HostClient caller;
        ASSERT_TRUE(caller.Connect(DefaultSocket(m_root)));
        const auto answer = caller.Call(ParseLine(R"({"method": "notify"})"));
        ASSERT_TRUE(answer) << round;
        EXPECT_EQ((*answer)["reply"]["echo"]["method"], "notify") << ToLine(*answer);
        // The subscriber stayed and hears of the call.
        const auto notification = subscriber.ReadFrame();
        ASSERT_TRUE(notification) << round;
        EXPECT_EQ((*notification)["notification"]["name"], "echo_notified");
    }
    // The connection in the middle of a line was kept too, and finishes it.
    ASSERT_TRUE(half_line.SendLine(R"("ping"})"));
    const auto pong = half_line.ReadFrame();
    ASSERT_TRUE(pong);
    EXPECT_EQ((*pong)["ok"], true) << ToLine(*pong);
    silent.clear();

    // Subscribers fill at most 56 of the 64 connections; a caller still gets through.
    std::vector<std::unique_ptr<HostClient>> listeners;
    int refused = 0;
    for (int i = 0; i < 60; ++i) {
        listeners.push_back(std::make_unique<HostClient>());
        ASSERT_TRUE(listeners.back()->Connect(DefaultSocket(m_root)));
        const Json::Value answer = Answer(*listeners.back(), R"({"id": 3, "subscribe": true})");
        if (answer["error"].asString().find("subscribers") != kNone) ++refused;
    }
    // The first subscriber holds one place of the 56.
    EXPECT_EQ(refused, 5);
    HostClient caller;
    ASSERT_TRUE(caller.Connect(DefaultSocket(m_root)));
    EXPECT_EQ(caller.Control("ping").value_or(Json::Value())["ok"], true);
}

TEST_F(Host, AReplyLongerThanTheLongestRequestLineReachesTarvoctlWhole) {
    constexpr unsigned kBytes = 3 * 1024 * 1024;
    const auto run = RunProgram({TARVO_CTL_BIN, "--socket", DefaultSocket(m_root), "--json", "call",
                                 R"({"method": "sized", "bytes": )" + std::to_string(kBytes) + "}"},
                                {}, m_root.Path() + "/ctl");
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(ParseLine(run.out)["text"].asString().size(), kBytes);
}

class HostStartUp : public ::testing::Test {
  protected:
    RunResult RunHost(const std::vector<std::string>& args,
                      const std::map<std::string, std::string>& env = {}) {
        std::vector<std::string> argv = {TARVO_HOST_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgram(argv, env, m_root.Path() + "/host-run");
    }

    TempRoot m_root;
};

TEST_F(HostStartUp, AMissingModuleOrSymbolEndsTheHostAndASocketIsPrivateAndReplacedWhenStale) {
    const auto missing = RunHost({"--module", m_root.At("/no/such/module.so"), "--root", m_root.Path()});
    EXPECT_NE(missing.exit_code.value_or(0), 0);
    EXPECT_NE(missing.err.find("cannot load module"), kNone) << missing.err;

    const auto broken = RunHost({"--module", TARVO_BROKEN_MODULE_PATH, "--root", m_root.Path()});
    EXPECT_NE(broken.exit_code.value_or(0), 0);
    EXPECT_NE(broken.err.find("g_service"), kNone) << broken.err;
    EXPECT_FALSE(std::filesystem::exists(DefaultSocket(m_root)));

    // Usage errors name their cause before the usage text; --help is no error.
    const std::string module = TARVO_ECHO_MODULE_PATH;
    const std::tuple<std::vector<std::string>, std::string, int, std::string> usage[] = {
        {{"--root", m_root.Path()}, "", 2, "--module is required"},
        {{"--module", module, "--verbose"}, "", 2, "unknown argument \"--verbose\""},
        {{"--module", module, "--socket"}, "", 2, "--socket needs a value"},
        {{"--module", module, "--root", m_root.Path()},
         "10ms",
         1,
         "TARVO_HOST_LINE_TIMEOUT_MS must be a positive number of milliseconds, got \"10ms\""},
        {{"--module", module, "--root", m_root.Path()}, "0", 1, "got \"0\""},
        {{"--module", module, "--help"}, "", 0, "usage: tarvo-service-host --module PATH"},
    };
    for (const auto& [args, timeout, code, words] : usage) {
        const auto run = RunHost(args, {{"TARVO_HOST_LINE_TIMEOUT_MS", timeout}});
        EXPECT_EQ(run.exit_code, code) << words;
        EXPECT_NE((code == 0 ? run.out : run.err).find(words), kNone) << run.out << run.err;
    }
    EXPECT_FALSE(std::filesystem::exists(DefaultSocket(m_root)));

    // A socket in a new folder gets a private folder, and a stale socket is replaced.
    const std::string socket = m_root.At("/private/sockets/host.sock");
    {
        auto host = StartHost(m_root, TARVO_ECHO_MODULE_PATH, socket);
        ASSERT_NE(host, nullptr);
        EXPECT_EQ(Mode(m_root.At("/private/sockets")), 0700u);
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
    EXPECT_NE(second.err.find("already serving"), kNone) << second.err;

    // A socket path it cannot serve on ends the host with its reason.
    WriteFile(m_root.At("/a-file"), "not a folder");
    const std::pair<std::string, std::string> bad[] = {
        {m_root.At("/a-file/host.sock"), "is not a folder"},
        {m_root.At("/" + std::string(120, 's') + ".sock"), "is empty or longer than 107 bytes"},
        {m_root.At("/a-file"), "exists and is not a socket"},
    };
    for (const auto& [socket, reason] : bad) {
        const auto run =
            RunHost({"--module", TARVO_ECHO_MODULE_PATH, "--root", m_root.Path(), "--socket", socket});
        EXPECT_NE(run.exit_code.value_or(0), 0) << socket;
        EXPECT_NE(run.err.find(reason), kNone) << run.err;
    }
    EXPECT_EQ(ReadFile(m_root.At("/a-file")), "not a folder");
}

TEST_F(HostStartUp, TheRealServicesStoreRunAndLogArePrivateWhileKeysStayReadable) {
    m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = false; });
    // A log that this process made would carry this process's umask, not the host's.
    std::filesystem::remove(m_root.At("/var/log/tarvo.log"));
    const auto host = StartHost(m_root, TARVO_MODULE_PATH);
    ASSERT_NE(host, nullptr);
    const std::string store = m_root.At("/opt/usr/apps/org.mirlo.tarvodatacontrol-service/data/data.db");
    const std::string key = m_root.At("/var/vconf/db/tarvodatacontrol/data_db_reset");
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(store) && std::filesystem::exists(key); }));
    EXPECT_EQ(Mode(store), 0600u);
    // The test's root made it 0755 before the host started.
    EXPECT_EQ(Mode(m_root.At("/run")), 0700u);
    EXPECT_EQ(Mode(key), 0644u);
    EXPECT_EQ(Mode(m_root.At("/var/vconf/db/tarvodatacontrol")), 0755u);
    EXPECT_EQ(Mode(m_root.At("/var/log/tarvo.log")), 0600u);
}

class HostWithLineTimeout : public Host {
  protected:
    void SetUp() override {
        setenv("TARVO_HOST_LINE_TIMEOUT_MS", "300", 1);
        Host::SetUp();
    }
};

TEST_F(HostWithLineTimeout, AnUnfinishedLineClosesItsConnectionWhileAnIdleOneStaysOpen) {
    HostClient partial;
    ASSERT_TRUE(partial.Connect(DefaultSocket(m_root)));
    partial.SendText(R"({"id": 1, "call": {"method": ")" + std::string(512 * 1024, 'x'));
    const auto error = partial.ReadFrame();
    ASSERT_TRUE(error);
    EXPECT_TRUE((*error)["id"].isNull());
    EXPECT_NE((*error)["error"].asString().find("unfinished"), kNone) << ToLine(*error);
    EXPECT_FALSE(partial.ReadFrame());
    // m_client has been idle all along, with no line begun.
    EXPECT_EQ(Answer(R"({"id": 2, "control": "ping"})")["ok"], true);
}

}  // namespace
}  // namespace tarvo::test
