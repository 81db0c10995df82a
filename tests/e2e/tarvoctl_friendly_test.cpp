// tarvoctl's friendly verbs against the real service: what they print, their --json form and
// their exit codes.
#include "seeded_service.h"
#include "sync_fixture.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace tarvo {
namespace test {
namespace {

constexpr size_t kNone = std::string::npos;

RunResult RunCtl(const TempRoot& root, const std::vector<std::string>& args, int& runs) {
    std::vector<std::string> argv = {TARVO_CTL_BIN, "--root", root.Path()};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(argv, {}, root.Path() + "/ctl-" + std::to_string(runs++));
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

    RunResult Ctl(const std::vector<std::string>& args) { return RunCtl(m_root, args, m_runs); }

    int m_runs = 0;
};

TEST_F(FriendlyVerbs, ReadingVerbsPrintTablesAndOneNamedDocumentPerResultUnderJson) {
    const auto status = Ctl({"status"});
    EXPECT_NE(status.out.find("store               open\n"), kNone) << status.out;
    EXPECT_NE(status.out.find("disclaimers         menu 4, app 4, pnp 4, none 0, all 5\n"), kNone)
        << status.out;
    const auto status_json = Lines(Ctl({"--json", "status"}).out);
    ASSERT_EQ(status_json.size(), 1u);
    const Json::Value document = ParseLine(status_json[0]);
    EXPECT_EQ(document["service_available"], true);
    EXPECT_EQ(document["store_open"], true);
    EXPECT_EQ(document["disclaimers"]["pnp"], 4);
    EXPECT_EQ(document["revised"][0], "voice_new");

    const auto list = Lines(Ctl({"list", "--requester", "0"}).out);
    ASSERT_EQ(list.size(), 5u);
    EXPECT_EQ(list[0].rfind("ORDER  WINDOW    GROUP     ID ", 0), 0u) << list[0];
    EXPECT_NE(list[4].find("Sub|Menu  menu      pp_sub1"), kNone) << list[4];
    EXPECT_EQ(Ctl({"list", "--requester", "3"}).out, "no disclaimers for requester 3\n");
    EXPECT_EQ(Ctl({"list", "--requester", "menu"}).exit_code, 2);
    const auto list_json = Lines(Ctl({"--json", "list", "--requester", "2"}).out);
    ASSERT_EQ(list_json.size(), 4u);
    EXPECT_EQ(ParseLine(list_json[0])["id"], "main_common");
    EXPECT_EQ(ParseLine(list_json[0])["seen_by"][0], "pnp");

    const auto show = Ctl({"show", "viewing"});
    EXPECT_EQ(show.exit_code, 0) << show.err;
    EXPECT_NE(show.out.find("only notice       yes\n"), kNone) << show.out;
    EXPECT_NE(show.out.find("button10          B10\n"), kNone) << show.out;
    EXPECT_NE(show.out.find("details:\n  Line one\n  Line two\n"), kNone) << show.out;
    // The common item is no answerable disclaimer, yet the wizard's list holds it.
    const auto common = Ctl({"show", "main_common"});
    EXPECT_EQ(common.exit_code, 0) << common.err;
    EXPECT_NE(common.out.find("seen by           2 pnp\n"), kNone) << common.out;
    const auto unavailable = Ctl({"show", "uhd_video"});
    EXPECT_EQ(unavailable.exit_code, 1);
    EXPECT_NE(unavailable.err.find("no disclaimer \"uhd_video\": no requester lists it"), kNone);

    const auto revised = Lines(Ctl({"revised"}).out);
    ASSERT_EQ(revised.size(), 2u);
    EXPECT_NE(revised[1].find("voice_new"), kNone);
    EXPECT_EQ(Ctl({"countries"}).out, "no country list yet (fetch one with --refresh)\n");
    EXPECT_EQ(Ctl({"--json", "countries"}).out, "");
}

TEST_F(FriendlyVerbs, ChangeVerbsPrintTheAnswersReadBackAndRefuseUnknownIds) {
    // pp is agreed and tnc is not, so the combined record reads as not agreed.
    EXPECT_EQ(Ctl({"agree", "pp_sub1"}).out,
              "ID       BEFORE      NOW\npp_sub1  not agreed  agreed\ntnc      not agreed  agreed\n"
              "2 answers changed\n");
    // The service names each changed link with ":true;" even when it takes the agreement back.
    EXPECT_EQ(Ctl({"disagree", "pp_sub1"}).out,
              "ID       BEFORE  NOW\npp_sub1  agreed  not agreed\ntnc      agreed  not agreed\n"
              "pp       agreed  not agreed\n3 answers changed\n");
    EXPECT_NE(VconfText("db/tarvodatacontrol/disclaimeragrees").find("\"pp\":\"false\""), kNone);

    const auto unknown = Ctl({"agree", "nosuch", "tnc"});
    EXPECT_EQ(unknown.exit_code, 1);
    EXPECT_NE(unknown.err.find("\"nosuch\" is no disclaimer any requester lists"), kNone) << unknown.err;
    EXPECT_NE(unknown.err.find("nothing was sent"), kNone) << unknown.err;
    EXPECT_NE(Ctl({"agree", "main_common"}).err.find("takes no answer"), kNone);
    const auto json = Lines(Ctl({"--json", "agree", "tnc"}).out);
    ASSERT_EQ(json.size(), 1u);
    EXPECT_EQ(ParseLine(json[0])["id"], "tnc");
    EXPECT_EQ(ParseLine(json[0])["is_agreed"], true);
    EXPECT_EQ(ParseLine(json[0])["changed"], true);
    EXPECT_EQ(Ctl({"agree", "tnc"}).out, "ID   BEFORE  NOW\ntnc  agreed  agreed\nnothing changed\n");
    EXPECT_EQ(Lines(Ctl({"--json", "agree-all"}).out).size(), 3u);  // pp, viewing, voice_new
    EXPECT_EQ(Ctl({"agree"}).exit_code, 2);

    const auto no_method = Ctl({"call", R"({"method": "no such"})"});
    EXPECT_EQ(no_method.exit_code, 1);
    EXPECT_NE(no_method.err.find("no reply (unknown method or a method without a reply)"), kNone);
    EXPECT_EQ(Ctl({"call", R"({"method": "set agreements", "agreements": []})"}).exit_code, 0);

    EXPECT_EQ(Ctl({"clone", "from-usb"}).exit_code, 1);
    EXPECT_EQ(ParseLine(Ctl({"--json", "clone", "from-usb"}).out)["result"], false);
    EXPECT_EQ(Ctl({"clone", "to-usb"}).exit_code, 0);
    const size_t resets = LogCount("set VCONF db/ostrel/reset/tarvosetting 1");
    EXPECT_EQ(Ctl({"reset"}).exit_code, 0);
    ASSERT_TRUE(WaitForLog("set VCONF db/ostrel/reset/tarvosetting 1", resets + 1));
    EXPECT_EQ(Ctl({"revised"}).out, "no revised disclaimers\n");
}

TEST_F(FriendlyVerbs, SetCountryChecksTheCodeAndUpdateNamesTheDeviceValueItWaitsFor) {
    for (const char* malformed : {"", "us", "USA", "U1"}) {
        const auto refused = Ctl({"set-country", malformed});
        EXPECT_EQ(refused.exit_code, 2) << malformed;
        EXPECT_NE(refused.err.find("two capital letters"), kNone) << refused.err;
    }
    EXPECT_EQ(VconfText("db/nimbra/countrycode"), "<unset>");
    const auto unlisted = Ctl({"set-country", "ZZ"});
    EXPECT_EQ(unlisted.exit_code, 0) << unlisted.err;
    EXPECT_NE(unlisted.err.find("ZZ is not in the television's country list (US)"), kNone) << unlisted.err;
    EXPECT_EQ(VconfText("db/nimbra/countrycode"), "ZZ");
    const auto listed = Ctl({"--json", "set-country", "US"});
    EXPECT_EQ(listed.err, "");
    EXPECT_EQ(ParseLine(listed.out)["previous"], "ZZ");
    EXPECT_EQ(ParseLine(listed.out)["in_country_list"], true);

    // No model id or server URL: the service waits for them, and tarvoctl says so instead of waiting
    // silently.
    const auto waiting = Ctl({"update", "--timeout", "1"});
    EXPECT_EQ(waiting.exit_code, 1);
    EXPECT_NE(waiting.err.find("warning: db/nimbra/modelid (the model id) is not set"), kNone) << waiting.err;
    EXPECT_NE(
        waiting.err.find("timed out after 1 s waiting for device values missing: db/nimbra/modelid (the "
                         "model id), db/nimbra/gpmurl/apps (the server URL)"),
        kNone)
        << waiting.err;
    // stderr is no terminal here, so no progress line is drawn.
    EXPECT_EQ(waiting.err.find("waiting 0 s"), kNone) << waiting.err;

    ASSERT_EQ(vconf_set_str("db/menu_widget/language", "en_US.utf8"), 0);
    const auto stored = Ctl({"update"});
    EXPECT_EQ(stored.exit_code, 0) << stored.err;
    EXPECT_EQ(stored.out.find("answered from the stored set (country US, language en_US.utf8)"), 0u)
        << stored.out;
}

TEST_F(FriendlyVerbs, StatusTellsOfAStoreClosedByPowerOffUntilTheHostRestarts) {
    EXPECT_EQ(Ctl({"power", "off", "1073741824"}).exit_code, 0);
    EXPECT_NE(Ctl({"status"}).out.find("store               open\n"), kNone);
    EXPECT_EQ(Ctl({"power", "off"}).exit_code, 0);
    const auto closed = Ctl({"status"});
    EXPECT_NE(closed.out.find("store               closed by 'power off 0' at "), kNone) << closed.out;
    EXPECT_NE(closed.out.find("answers given now are not kept"), kNone) << closed.out;
    EXPECT_EQ(ParseLine(Ctl({"--json", "status"}).out)["store_open"], false);
    const auto refused = Ctl({"agree", "tnc"});
    EXPECT_EQ(refused.exit_code, 1);
    EXPECT_NE(refused.err.find("the store is closed since 'power off 0'"), kNone) << refused.err;

    StopService();
    StartService();
    EXPECT_NE(Ctl({"status"}).out.find("store               open\n"), kNone);
}

class TarvoctlUpdate : public Sync {
  protected:
    RunResult Ctl(const std::vector<std::string>& args) { return RunCtl(m_root, args, m_runs); }

