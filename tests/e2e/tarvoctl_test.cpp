// tarvoctl against a host serving the echo module, and its platform verbs against the
// emulated television: exit codes, output forms and vconf.
#include "seeded_service.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tarvo {
namespace test {
namespace {

class Tarvoctl : public ::testing::Test {
  protected:
    RunResult Ctl(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {TARVO_CTL_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgram(argv, {}, m_root.Path() + "/ctl-" + std::to_string(m_runs++));
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

    using Words = std::vector<std::string>;
    for (const Words& usage : {Words{}, Words{"reboot"}, Words{"call", "[1]"}, Words{"power", "off", "high"}})
        EXPECT_EQ(Ctl(usage).exit_code, 2) << (usage.empty() ? "" : usage[0]);
}

TEST_F(Tarvoctl, WithoutAServiceVerbsExitThree) {
    const auto ping = Ctl({"ping"});
    EXPECT_EQ(ping.exit_code, 3);
    EXPECT_NE(ping.err.find("no service is running at " + DefaultSocket(m_root)), std::string::npos)
        << ping.err;

    EXPECT_EQ(Ctl({"--socket", m_root.At("/none.sock"), "call", "{}"}).exit_code, 3);
}

TEST_F(Tarvoctl, VconfValuesRoundTripWithTheirTypes) {
    EXPECT_EQ(Ctl({"vconf", "set", "db/test/number", "42"}).exit_code, 0);
    EXPECT_EQ(VconfNumber("db/test/number"), 42);
    const auto number_out = ParseLine(Ctl({"--json", "vconf", "get", "db/test/number"}).out);
    EXPECT_EQ(number_out["type"], "int");
    EXPECT_EQ(number_out["value"], 42);

    EXPECT_EQ(Ctl({"vconf", "set", "db/test/forced", "7", "--type", "string"}).exit_code, 0);
    EXPECT_EQ(VconfText("db/test/forced"), "7");

    EXPECT_EQ(Ctl({"vconf", "get", "db/test/never"}).exit_code, 1);
    EXPECT_EQ(Ctl({"vconf", "set", "db/test/bad", "x", "--type", "int"}).exit_code, 2);
    EXPECT_EQ(Ctl({"vconf", "set", "test/k", "5"}).exit_code, 2);
}

}  // namespace
}  // namespace test
}  // namespace tarvo
