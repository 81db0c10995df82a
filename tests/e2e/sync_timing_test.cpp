// Requests that must wait for the device values, and the time-out of that wait.
#include "sync_fixture.h"

#include <vconf.h>

namespace tarvo {
namespace test {
namespace {

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
}  // namespace test
}  // namespace tarvo
