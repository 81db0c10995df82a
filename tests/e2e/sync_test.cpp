// Fetching disclaimers from the cloud into the store and merging what changed, through the host,
// and requests that must wait for the device values, with the time-out of that wait.
#include "sync_fixture.h"

#include <vconf.h>

#include <algorithm>

namespace tarvo::test {
namespace {

constexpr const char* kUsSet = "TVTERMS-US-2024-05";

TEST_F(Sync, ComingOnlineFillsTheEmptyStoreAndAWakeupWithNothingNewFetchesOnlyTheNotice) {
    BringNetworkUp();
    const std::string agreements = Notification("new_disclaimer_agree_changed")["agreements"].asString();
    const auto entries = AgreementEntries(agreements);
    EXPECT_TRUE(std::is_sorted(entries.begin(), entries.end())) << agreements;
    EXPECT_NE(std::find(entries.begin(), entries.end(), "tnc:false"), entries.end()) << agreements;
    EXPECT_TRUE(std::all_of(entries.begin(), entries.end(), [](const std::string& e) {
        return e.size() > 6 && e.substr(e.size() - 6) == ":false";
    }));

    const Json::Value requests = CloudRequests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0]["path"], "/apps/conf/v1/stacks/tarvoapp/checkversion");
    EXPECT_EQ(requests[0]["query"]["countrycode"], "US");
    EXPECT_EQ(requests[1]["path"], std::string("/apps/terms/v4/disclaimers/") + kUsSet);
    EXPECT_EQ(requests[1]["query"]["lang"], "en");
    auto listed = Listed();
    EXPECT_EQ(listed["tnc"]["version"], DataDisclaimer("US", "tnc")["version"]);
    EXPECT_EQ(listed["tnc"]["title"], DataDisclaimer("US", "tnc")["texts"]["en"]["title"]);
    EXPECT_EQ(listed["pp"]["version"], DataDisclaimer("US", "pp")["version"]);

    Agree({"tnc"});
    ClearCloudRequests();
    ASSERT_TRUE(m_calls.Control("wakeup"));
    ASSERT_TRUE(WaitUntil([&] { return LogCount("m_CheckNeedGetDisclaimer false") == 1; }));
    EXPECT_EQ(CloudRequests().size(), 1u);
    EXPECT_TRUE(Listed()["tnc"]["is_agreed"].asBool());
}

// A store filled by a first request (both answers fetched), with the cloud's record cleared.
class SyncFilled : public Sync {
  protected:
    void SetUp() override {
        Sync::SetUp();
        ASSERT_EQ(RequestUpdate("wizard-terms")["result"], "success");
        Notification("new_disclaimer_agree_changed");
        ASSERT_EQ(CloudRequests().size(), 2u);
        ClearCloudRequests();
    }
};

TEST_F(SyncFilled, SameVersionsInANewLanguageKeepTheAnswersAndReplaceTheTexts) {
    Agree({"tnc", "viewing"});
    SetVconf("db/menu_widget/language", "fr_FR.utf8");
    EXPECT_EQ(RequestUpdate("wizard-terms")["result"], "success");

    const Json::Value requests = CloudRequests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1]["query"]["lang"], "fr");
    const auto entries =
        AgreementEntries(Notification("new_disclaimer_agree_changed")["agreements"].asString());
    EXPECT_NE(std::find(entries.begin(), entries.end(), "tnc:false"), entries.end());
    auto listed = Listed();
    EXPECT_EQ(listed["tnc"]["title"], DataDisclaimer("US", "tnc")["texts"]["fr"]["title"]);
    EXPECT_TRUE(listed["tnc"]["is_agreed"].asBool());
    EXPECT_TRUE(listed["viewing"]["is_agreed"].asBool());
}

