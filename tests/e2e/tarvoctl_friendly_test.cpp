// tarvoctl's friendly verbs against the real service: what they print, their --json form and
// their exit codes.
#include "seeded_service.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace tarvo {
namespace test {
namespace {

class FriendlyVerbs : public SeededService {
  protected:
    RunResult Ctl(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {TARVO_CTL_BIN, "--root", m_root.Path()};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgram(argv, {}, m_root.Path() + "/ctl-" + std::to_string(m_runs++));
    }

    int m_runs = 0;
};

TEST_F(FriendlyVerbs, ReadingVerbsPrintTablesAndTheRepliesUnderJson) {
    const auto status = Ctl({"status"});
    EXPECT_NE(status.out.find("disclaimers         menu 3, app 3, pnp 4, none 0, all 4\n"), std::string::npos)
        << status.out;
    EXPECT_NE(status.out.find("revised             1\n"), std::string::npos) << status.out;
    const auto status_json = Lines(Ctl({"--json", "status"}).out);
    ASSERT_EQ(status_json.size(), 7u);
    EXPECT_EQ(ParseLine(status_json[3])["number"], 4);
    EXPECT_EQ(ParseLine(status_json[6])["disclaimers"][0]["id"], "voice_new");

    const auto list = Ctl({"list", "--requester", "0"});
    EXPECT_EQ(list.exit_code, 0) << list.err;
    EXPECT_EQ(list.out,
              "ORDER  ID         VERSION  AGREED  NOTICE  TITLE\n"
              "1      tnc        1.0      no      no      Terms and Conditions\n"
              "2      pp         1.0      yes     no      Privacy Policy\n"
              "4      voice_new  2.1      no      no      Voice\n");
    EXPECT_EQ(Lines(Ctl({"list"}).out).size(), 5u);
    EXPECT_EQ(Ctl({"list", "--requester", "3"}).out, "no disclaimers for requester 3\n");
    EXPECT_EQ(Ctl({"list", "--requester", "menu"}).exit_code, 2);
    const auto list_json = Lines(Ctl({"--json", "list", "--requester", "2"}).out);
    ASSERT_EQ(list_json.size(), 5u);
    EXPECT_EQ(ParseLine(list_json[1])["id"], "main_common");

    const auto show = Ctl({"show", "viewing"});
    EXPECT_EQ(show.exit_code, 0) << show.err;
    EXPECT_NE(show.out.find("only notice       yes\n"), std::string::npos) << show.out;
    EXPECT_NE(show.out.find("button10          B10\n"), std::string::npos) << show.out;
    EXPECT_NE(show.out.find("details:\n  Line one\n  Line two\n"), std::string::npos) << show.out;
    const auto unavailable = Ctl({"show", "uhd_video"});
    EXPECT_EQ(unavailable.exit_code, 1);
    EXPECT_NE(unavailable.err.find("no available disclaimer \"uhd_video\""), std::string::npos);
    EXPECT_EQ(Ctl({"show"}).exit_code, 2);

    const auto revised = Ctl({"revised"});
    EXPECT_EQ(Lines(revised.out).size(), 2u);
    EXPECT_EQ(revised.out.find("4      voice_new  2.1"), revised.out.find('\n') + 1) << revised.out;

    const auto countries = Ctl({"countries"});
    EXPECT_EQ(countries.exit_code, 0);
    EXPECT_EQ(countries.out, "no country list yet (fetch one with --refresh)\n");
    EXPECT_EQ(Ctl({"--json", "countries"}).out, "null\n");
}

TEST_F(FriendlyVerbs, ChangingVerbsTellWhatChangedAndRefusalsExitWithOne) {
    EXPECT_EQ(Ctl({"agree", "tnc"}).out, "changed:\n  tnc agreed\n");
    EXPECT_EQ(Ctl({"agree", "tnc", "nope"}).out, "nothing changed\n");
    EXPECT_EQ(Ctl({"disagree", "tnc", "pp"}).out, "changed:\n  tnc disagreed\n  pp disagreed\n");
    EXPECT_EQ(Ctl({"agree-all"}).out,
              "changed:\n  pp agreed\n  tnc agreed\n  viewing agreed\n  voice_new agreed\n");
    EXPECT_EQ(Ctl({"--json", "agree-all"}).out, "null\n");
    const auto json_change = Lines(Ctl({"--json", "disagree", "viewing"}).out);
    ASSERT_EQ(json_change.size(), 2u);
    EXPECT_EQ(json_change[0], "null");
    EXPECT_EQ(ParseLine(json_change[1])["notification"]["agreements"], "viewing:false;");
    EXPECT_EQ(Ctl({"agree"}).exit_code, 2);

    const auto country = Ctl({"set-country", "DE"});
    EXPECT_EQ(country.exit_code, 0) << country.err;
    EXPECT_EQ(VconfText("db/nimbra/countrycode"), "DE");

    const auto no_clone = Ctl({"clone", "from-usb"});
    EXPECT_EQ(no_clone.exit_code, 1);
    EXPECT_NE(no_clone.err.find("failed"), std::string::npos);
    EXPECT_EQ(Ctl({"--json", "clone", "from-usb"}).out, "{\"result\":false}\n");
    EXPECT_EQ(Ctl({"clone", "to-usb"}).exit_code, 0);
    EXPECT_EQ(Ctl({"clone", "sideways"}).exit_code, 2);

    const size_t resets = LogCount("set VCONF db/ostrel/reset/tarvosetting 1");
    const auto reset = Ctl({"reset"});
    EXPECT_EQ(reset.exit_code, 0) << reset.err;
    ASSERT_TRUE(WaitForLog("set VCONF db/ostrel/reset/tarvosetting 1", resets + 1));
    EXPECT_EQ(Ctl({"list"}).out, "no disclaimers for requester 4\n");
    EXPECT_EQ(Ctl({"revised"}).out, "no revised disclaimers\n");
}

TEST_F(FriendlyVerbs, CountriesRefreshWaitsForTheServiceToFetchTheList) {
    const auto refreshed = Ctl({"countries", "--refresh", "--timeout", "20"});
    EXPECT_EQ(refreshed.exit_code, 0) << refreshed.err;
    EXPECT_EQ(refreshed.out, "CODE  NAME\nUS    United States\n");
    EXPECT_NE(refreshed.err.find("waiting for the country list"), std::string::npos) << refreshed.err;

    m_root.EditProfile([](Json::Value& profile) { profile["country_list"] = "no json at all"; });
    const auto failed = Ctl({"countries", "--refresh", "--timeout", "20"});
    EXPECT_EQ(failed.exit_code, 1);
    EXPECT_NE(failed.err.find("the country list could not be fetched"), std::string::npos) << failed.err;
}

}  // namespace
}  // namespace test
}  // namespace tarvo
