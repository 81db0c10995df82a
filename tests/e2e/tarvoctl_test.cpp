// tarvoctl against a host serving the echo module, its views of the emulated television, and its
// friendly verbs against the real service: what they print, their --json form and their exit codes.
#include "seeded_service.h"
#include "sync_fixture.h"

#include <dlog.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tarvo::test {
namespace {

constexpr size_t kNone = std::string::npos;

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
    EXPECT_NE(thrown.err.find("echo module refuses to answer"), kNone) << thrown.err;
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

TEST_F(Tarvoctl, WithoutAServiceVerbsExitThreeAndVconfValuesRoundTripWithTheirTypes) {
    const auto ping = Ctl({"ping"});
    EXPECT_EQ(ping.exit_code, 3);
    EXPECT_NE(ping.err.find("no service is running at " + DefaultSocket(m_root)), kNone) << ping.err;

    EXPECT_EQ(Ctl({"--socket", m_root.At("/none.sock"), "call", "{}"}).exit_code, 3);

    // Vconf values need no service and round-trip with their types.
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
        EXPECT_NE(text.out.find(part), kNone) << part << "\n" << text.out;
    }
    EXPECT_EQ(Ctl({"device", "extra"}).exit_code, 2);
    std::remove(m_root.At("/etc/tarvo/device.json").c_str());
    EXPECT_EQ(Ctl({"device"}).exit_code, 1);
}

// The seeded records and a combined record that stands for tnc and pp, shown in the menu only.
class FriendlyVerbs : public SeededService {
  protected:
    std::vector<DisclaimerRow> Rows() const override {
        auto rows = SeedRows();
        DisclaimerRow combined{"pp_sub1", 1, "Menu"};
        combined.title = "Terms and Privacy";
        combined.subLink = "tnc/pp";
        combined.visibleAtPnP = false;
        rows.push_back(combined);
        return rows;
    }
};

TEST_F(FriendlyVerbs, ReadingVerbsPrintTablesAndJsonDocumentsAndChangeVerbsTheAnswersReadBack) {
    const Json::Value document = ParseLine(Ctl({"--json", "status"}).out);
    EXPECT_EQ(document["service_available"], true);
    EXPECT_EQ(document["store_open"], true);
    EXPECT_EQ(document["disclaimers"]["pnp"], 4);
    EXPECT_EQ(document["revised"][0], "voice_new");

    EXPECT_NE(Ctl({"list", "--requester", "0"}).out.find("pp_sub1"), kNone);
    const auto list_json = Lines(Ctl({"--json", "list", "--requester", "2"}).out);
    ASSERT_EQ(list_json.size(), 4u);
    EXPECT_EQ(ParseLine(list_json[0])["id"], "main_common");
    EXPECT_EQ(ParseLine(list_json[0])["seen_by"][0], "pnp");

    EXPECT_NE(Ctl({"show", "viewing"}).out.find("Line two"), kNone);
    // The common item is no answerable disclaimer, yet the wizard's list holds it.
    EXPECT_EQ(Ctl({"show", "main_common"}).exit_code, 0);
    EXPECT_EQ(Ctl({"show", "uhd_video"}).exit_code, 1);

    EXPECT_NE(Ctl({"revised"}).out.find("voice_new"), kNone);

    // Change verbs print the answers read back and refuse unknown ids. pp is agreed and tnc is not, so the
    // combined record reads as not agreed.
    EXPECT_NE(Ctl({"agree", "pp_sub1"}).out.find("2 answers changed"), kNone);
    EXPECT_NE(Ctl({"disagree", "pp_sub1"}).out.find("3 answers changed"), kNone);
    EXPECT_NE(VconfText("db/tarvodatacontrol/disclaimeragrees").find("\"pp\":\"false\""), kNone);

    const auto unknown = Ctl({"agree", "nosuch", "tnc"});
    EXPECT_EQ(unknown.exit_code, 1);
    EXPECT_NE(unknown.err.find("nothing was sent"), kNone) << unknown.err;
    EXPECT_EQ(ParseLine(Ctl({"--json", "agree", "tnc"}).out)["is_agreed"], true);
    EXPECT_EQ(Lines(Ctl({"--json", "agree-all"}).out).size(), 3u);  // pp, viewing, voice_new
    EXPECT_EQ(Ctl({"agree"}).exit_code, 2);

    EXPECT_EQ(Ctl({"call", R"({"method": "no such"})"}).exit_code, 1);
    EXPECT_EQ(Ctl({"clone", "from-usb"}).exit_code, 1);
    EXPECT_EQ(ParseLine(Ctl({"--json", "clone", "from-usb"}).out)["result"], false);
    EXPECT_EQ(Ctl({"clone", "to-usb"}).exit_code, 0);
    EXPECT_EQ(Ctl({"reset"}).exit_code, 0);
    ASSERT_TRUE(WaitUntil([] { return VconfNumber("db/ostrel/reset/tarvosetting") == 1; }));
    EXPECT_EQ(Ctl({"revised"}).out, "no revised disclaimers\n");
}

