// tarvoctl against a host serving the echo module, and its platform verbs against the
// emulated television: exit codes, output forms, vconf, network and root resolution.
#include "host_client.h"
#include "process.h"
#include "tarvo_test.h"

#include <vconf.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tarvo {
namespace test {
namespace {

class Tarvoctl : public ::testing::Test {
  protected:
    RunResult Ctl(const std::vector<std::string>& args, const std::map<std::string, std::string>& env = {}) {
        std::vector<std::string> argv = {TARVO_CTL_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgram(argv, env, m_root.Path() + "/ctl-" + std::to_string(m_runs++));
    }

    std::unique_ptr<ChildProcess> StartCtl(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {TARVO_CTL_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        return std::make_unique<ChildProcess>(argv, std::map<std::string, std::string>{},
                                              m_root.Path() + "/ctl-" + std::to_string(m_runs++));
    }

    static std::vector<std::string> Lines(const std::string& text) {
        std::vector<std::string> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    TempRoot m_root;
    int m_runs = 0;
};

class TarvoctlWithService : public Tarvoctl {
  protected:
    void SetUp() override {
        m_host = StartHost(m_root, TARVO_ECHO_MODULE_PATH);
        ASSERT_NE(m_host, nullptr);
    }

    std::unique_ptr<ChildProcess> m_host;
};

TEST_F(TarvoctlWithService, ExitCodesTellDoneRefusedAndUsage) {
    const auto done = Ctl({"call", R"({"method": "hello"})"});
    EXPECT_EQ(done.exit_code, 0) << done.err;
    EXPECT_EQ(ParseLine(done.out)["echo"]["method"], "hello");
    EXPECT_EQ(Ctl({"ping"}).exit_code, 0);

    const auto refused = Ctl({"call", R"({"method": "refuse"})"});
    EXPECT_EQ(refused.exit_code, 1);
    const auto thrown = Ctl({"call", R"({"method": "throw"})"});
    EXPECT_EQ(thrown.exit_code, 1);
    EXPECT_NE(thrown.err.find("echo module refuses to answer"), std::string::npos) << thrown.err;

    EXPECT_EQ(Ctl({}).exit_code, 2);
    EXPECT_EQ(Ctl({"reboot"}).exit_code, 2);
    EXPECT_EQ(Ctl({"call", "not json"}).exit_code, 2);
    EXPECT_EQ(Ctl({"call", "[1]"}).exit_code, 2);
    EXPECT_EQ(Ctl({"power", "off", "high"}).exit_code, 2);
    EXPECT_EQ(Ctl({"listen", "--count", "0"}).exit_code, 2);

    const auto help = Ctl({"vconf", "set", "--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find("--type int|string|bool|double"), std::string::npos) << help.out;
    EXPECT_EQ(Ctl({"--help"}).exit_code, 0);
}

TEST_F(TarvoctlWithService, JsonOutputIsOneParseableLinePerAnswer) {
    const auto reply = Ctl({"--json", "call", R"({"method": "hello", "list": [1, 2]})"});
    EXPECT_EQ(reply.exit_code, 0);
    ASSERT_EQ(Lines(reply.out).size(), 1u) << reply.out;
    EXPECT_EQ(ParseLine(reply.out)["echo"]["list"][1], 2);

    const auto empty = Ctl({"call", R"({"method": "empty"})", "--json"});
    EXPECT_EQ(empty.exit_code, 0);
    EXPECT_EQ(empty.out, "null\n");

    const auto thrown = Ctl({"--json", "call", R"({"method": "throw"})"});
    EXPECT_EQ(thrown.exit_code, 1);
    EXPECT_EQ(ParseLine(thrown.out)["error"], "echo module refuses to answer");

    const auto ping = Ctl({"--json", "ping"});
    EXPECT_EQ(ping.exit_code, 0);
    const Json::Value pong = ParseLine(ping.out);
    EXPECT_EQ(pong["ok"], true);
    EXPECT_EQ(pong["service"], "tarvodatacontrol");
    EXPECT_EQ(pong["socket"], DefaultSocket(m_root));
}

TEST_F(TarvoctlWithService, ListenPrintsNotificationsUntilItsCountOrItsTimeout) {
    auto listener = StartCtl({"listen", "--count", "2", "--timeout", "20"});
    ASSERT_TRUE(WaitUntil([&] { return listener->Stderr().find("listening on") != std::string::npos; }));

    HostClient client;
    ASSERT_TRUE(client.Connect(DefaultSocket(m_root)));
    Json::Value notify(Json::objectValue);
    notify["method"] = "notify";
    ASSERT_TRUE(client.Call(notify));
    ASSERT_TRUE(client.Call(notify));

    EXPECT_EQ(listener->Wait(std::chrono::seconds(10)), 0);
    const auto lines = Lines(listener->Stdout());
    ASSERT_EQ(lines.size(), 2u) << listener->Stdout();
    EXPECT_EQ(lines[0].rfind("echo_notified (success): ", 0), 0u) << lines[0];

    const auto quiet = Ctl({"listen", "--count", "1", "--timeout", "0.3"});
    EXPECT_EQ(quiet.exit_code, 1);
    EXPECT_NE(quiet.err.find("timed out"), std::string::npos) << quiet.err;
}

TEST_F(TarvoctlWithService, PowerVerbsReachTheModuleWithTheirState) {
    EXPECT_EQ(Ctl({"power", "off", "5"}).exit_code, 0);
    EXPECT_EQ(Ctl({"power", "wakeup"}).exit_code, 0);

    const auto log = Ctl({"--json", "call", R"({"method": "power-log"})"});
    ASSERT_EQ(log.exit_code, 0);
    const Json::Value entries = ParseLine(log.out)["log"];
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0], "power-off:5");
    EXPECT_EQ(entries[1], "wakeup:0");
}

// A host that answers every frame, one client at a time, with a reply of a shape no service gives.
class OddHost {
  public:
    explicit OddHost(const std::string& path) : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
        m_listening =
            bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 && listen(m_fd, 4) == 0;
        m_thread = std::thread([this] { Serve(); });
    }
    ~OddHost() {
        shutdown(m_fd, SHUT_RDWR);
        m_thread.join();
        close(m_fd);
    }
    bool Listening() const { return m_listening; }

  private:
    void Serve() {
        for (int client; (client = accept(m_fd, nullptr, nullptr)) >= 0; close(client)) {
            std::string pending;
            char buffer[4096];
            for (ssize_t n; (n = read(client, buffer, sizeof(buffer))) > 0;) {
                pending.append(buffer, static_cast<size_t>(n));
                for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
                    const std::string answer =
                        "{\"id\":" + ToLine(ParseLine(pending.substr(0, end))["id"]) + ",\"reply\":[1]}\n";
                    if (write(client, answer.data(), answer.size()) < 0) break;
                }
            }
        }
    }

    const int m_fd;
    bool m_listening = false;
    std::thread m_thread;
};

TEST_F(Tarvoctl, RepliesOfAnUnexpectedShapeEndInExitOneRatherThanACrash) {
    const std::string path = m_root.At("/odd.sock");
    OddHost host(path);
    ASSERT_TRUE(host.Listening());
    for (const std::vector<std::string>& verb : {std::vector<std::string>{"status"}, {"show", "tnc"}}) {
        std::vector<std::string> args = {"--socket", path};
        args.insert(args.end(), verb.begin(), verb.end());
        const auto result = Ctl(args);
        EXPECT_EQ(result.exit_code, 1) << verb[0];
        EXPECT_NE(result.err.find("unexpected answer from the service"), std::string::npos) << result.err;
    }
}

TEST_F(Tarvoctl, WithoutAHostServiceVerbsExitThreeNamingTheSocket) {
    const auto ping = Ctl({"ping"});
    EXPECT_EQ(ping.exit_code, 3);
    EXPECT_NE(ping.err.find("tarvoctl: no service is running at " + DefaultSocket(m_root) +
                            " (start it with scripts/run.sh)"),
              std::string::npos)
        << ping.err;

    const std::string elsewhere = m_root.At("/elsewhere.sock");
    const auto call = Ctl({"--socket", elsewhere, "call", "{}"});
    EXPECT_EQ(call.exit_code, 3);
    EXPECT_NE(call.err.find(elsewhere), std::string::npos) << call.err;
}

TEST_F(Tarvoctl, VconfValuesRoundTripWithTheirTypes) {
    EXPECT_EQ(Ctl({"vconf", "set", "db/test/number", "42"}).exit_code, 0);
    int number = 0;
    ASSERT_EQ(vconf_get_int("db/test/number", &number), 0);
    EXPECT_EQ(number, 42);
    const auto number_out = Ctl({"--json", "vconf", "get", "db/test/number"});
    EXPECT_EQ(number_out.exit_code, 0);
    EXPECT_EQ(ParseLine(number_out.out)["type"], "int");
    EXPECT_EQ(ParseLine(number_out.out)["value"], 42);

    EXPECT_EQ(Ctl({"vconf", "set", "db/test/text", "12 monkeys"}).exit_code, 0);
    const auto text_out = Ctl({"vconf", "get", "db/test/text"});
    EXPECT_EQ(text_out.out, "db/test/text = 12 monkeys (string)\n");

    EXPECT_EQ(Ctl({"vconf", "set", "db/test/forced", "7", "--type", "string"}).exit_code, 0);
    char* forced = vconf_get_str("db/test/forced");
    ASSERT_NE(forced, nullptr);
    EXPECT_STREQ(forced, "7");
    std::free(forced);

    EXPECT_EQ(Ctl({"vconf", "set", "memory/test/flag", "true", "--type", "bool"}).exit_code, 0);
    EXPECT_EQ(ParseLine(Ctl({"--json", "vconf", "get", "memory/test/flag"}).out)["value"], true);
    EXPECT_EQ(Ctl({"vconf", "set", "db/test/ratio", "2.5", "--type", "double"}).exit_code, 0);
    EXPECT_EQ(ParseLine(Ctl({"--json", "vconf", "get", "db/test/ratio"}).out)["value"], 2.5);

    EXPECT_EQ(Ctl({"vconf", "get", "db/test/never"}).exit_code, 1);
    EXPECT_EQ(Ctl({"vconf", "set", "db/test/bad", "x", "--type", "int"}).exit_code, 2);
}

TEST_F(Tarvoctl, VconfWatchPrintsEachChangeOfItsKeys) {
    auto watcher =
        StartCtl({"vconf", "watch", "memory/test/a", "memory/test/b", "--count", "2", "--timeout", "20"});
    ASSERT_TRUE(WaitUntil([&] { return watcher->Stderr().find("watching 2 key(s)") != std::string::npos; }));
    ASSERT_EQ(vconf_set_int("memory/test/b", 5), 0);
    ASSERT_TRUE(WaitUntil([&] { return watcher->Stdout().find("memory/test/b") != std::string::npos; }));
    ASSERT_EQ(vconf_set_str("memory/test/a", "on"), 0);
    EXPECT_EQ(watcher->Wait(std::chrono::seconds(10)), 0);
    const auto lines = Lines(watcher->Stdout());
    ASSERT_EQ(lines.size(), 2u) << watcher->Stdout();
    EXPECT_EQ(lines[0], "memory/test/b = 5 (int)");
    EXPECT_EQ(lines[1], "memory/test/a = on (string)");
}

TEST_F(Tarvoctl, NetworkVerbsEditTheProfileAndTheStatusKey) {
    int status = -1;
    EXPECT_EQ(Ctl({"network", "down"}).exit_code, 0);
    ASSERT_EQ(vconf_get_int("memory/dnet/status", &status), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(m_root.Profile()["network"]["up"], false);

    EXPECT_EQ(Ctl({"network", "up"}).exit_code, 0);
    ASSERT_EQ(vconf_get_int("memory/dnet/status", &status), 0);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(m_root.Profile()["network"]["up"], true);
    EXPECT_EQ(m_root.Profile()["network"]["profile"], "ethernet");

    EXPECT_EQ(Ctl({"network", "up", "wifi"}).exit_code, 0);
    ASSERT_EQ(vconf_get_int("memory/dnet/status", &status), 0);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(m_root.Profile()["network"]["profile"], "wifi");

    EXPECT_EQ(Ctl({"network", "up", "carrier-pigeon"}).exit_code, 2);
    EXPECT_EQ(m_root.Profile()["network"]["profile"], "wifi");
}

TEST_F(Tarvoctl, TheRootComesFromTheOptionTheEnvironmentOrTheStateFolder) {
    const std::string other = m_root.At("/other-root");
    EXPECT_EQ(Ctl({"--root", other, "vconf", "set", "db/test/where", "option"}).exit_code, 0);
    EXPECT_TRUE(WaitUntil([&] { return !ReadFile(other + "/var/vconf/db/test/where").empty(); }));

    EXPECT_EQ(Ctl({"vconf", "set", "db/test/where", "environment"}).exit_code, 0);
    EXPECT_NE(ReadFile(m_root.At("/var/vconf/db/test/where")).find("environment"), std::string::npos);

    const std::string state = m_root.At("/state");
    const auto fallback =
        Ctl({"vconf", "set", "db/test/where", "state"}, {{"TARVO_ROOT", ""}, {"XDG_STATE_HOME", state}});
    EXPECT_EQ(fallback.exit_code, 0) << fallback.err;
    EXPECT_NE(ReadFile(state + "/tarvo/root/var/vconf/db/test/where").find("state"), std::string::npos);
}

}  // namespace
}  // namespace test
}  // namespace tarvo
