// tarvoctl against a host serving the echo module, and its platform verbs against the
// emulated television: exit codes, output forms, vconf, network and root resolution.
#include "seeded_service.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>
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

TEST_F(TarvoctlWithService, ExitCodesTellDoneRefusedAndUsageAndJsonIsOneLinePerAnswer) {
    const auto done = Ctl({"--json", "call", R"({"method": "hello", "list": [1, 2]})"});
    EXPECT_EQ(done.exit_code, 0) << done.err;
    ASSERT_EQ(Lines(done.out).size(), 1u) << done.out;
    EXPECT_EQ(ParseLine(done.out)["echo"]["list"][1], 2);
    EXPECT_EQ(Ctl({"call", R"({"method": "refuse"})"}).exit_code, 1);
    const auto thrown = Ctl({"call", R"({"method": "throw"})"});
    EXPECT_EQ(thrown.exit_code, 1);
    EXPECT_NE(thrown.err.find("echo module refuses to answer"), std::string::npos) << thrown.err;
    EXPECT_EQ(ParseLine(Ctl({"--json", "call", R"({"method": "throw"})"}).out)["error"],
              "echo module refuses to answer");

    const auto ping = Ctl({"--json", "ping"});
    EXPECT_EQ(ping.exit_code, 0);
    EXPECT_EQ(ParseLine(ping.out)["service"], "tarvodatacontrol");
    EXPECT_EQ(ParseLine(ping.out)["socket"], DefaultSocket(m_root));

    for (const std::vector<std::string>& usage :
         std::vector<std::vector<std::string>>{{},
                                               {"reboot"},
                                               {"call", "not json"},
                                               {"call", "[1]"},
                                               {"power", "off", "high"},
                                               {"listen", "--count", "0"}}) {
        EXPECT_EQ(Ctl(usage).exit_code, 2) << (usage.empty() ? "" : usage[0]);
    }
    const auto help = Ctl({"vconf", "set", "--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find("--type int|string|bool|double"), std::string::npos) << help.out;
    EXPECT_EQ(Ctl({"--help"}).exit_code, 0);
}

TEST_F(TarvoctlWithService, ListenPrintsNotificationsAndPowerVerbsReachTheModule) {
    auto listener = StartCtl({"listen", "--count", "2", "--timeout", "20"});
    ASSERT_TRUE(WaitUntil([&] { return listener->Stderr().find("listening on") != std::string::npos; }));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Ctl({"call", R"({"method": "notify"})"}).exit_code, 0);
    EXPECT_EQ(listener->Wait(std::chrono::seconds(10)), 0);
    const auto lines = Lines(listener->Stdout());
    ASSERT_EQ(lines.size(), 2u) << listener->Stdout();
    EXPECT_EQ(lines[0].rfind("echo_notified (success): ", 0), 0u) << lines[0];
    const auto quiet = Ctl({"listen", "--count", "1", "--timeout", "0.3"});
    EXPECT_EQ(quiet.exit_code, 1);
    EXPECT_NE(quiet.err.find("timed out"), std::string::npos) << quiet.err;

    EXPECT_EQ(Ctl({"power", "off", "5"}).exit_code, 0);
    EXPECT_EQ(Ctl({"power", "wakeup"}).exit_code, 0);
    const Json::Value entries = ParseLine(Ctl({"--json", "call", R"({"method": "power-log"})"}).out)["log"];
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

TEST_F(Tarvoctl, WithoutAServiceVerbsExitThreeAndOddRepliesExitOne) {
    const auto ping = Ctl({"ping"});
    EXPECT_EQ(ping.exit_code, 3);
    EXPECT_NE(ping.err.find("tarvoctl: no service is running at " + DefaultSocket(m_root) +
                            " (start it with scripts/run.sh)"),
              std::string::npos)
        << ping.err;

    const std::string path = m_root.At("/odd.sock");
    EXPECT_EQ(Ctl({"--socket", path, "call", "{}"}).exit_code, 3);
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

TEST_F(Tarvoctl, VconfValuesRoundTripWithTheirTypes) {
    EXPECT_EQ(Ctl({"vconf", "set", "db/test/number", "42"}).exit_code, 0);
    EXPECT_EQ(VconfNumber("db/test/number"), 42);
    const auto number_out = ParseLine(Ctl({"--json", "vconf", "get", "db/test/number"}).out);
    EXPECT_EQ(number_out["type"], "int");
    EXPECT_EQ(number_out["value"], 42);

    EXPECT_EQ(Ctl({"vconf", "set", "db/test/text", "12 monkeys"}).exit_code, 0);
    EXPECT_EQ(Ctl({"vconf", "get", "db/test/text"}).out, "db/test/text = 12 monkeys (string)\n");
    EXPECT_EQ(Ctl({"vconf", "set", "db/test/forced", "7", "--type", "string"}).exit_code, 0);
    EXPECT_EQ(VconfText("db/test/forced"), "7");
    EXPECT_EQ(Ctl({"vconf", "set", "memory/test/flag", "true", "--type", "bool"}).exit_code, 0);
    EXPECT_EQ(ParseLine(Ctl({"--json", "vconf", "get", "memory/test/flag"}).out)["value"], true);
    EXPECT_EQ(Ctl({"vconf", "set", "db/test/ratio", "2.5", "--type", "double"}).exit_code, 0);
    EXPECT_EQ(ParseLine(Ctl({"--json", "vconf", "get", "db/test/ratio"}).out)["value"], 2.5);

    EXPECT_EQ(Ctl({"vconf", "get", "db/test/never"}).exit_code, 1);
    EXPECT_EQ(Ctl({"vconf", "set", "db/test/bad", "x", "--type", "int"}).exit_code, 2);
    const auto no_prefix = Ctl({"vconf", "set", "test/k", "5"});
    EXPECT_EQ(no_prefix.exit_code, 2);
    EXPECT_NE(no_prefix.err.find("a key starts with db/ or file/ (kept across restarts) or memory/"),
              std::string::npos)
        << no_prefix.err;
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
    struct Case {
        std::vector<std::string> args;
        int exit_code, status;
        bool up;
        const char* profile;
    };
    for (const Case& c :
         {Case{{"network", "down"}, 0, 0, false, ""}, Case{{"network", "up"}, 0, 3, true, "ethernet"},
          Case{{"network", "up", "wifi"}, 0, 1, true, "wifi"},
          Case{{"network", "up", "carrier-pigeon"}, 2, 1, true, "wifi"}}) {
        EXPECT_EQ(Ctl(c.args).exit_code, c.exit_code) << c.args.back();
        EXPECT_EQ(VconfNumber("memory/dnet/status"), c.status) << c.args.back();
        EXPECT_EQ(m_root.Profile()["network"]["up"], c.up) << c.args.back();
        if (*c.profile != '\0') {
            EXPECT_EQ(m_root.Profile()["network"]["profile"], c.profile) << c.args.back();
        }
    }
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