TEST_F(SyncFilled, NewVersionsKeepTheBaseAnswersButDropAndReviseAnyOther) {
    Agree({"tnc", "pp", "viewing", "billing"});
    Publish(R"({"country": "US", "id": "tnc", "version": "9.0"})");
    Publish(R"({"country": "US", "id": "viewing", "version": "3.0"})");
    // Country and language still fit, so only a new run picks the versions up.
    BringNetworkUp();
    EXPECT_EQ(Notification("new_disclaimer_agree_changed")["agreements"], "tnc:false;viewing:false;");

    auto listed = Listed();
    EXPECT_EQ(listed["tnc"]["version"], "9.0");
    EXPECT_TRUE(listed["tnc"]["is_agreed"].asBool());
    EXPECT_EQ(listed["viewing"]["version"], "3.0");
    EXPECT_FALSE(listed["viewing"]["is_agreed"].asBool());
    EXPECT_TRUE(listed["billing"]["is_agreed"].asBool());
    const Json::Value revised = Method("get revised disclaimers")["disclaimers"];
    ASSERT_EQ(revised.size(), 1u);
    EXPECT_EQ(revised[0]["id"], "viewing");
    EXPECT_TRUE(WaitUntil([&] { return VconfNumber("db/tarvodatacontrol/disclaimer_revised") == 1; }));
}

TEST_F(SyncFilled, TheStoreAnswersWhileItFitsAndACountryChangeClearsAndRefillsIt) {
    const Json::Value fromStore = RequestUpdate("settings");
    EXPECT_EQ(fromStore["result"], "success");
    EXPECT_EQ(fromStore["wizard_page"], "wizard-easy");
    EXPECT_EQ(CloudRequests().size(), 0u);

    Agree({"tnc"});
    SetVconf("db/nimbra/countrycode", "DE");
    EXPECT_EQ(RequestUpdate("wizard-terms")["result"], "success");

    const Json::Value requests = CloudRequests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0]["query"]["countrycode"], "DE");
    EXPECT_EQ(requests[1]["path"], "/apps/terms/v4/disclaimers/TVTERMS-DE-2024-04");
    auto listed = Listed();
    EXPECT_EQ(listed["pp"]["version"], DataDisclaimer("DE", "pp")["version"]);
    EXPECT_FALSE(listed["tnc"]["is_agreed"].asBool());
}

// A television that has not yet learned its model id.
class SyncWithoutModel : public Sync {
  protected:
    void SetUp() override {
        PrepareTelevision();
        ASSERT_EQ(vconf_unset("db/nimbra/modelid"), 0);
        StartService();
    }
};

TEST_F(SyncWithoutModel, TwoRequestersWaitingForLateValuesAreBothAnsweredByOneRun) {
    Json::Value request =
        ParseText(R"({"method": "request update disclaimers", "request_from": "wizard-terms"})");
    EXPECT_TRUE(Call(request)["result"].asBool());
    request["request_from"] = "settings";
    EXPECT_TRUE(Call(request)["result"].asBool());
    // The second request found the factory busy waiting and only added its reporting job.
    ASSERT_TRUE(WaitUntil([&] { return LogCount("requester type 1") == 1; }));
    EXPECT_EQ(CloudRequests().size(), 0u);

    SetVconf("db/nimbra/modelid", "TRV65LATE");
    const Json::Value first = Notification("new_disclaimer_got");
    const Json::Value second = Notification("new_disclaimer_got");
    EXPECT_EQ(first["result"], "success");
    EXPECT_EQ(first["wizard_page"], "wizard-terms");
    EXPECT_EQ(second["result"], "success");
    EXPECT_EQ(second["wizard_page"], "wizard-easy");
    const Json::Value requests = CloudRequests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0]["query"]["modelid"], "TRV65LATE");
}

class SyncNimbraTimeout : public SyncWithoutModel {
  protected:
    SyncNimbraTimeout() { m_alarmScale = "0.01"; }
};

TEST_F(SyncNimbraTimeout, TheWaitEndsWithTheTermErrorAndLateValuesStartNothing) {
    m_root.EditProfile([](Json::Value& profile) { profile["term_error"] = "12"; });
    const Json::Value got = RequestUpdate("settings");
    EXPECT_EQ(got["result"], "fail");
    EXPECT_EQ(got["error_code"], 12);
    EXPECT_EQ(got["error_reason"], 1);
    // The time-out's failure names no requester.
    EXPECT_EQ(got["wizard_page"], "wizard-terms");

    SetVconf("db/nimbra/modelid", "TRV65LATE");
    EXPECT_EQ(RequestUpdate("settings")["result"], "success");
    EXPECT_EQ(CloudRequests().size(), 2u);
}

}  // namespace
}  // namespace tarvo::test
