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
using tarvo::test::ParseText;

class ServiceSpine : public ::testing::Test {
  protected:
    void SetUp() override {
        bracken::ser::SetNotificationSink([this](const Sedge::TCMessage& message) {
            std::lock_guard<std::mutex> lock(mutex);
            EXPECT_EQ(message.type, "tarvodatacontrol");
            notifications.push_back(message.json);
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
    Json::Value Call(const char* request) {
        Sedge::TCMessage message;
        message.json = ParseText(request);
        message.type = "test";
        return g_service_proxy->OnCallAPI(message).json;
    }
    std::vector<Json::Value> WaitForNotifications(size_t count) {
        tarvo::test::WaitUntil([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return notifications.size() >= count;
        });
        std::lock_guard<std::mutex> lock(mutex);
        return notifications;
    }

    tarvo::test::TempRoot root;
    tarvo::platform::LogCapture log;
    std::mutex mutex;  // guards notifications
    std::vector<Json::Value> notifications;
};

TEST_F(ServiceSpine, ClientCallsBeforeStartAreServedAndEventsForMissingServicesAreDropped) {
    EXPECT_EQ(Call(R"({"method": "is service available"})"), ParseText(R"({"result": false})"));
    EXPECT_TRUE(log.Contains("m_pKelvaneInfoServ is not created yet"));
    EXPECT_TRUE(Call(R"({"method": "Is Service Available"})").empty());
    EXPECT_TRUE(Call("{}").empty());

    Post(MESSAGE_REQUEST_GET_DISCLAIMER, Json::Value(), 0, KELVANE_INFO_SERV);
    Post(MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT, Json::Value(), 0, DISCLAIMER_AGREEMENT_SERV);
    Post(MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT, Json::Value(), 0,
         static_cast<ETarvoServiceName>(3));
    EXPECT_FALSE(log.Contains("Sending event"));
}

// The other outcomes reach their notifications through the host in the end-to-end tests.
TEST_F(ServiceSpine, UnknownAndUsageEventsEndQuietlyAndAFailureOfTheWizardNamesItsPage) {
    StartService();
    Post(999);
    // The usage events carry a caller's C string, or none; they are read and answered by nobody.
    static const char kBegin[] = "begin";
    Post(MESSAGE_CLOGGER_EVENT_MOVETOPPANEL, Json::Value(), reinterpret_cast<intptr_t>("settings"));
    Post(MESSAGE_CLOGGER_EVENT_TICK);
    Post(MESSAGE_CLOGGER_EVENT_P01_PRIVACY, Json::Value(), reinterpret_cast<intptr_t>(kBegin));
    Post(MESSAGE_GET_DISCLAIMER_FAIL, ParseText(R"({"error_reason": 0, "requester": 0})"), 0);
    EXPECT_EQ(WaitForNotifications(1),
              std::vector<Json::Value>{ParseText(R"({"type": "terms_protocol", "name": "new_disclaimer_got",
                  "result": "fail", "error_code": 0, "error_reason": 0, "wizard_page": "wizard-terms"})")});
    EXPECT_TRUE(log.Contains("CTarvoDataControlService::t_OnEvent... 999"));
    for (const char* name : {"MOVETOPPANEL", "TICK", "P01_PRIVACY"})
        EXPECT_TRUE(log.Contains(std::string("get event MESSAGE_CLOGGER_EVENT_") + name)) << name;
}

using NetworkMonitor = ServiceSpine;

TEST_F(NetworkMonitor, DownNetworkComingUpSendsTheInitEventOnceAndStatusZeroNeverChecks) {
    root.EditProfile([](Json::Value& p) { p["network"]["up"] = false; });
    StartService();
    EXPECT_TRUE(log.Contains("network connect fail!"));

    ASSERT_TRUE(tarvo::platform::SetNetworkDown());
    ASSERT_TRUE(tarvo::platform::NotifyDnsChanged());
    ASSERT_TRUE(log.WaitFor("Network state == 0, vconfkey=memory/dnet/dns_changed", seconds(10)));

    ASSERT_TRUE(tarvo::platform::SetNetworkUp("ethernet"));
    ASSERT_TRUE(log.WaitFor("send MESSAGE_KELVANE_INFO_SERVICE_INIT", seconds(15)));
    EXPECT_TRUE(log.WaitFor("CTarvoDataControlService::t_OnEvent... 256", seconds(10)));

    ASSERT_TRUE(tarvo::platform::NotifyDnsChanged());
    EXPECT_TRUE(log.WaitFor("Already done!", seconds(10)));
    EXPECT_EQ(log.Count("waiting for network connection for 2 seconds!!..."), 1u);
    EXPECT_EQ(log.Count("send MESSAGE_KELVANE_INFO_SERVICE_INIT"), 1u);
}

}  // namespace
