// tarvoctl's views of the emulated television without a service: the log, read back readably and
// from a level up, and the device profile with the names of its numeric keys.
#include "seeded_service.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarvo {
namespace test {
namespace {

class TarvoctlInspect : public ::testing::Test {
  protected:
    RunResult Ctl(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {TARVO_CTL_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgram(argv, {}, m_root.Path() + "/ctl-" + std::to_string(m_runs++));
    }

    TempRoot m_root;
    int m_runs = 0;
};

TEST_F(TarvoctlInspect, LogShowsEachLineWithoutColoursFromTheAskedLevelUpAndJoinsContinuations) {
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

TEST_F(TarvoctlInspect, DeviceShowsTheProfileWithItsKeysNamesAndTheVconfValuesTheServiceReads) {
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
