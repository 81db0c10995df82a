#include <bracken/ser.h>
#include <gtest/gtest.h>
#include <tarvo/log_capture.h>
#include <tarvo/platform.h>

#include <chrono>
#include <mutex>
#include <vector>

#include "TarvoDataControlService.h"
#include "tarvo_test.h"

namespace {

using std::chrono::seconds;

class ServiceSpine : public ::testing::Test {
  protected:
    void SetUp() override {
        bracken::ser::SetNotificationSink([this](const Sedge::TCMessage& message) {
            std::lock_guard<std::mutex> lock(mutex);
            notifications.push_back(message);
        });
    }

    void TearDown() override { bracken::ser::SetNotificationSink(nullptr); }

    // Starts the service as the host does and waits for the init event to finish.
    void StartService() {
        ASSERT_TRUE(g_service->Start());
        ASSERT_TRUE(log.WaitFor("Data Control Service Created Success!", seconds(10)));
    }

    void Post(int32_t type, const Json::Value& data = Json::Value(), intptr_t param = 0,
              ETarvoServiceName service = DATA_CONTROL_MAIN_SERV) {
        Sedge::TCEvent event;
        event.type = type;
        event.data.json = data;
        event.data.param = param;
        EXPECT_TRUE(CTarvoDataControlService::GetInstance()->SendEvent(&event, service));
    }

    Json::Value Call(const Json::Value& request) {
        Sedge::TCMessage message;
        message.json = request;
        message.type = "test";
        return g_service_proxy->OnCallAPI(message).json;
    }

    std::vector<Json::Value> WaitForNotifications(size_t count) {
        tarvo::test::WaitUntil([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return notifications.size() >= count;
        });
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<Json::Value> bodies;
        for (const Sedge::TCMessage& message : notifications) {
            EXPECT_EQ(message.type, "tarvodatacontrol");
            bodies.push_back(message.json);
        }
        return bodies;
    }