TEST_F(FriendlyVerbs, SetCountryChecksTheCodeAndUpdateNamesTheDeviceValueItWaitsFor) {
    for (const char* malformed : {"", "us", "USA"}) EXPECT_EQ(Ctl({"set-country", malformed}).exit_code, 2);
    EXPECT_EQ(VconfText("db/nimbra/countrycode"), "<unset>");
    const auto unlisted = Ctl({"set-country", "ZZ"});
    EXPECT_EQ(unlisted.exit_code, 0) << unlisted.err;
    EXPECT_NE(unlisted.err.find("not in the television's country list"), kNone) << unlisted.err;
    EXPECT_EQ(VconfText("db/nimbra/countrycode"), "ZZ");
    const auto listed = Ctl({"--json", "set-country", "US"});
    EXPECT_EQ(listed.err, "");
    EXPECT_EQ(ParseLine(listed.out)["previous"], "ZZ");
    EXPECT_EQ(ParseLine(listed.out)["in_country_list"], true);

    // No model id or server URL: the service waits for them, and tarvoctl says so instead of waiting
    // silently.
    const auto waiting = Ctl({"update", "--timeout", "1"});
    EXPECT_EQ(waiting.exit_code, 1);
    EXPECT_NE(waiting.err.find("missing: db/nimbra/modelid (the model id), db/nimbra/gpmurl/apps"), kNone)
        << waiting.err;

    ASSERT_EQ(vconf_set_str("db/menu_widget/language", "en_US.utf8"), 0);
    const auto stored = Ctl({"update"});
    EXPECT_EQ(stored.exit_code, 0) << stored.err;
    EXPECT_EQ(stored.out.find("answered from the stored set (country US, language en_US.utf8)"), 0u)
        << stored.out;
}

using TarvoctlUpdate = Sync;

TEST_F(TarvoctlUpdate, TellsWhereTheAnswerCameFromAndWhyAFetchFailed) {
    // The service keeps its last code, so a failure without one reports the one before it.
    const char* const failures[][3] = {
        {R"({"path": "checkversion", "kind": "drop"})", "the version check failed: CURLE_", ""},
        {R"({"path": "checkversion", "kind": "not_json"})", "the server's answer was not JSON",
         "may be left from an earlier failure"},
    };
    for (const auto& [fault, words, more] : failures) {
        Fault(fault);
        const auto failed = Ctl({"update", "--timeout", "20"});
        EXPECT_EQ(failed.exit_code, 1) << fault;
        EXPECT_NE(failed.err.find(words), kNone) << failed.err;
        EXPECT_NE(failed.err.find(more), kNone) << failed.err;
    }

    m_admin->Delete("/admin/fault");
    const auto fetched = Ctl({"update", "--timeout", "20"});
    EXPECT_EQ(fetched.exit_code, 0) << fetched.err;
    EXPECT_EQ(fetched.out.find("fetched now, because the store held no disclaimers"), 0u) << fetched.out;
    EXPECT_NE(fetched.out.find(DataDisclaimer("US", "tnc")["texts"]["en"]["title"].asString()), kNone);
}

