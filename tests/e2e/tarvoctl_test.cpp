// tarvoctl against a host serving the echo module, and its views of the emulated television.
#include "seeded_service.h"

#include <dlog.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include <memory>
#include <string>
#include <vector>

namespace tarvo {
namespace test {
namespace {

class Tarvoctl : public ::testing::Test {
  protected:
    RunResult Ctl(const std::vector<std::string>& args) { return RunCtl(m_root, args); }

    TempRoot m_root;
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

// The log turns over as a ring of files: `log` reads the rotated ones first, oldest first, and
// `log --follow` goes on from a file that turned over to the new one, losing nothing.
TEST_F(Tarvoctl, LogReadsTheRotatedFilesInOrderAndFollowsTheLogAsItTurnsOver) {
    setenv("TARVO_LOG_MAX_BYTES", "1000", 1);
    setenv("TARVO_LOG_FILES", "4", 1);
    TempRoot root;  // opened anew, with these limits
    std::vector<std::string> written;
    const auto write_lines = [&](int count) {
        for (int i = 0; i < count; ++i) {
            written.push_back("line " + std::to_string(written.size()) + " " + std::string(60, 'x'));
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "Ring", "%s", written.back().c_str());
        }
    };
    const auto shown = [](const std::string& out) {
        std::vector<std::string> messages;
        for (const std::string& line : Lines(out)) {
            const Json::Value entry = ParseLine(line);
            if (entry["tag"] == "Ring") messages.push_back(entry["message"].asString());
        }
        return messages;
    };
    write_lines(30);
    ASSERT_TRUE(std::filesystem::exists(root.At("/var/log/tarvo.log.2")));
    EXPECT_EQ(shown(RunCtl(root, {"--json", "log"}).out), written);

    ChildProcess follow({TARVO_CTL_BIN, "--root", root.Path(), "--json", "log", "--follow"}, {},
                        root.Path() + "/follow");
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(WaitUntil([&] { return shown(follow.Stdout()).size() == written.size(); }))
            << follow.Stdout() << follow.Stderr();
        write_lines(10);  // about one file's worth: the log turns over once
    }
    ASSERT_TRUE(WaitUntil([&] { return shown(follow.Stdout()).size() == written.size(); }));
    EXPECT_EQ(shown(follow.Stdout()), written);
}

TEST_F(Tarvoctl, LogShowsEachLineWithoutColoursFromTheAskedLevelUpAndJoinsContinuations) {
    EXPECT_EQ(Ctl({"log"}).exit_code, 1);
    WriteFile(
        m_root.At("/var/log/tarvo.log"),
        "2026-11-25 08:10:49.464 D/TarvoDataControl(315): TarvoInternalData.cpp: m_UpdateInfoTable(335) > "
        "\033[37m [m_UpdateInfoTable:335]update data (2 : 1.0) success!\033[0m\n"
        "2026-11-25 08:10:49.465 I/TarvoHost(316): client connected\n"
        "2026-11-25 08:10:49.467 W/TarvoDataControl(315): TarvoDataControlServiceEvents.cpp: t_OnEvent(74) > "
        "\033[31m [t_OnEvent:74]raw data = first\n"
        "second line\033[0m\n");

    const auto all = Ctl({"--json", "log"});
    ASSERT_EQ(all.exit_code, 0) << all.err;
    const std::vector<std::string> lines = Lines(all.out);
    ASSERT_EQ(lines.size(), 3u) << all.out;
    const Json::Value first = ParseLine(lines[0]);
    EXPECT_EQ(first["time"], "2026-11-25 08:10:49.464");
    EXPECT_EQ(first["level"], "D");
    EXPECT_EQ(first["pid"], "315");
    EXPECT_EQ(first["function"], "m_UpdateInfoTable");
    EXPECT_EQ(first["message"], "update data (2 : 1.0) success!");
    EXPECT_EQ(ParseLine(lines[1])["tag"], "TarvoHost");
    EXPECT_FALSE(ParseLine(lines[1]).isMember("function"));
    EXPECT_EQ(ParseLine(lines[2])["message"], "raw data = first\nsecond line");

    const auto warnings = Ctl({"log", "--level", "warn"});
    EXPECT_EQ(warnings.exit_code, 0);
    EXPECT_EQ(warnings.out, "08:10:49.467 W t_OnEvent raw data = first\n    second line\n");
    EXPECT_EQ(Ctl({"log", "--level", "info"}).out,
              "08:10:49.465 I TarvoHost client connected\n" + warnings.out);
    EXPECT_EQ(Ctl({"log", "--level", "loud"}).exit_code, 2);
    EXPECT_EQ(Ctl({"log", "extra"}).exit_code, 2);
}

TEST_F(Tarvoctl, DeviceShowsTheProfileWithItsKeysNamesAndTheVconfValuesTheServiceReads) {
    ASSERT_EQ(vconf_set_str("db/nimbra/countrycode", "FR"), 0);
    ASSERT_EQ(vconf_set_str("db/menu_widget/language", "fr_FR.utf8"), 0);
    m_root.EditProfile([](Json::Value& profile) {
        profile["deployment"]["agreement_host"] = "127.0.0.1:1";
        profile.removeMember("firm_code");
    });

    const auto json = Ctl({"--json", "device"});
    ASSERT_EQ(json.exit_code, 0) << json.err;
    const Json::Value device = ParseLine(json.out);
    EXPECT_EQ(device["path"], m_root.At("/etc/tarvo/device.json"));
    EXPECT_EQ(device["profile"], m_root.Profile());
    EXPECT_TRUE(device["names"]["factory_data"]["273"].isString());
    EXPECT_TRUE(device["names"]["system_info"]["128"].isString());
    EXPECT_EQ(device["vconf"]["db/nimbra/countrycode"], "FR");
    EXPECT_EQ(device["vconf"]["db/menu_widget/language"], "fr_FR.utf8");

    const auto text = Ctl({"device"});
    ASSERT_EQ(text.exit_code, 0) << text.err;
    for (const char* part :
         {"  network", "up, ethernet, mac AA:BB:CC:DD:EE:FF, dns yes", "deployment.agreement_host",
          "127.0.0.1:1", "T-1010.5", "(missing: the matching platform call fails)"}) {
        EXPECT_NE(text.out.find(part), std::string::npos) << part << "\n" << text.out;
    }
    EXPECT_EQ(Ctl({"device", "extra"}).exit_code, 2);
    std::remove(m_root.At("/etc/tarvo/device.json").c_str());
    EXPECT_EQ(Ctl({"device"}).exit_code, 1);
}

}  // namespace
}  // namespace test
}  // namespace tarvo