    int m_runs = 0;
};

TEST_F(TarvoctlUpdate, TellsWhereTheAnswerCameFromAndWhyAFetchFailed) {
    // The service keeps its last code, so a failure without one reports the one before it.
    const char* const failures[][3] = {
        {R"({"path": "checkversion", "kind": "stat_error", "code": "7001"})", "error_code 7001", ""},
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
    Publish(R"({"country": "US", "id": "tnc", "version": "9.0"})");
    ClearCloudRequests();
    const auto stored = Ctl({"--json", "update", "--timeout", "20"});
    EXPECT_EQ(ParseLine(stored.out)["source"], "store");
    EXPECT_EQ(CloudRequests().size(), 0u);

    BringNetworkUp();
    ASSERT_TRUE(WaitUntil([&] { return Listed()["tnc"]["version"] == "9.0"; }));
    Publish(R"({"country": "US", "id": "tnc", "version": "9.1"})");
    const auto woken = Ctl({"update", "--wakeup", "--timeout", "20"});
    EXPECT_EQ(woken.exit_code, 0) << woken.err;
    EXPECT_NE(woken.out.find("wake-up:\n  - asked the server for its versions\n"), kNone) << woken.out;
    EXPECT_EQ(Listed()["tnc"]["version"], "9.1");
}

}  // namespace
}  // namespace test
}  // namespace tarvo