TEST_F(TarvoctlUpdate, NamesEachNewVersionWithWhetherItIsRevisedAndWhy) {
    BringNetworkUp();
    Notification("new_disclaimer_agree_changed");  // the first sync filled the store
    Agree({"tnc", "pp", "voice_new"});
    Publish(R"({"country": "US", "id": "voice_new", "version": "7.0"})");
    Publish(R"({"country": "US", "id": "tnc", "version": "7.0"})");
    Publish(R"({"country": "US", "id": "billing", "version": "7.0"})");
    const auto update = Ctl({"--json", "update", "--wakeup", "--timeout", "20"});
    EXPECT_EQ(update.exit_code, 0) << update.err;
    std::map<std::string, Json::Value> versions;
    const Json::Value document = ParseLine(update.out);
    for (const auto& v : document["new_versions"]) versions[v["id"].asString()] = v;
    ASSERT_EQ(versions.size(), 3u) << update.out;
    EXPECT_EQ(versions["voice_new"]["revised"], true);
    EXPECT_EQ(versions["tnc"]["revised"], false);
    EXPECT_NE(versions["tnc"]["why"].asString().find("never marked revised"), kNone);
    EXPECT_EQ(versions["billing"]["revised"], false);
    EXPECT_NE(versions["billing"]["why"].asString().find("not agreed"), kNone);
    // What the service itself marked, read apart from tarvoctl's judgement.
    EXPECT_EQ(Method("get revised disclaimers")["disclaimers"].size(), 1u);
}

TEST_F(TarvoctlUpdate, ANetworkDownAndAClosedStoreAreSaidSoAndAClosedStoreAsksNothingUntilARestart) {
    m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = false; });
    const auto down = Ctl({"status"});
    EXPECT_NE(down.out.find("network             down (tarvoctl network up brings it back)"), kNone)
        << down.out;
    EXPECT_EQ(ParseLine(Ctl({"--json", "status"}).out)["network_up"], false);
    // With the profile's network down, a request that finds no connection is the network's fault.
    const std::string url = VconfText("db/nimbra/gpmurl/apps");
    SetVconf("db/nimbra/gpmurl/apps", "http://127.0.0.1:1");
    const auto unreachable = Ctl({"update", "--timeout", "20"});
    EXPECT_EQ(unreachable.exit_code, 1);
    EXPECT_NE(unreachable.err.find("the network is down, so no request reached the server"), kNone)
        << unreachable.err;
    SetVconf("db/nimbra/gpmurl/apps", url);

    ASSERT_EQ(Ctl({"power", "off"}).exit_code, 0);
    ClearCloudRequests();
    const auto update = Ctl({"update", "--timeout", "20"});
    EXPECT_EQ(update.exit_code, 1);
    EXPECT_NE(update.err.find("the store is closed since 'power off 0' at "), kNone) << update.err;
    EXPECT_NE(update.err.find("a restart of the service (tarvo-service-host) opens it"), kNone) << update.err;
    EXPECT_EQ(update.out.find("fetched now"), kNone) << update.out;
    EXPECT_EQ(CloudRequests().size(), 0u);
    EXPECT_NE(Ctl({"status"}).out.find("closed since 'power off 0'"), kNone);
    EXPECT_NE(Ctl({"list"}).out.find("the store is closed since 'power off 0'"), kNone);

    m_host.reset();
    m_host = StartHost(m_root, TARVO_MODULE_PATH);
    ASSERT_NE(m_host, nullptr);
    ASSERT_TRUE(WaitUntil([&] { return ParseLine(Ctl({"--json", "status"}).out)["store_open"] == true; }));
    EXPECT_EQ(Ctl({"list"}).out.find("closed"), kNone);
}

}  // namespace
}  // namespace tarvo::test