    tarvo::test::TempRoot root;
    tarvo::platform::LogCapture log;
    std::mutex mutex;  // guards notifications
    std::vector<Sedge::TCMessage> notifications;
};

TEST_F(ServiceSpine, ClientCallsBeforeStartAreServedAndEventsForMissingServicesAreDropped) {
    EXPECT_EQ(g_service_name, "tarvodatacontrol");
    Json::Value request;
    request["method"] = "is service available";
    Json::Value reply = Call(request);
    EXPECT_FALSE(reply["result"].asBool());
    EXPECT_TRUE(reply.isMember("result"));
    EXPECT_TRUE(log.Contains("m_pKelvaneInfoServ is not created yet"));

    request["method"] = "Is Service Available";
    EXPECT_TRUE(Call(request).empty());
    EXPECT_TRUE(Call(Json::Value(Json::objectValue)).empty());
    EXPECT_EQ(log.Count("UNKNOWN MESSAGE FOR TARVODATACONTROL"), 2u);
    EXPECT_EQ(log.Count("reply empty..."), 2u);

    Post(MESSAGE_REQUEST_GET_DISCLAIMER, Json::Value(), 0, KELVANE_INFO_SERV);
    Post(MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT, Json::Value(), 0, DISCLAIMER_AGREEMENT_SERV);
    Post(MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT, Json::Value(), 0,
         static_cast<ETarvoServiceName>(3));
    EXPECT_FALSE(log.Contains("Sending event"));
}

TEST_F(ServiceSpine, StartOnALiveNetworkRunsTheInitChainAndOutcomeEventsBecomeNotifications) {
    StartService();
    EXPECT_TRUE(log.Contains("NETWORK is connectd "));
    EXPECT_TRUE(log.WaitFor("CTarvoDataControlService::t_OnEvent... 256", seconds(10)));
    EXPECT_TRUE(log.WaitFor("MESSAGE_TARVOPANEL_INTERNAL_DISCLAIMER_REVISED", seconds(10)));
    // An unknown number ends quietly and the loop goes on with the next event.
    Post(999);
    Json::Value easy;
    easy["requester"] = 1;
    Json::Value nimbraTimeout;
    nimbraTimeout["error_reason"] = 1;
    Json::Value serverFailure;
    serverFailure["error_reason"] = 0;
    serverFailure["requester"] = 0;
    Post(MESSAGE_GET_DISCLAIMER_SUCCESS, easy);
    Post(MESSAGE_GET_DISCLAIMER_FAIL, nimbraTimeout, 7);
    Post(MESSAGE_GET_DISCLAIMER_FAIL, serverFailure, 0);
    Post(MESSAGE_GET_COUNTRYCODE_LIST_FAIL, nimbraTimeout, 5);

    const std::vector<Json::Value> bodies = WaitForNotifications(4);
    ASSERT_EQ(bodies.size(), 4u);
    for (const Json::Value& body : bodies) {
        EXPECT_EQ(body["type"], "terms_protocol");
    }
    EXPECT_EQ(bodies[0]["name"], "new_disclaimer_got");
    EXPECT_EQ(bodies[0]["result"], "success");
    EXPECT_EQ(bodies[0]["wizard_page"], "wizard-easy");
    EXPECT_EQ(bodies[1]["result"], "fail");
    EXPECT_EQ(bodies[1]["error_code"], 7);
    EXPECT_EQ(bodies[1]["error_reason"], 1);
    EXPECT_EQ(bodies[1]["wizard_page"], "wizard-terms");
    EXPECT_EQ(bodies[2]["error_reason"], 0);
    EXPECT_EQ(bodies[2]["wizard_page"], "wizard-terms");
    EXPECT_EQ(bodies[3]["name"], "new_country_list_got");
    EXPECT_EQ(bodies[3]["result"], "fail");
    EXPECT_EQ(bodies[3]["error_code"], 5);
    EXPECT_EQ(bodies[3]["error_reason"], 1);
    EXPECT_TRUE(log.Contains("MESSAGE_GET_DISCLAIMER_FAIL 7"));
    EXPECT_TRUE(log.Contains("CTarvoDataControlService::t_OnEvent... 999"));
}

TEST_F(ServiceSpine, PowerOffClosesTheStoreOnlyWithoutBitThirtyAndWakeupChecksTheNetwork) {
    StartService();
    ASSERT_TRUE(tarvo::platform::RunPowerOff(0x40000000));
    ASSERT_TRUE(tarvo::platform::RunPowerOff(0x40000000 | 0x3));
    EXPECT_EQ(log.Count("m_PowerOffCallback END"), 2u);
    EXPECT_FALSE(log.Contains("close database"));
    ASSERT_TRUE(tarvo::platform::RunPowerOff(0x3FFFFFFF));
    EXPECT_EQ(log.Count("close database"), 1u);

    const size_t connectedBefore = log.Count("NETWORK is connectd ");
    ASSERT_TRUE(tarvo::platform::RunWakeup(0));
    EXPECT_EQ(log.Count("NETWORK is connectd "), connectedBefore + 1);
    EXPECT_TRUE(tarvo::test::WaitUntil(
        [&] { return log.Count("CTarvoDataControlService::t_OnEvent... 256") == 2u; }));

    root.EditProfile([](Json::Value& p) { p["network"]["up"] = false; });
    ASSERT_TRUE(tarvo::platform::RunWakeup(0));
    EXPECT_TRUE(log.Contains("network connect fail!"));
}

class NetworkMonitor : public ServiceSpine {};

TEST_F(NetworkMonitor, DownNetworkComingUpSendsTheInitEventOnceAndStatusZeroNeverChecks) {
    root.EditProfile([](Json::Value& p) { p["network"]["up"] = false; });
    StartService();
    EXPECT_TRUE(log.Contains("network connect fail!"));
    EXPECT_TRUE(log.Contains("Fail to get profile "));

    ASSERT_TRUE(tarvo::platform::SetNetworkDown());
    ASSERT_TRUE(tarvo::platform::NotifyDnsChanged());
    ASSERT_TRUE(log.WaitFor("Network state == 0, vconfkey=memory/dnet/dns_changed", seconds(10)));

    ASSERT_TRUE(tarvo::platform::SetNetworkUp("ethernet"));
    ASSERT_TRUE(log.WaitFor("send MESSAGE_KELVANE_INFO_SERVICE_INIT", seconds(15)));
    EXPECT_TRUE(log.WaitFor("CTarvoDataControlService::t_OnEvent... 256", seconds(10)));
    // The abandoned connection is rebuilt, and the wired network refreshes the address twice.
    EXPECT_EQ(log.Count("Create connection net value : 0"), 2u);
    EXPECT_TRUE(
        tarvo::test::WaitUntil([&] { return log.Count("Get Mac Address : AA:BB:CC:DD:EE:FF") == 2u; }));

    ASSERT_TRUE(tarvo::platform::NotifyDnsChanged());
    EXPECT_TRUE(log.WaitFor("Already done!", seconds(10)));
    EXPECT_EQ(log.Count("waiting for network connection for 2 seconds!!..."), 1u);
    EXPECT_EQ(log.Count("send MESSAGE_KELVANE_INFO_SERVICE_INIT"), 1u);
}

}  // namespace
