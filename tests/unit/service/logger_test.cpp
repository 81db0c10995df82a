// The usage loggers against a loopback log server: the policy file or its defaults, the lazy
// set-up and its tear-down after a failure, the tick collection and the first-run duration. The
// events' names, categories, values, times and texts are checked at the cloud, end to end.
#include <Sedge/Sedge.h>
#include <gtest/gtest.h>
#include <tarvo/log_capture.h>
#include <vconf.h>

#include <string>
#include <vector>

#include "loopback_http.h"
#include "TarvoGlobalLogger.h"
#include "TarvoPnPLogger.h"
#include "tarvo_test.h"

namespace {

constexpr char kNamespace[] = "http://127.0.0.1/api/1.0";
// Nothing listens on the discard port, so a default https URL fails at once.
constexpr char kProductionHost[] = "127.0.0.1:9";
constexpr char kStagingHost[] = "127.0.0.2:9";

class UsageLogger : public ::testing::Test {
  protected:
    void SetUp() override {
        http.Start();
        root.EditProfile([](Json::Value& p) {
            p["deployment"]["log_policy_namespace"] = kNamespace;
            p["deployment"]["log_production_host"] = kProductionHost;
            p["deployment"]["log_staging_host"] = kStagingHost;
        });
        vconf_set_str("db/nimbra/countrycode", "US");
        vconf_set_str("db/nimbra/modelid", "TRV55");
        vconf_set_str("db/nimbra/duid", "DUID-7");
    }
    void TearDown() override {
        CTarvoGlobalLogger::Destroy();
        CTarvoPnPLogger::Destroy();
    }

    // A policy whose one service sends to `path` on the loopback server; `attributes` and
    // `events` go into its element as given.
    void WritePolicy(const std::string& stat, const std::string& service, const std::string& path,
                     const std::string& attributes, const std::string& events) {
        tarvo::test::WriteFile(root.At("/opt/down/common/LogPolicyConfig.xml"),
                               std::string("<?xml version=\"1.0\"?>\n<rsp xmlns=\"") + kNamespace +
                                   "\" stat=\"" + stat + "\"><list><service name=\"" + service + "\" url=\"" +
                                   http.Url(path) + "\" " + attributes + ">" + events +
                                   "</service></list></rsp>");
    }
    void WriteGlobalPolicy(const std::string& attributes, const std::string& stat = "ok") {
        WritePolicy(stat, "14_global", "/openapi/log/policy", attributes,
                    "<event name=\"MOVETOPANEL\" loglevel=\"3\"/><event name=\"TICK\" loglevel=\"4\"/>");
    }

    // Every event the server received, in order, each with the path and service of its batch.
    std::vector<Json::Value> Events() const {
        std::vector<Json::Value> events;
        for (const httplib::Request& request : http.Requests()) {
            Json::Value batch;
            EXPECT_TRUE(Json::Reader().parse(request.body, batch)) << request.body;
            for (Json::Value event : batch["events"]) {
                event["path"] = request.path;
                event["service"] = batch["service"];
                event["header"] = batch["header"];
                events.push_back(event);
            }
        }
        return events;
    }

    tarvo::test::TempRoot root;
    tarvo::platform::LogCapture log;
    tarvo::test::LoopbackHttp http;
    CTarvoGlobalLogger* global = CTarvoGlobalLogger::GetInstance();
};

TEST_F(UsageLogger, WithoutAUsablePolicyTheDefaultsSendToTheServerModesHost) {
    for (int i = 1; i < 30; ++i) global->SendMoveToPanelLog("settings");
    EXPECT_FALSE(log.Contains("log post to")) << "the default queue holds 30 events";
    global->SendMoveToPanelLog("settings");
    EXPECT_TRUE(log.Contains("log post to https://127.0.0.1:9/openapi/log/14_global/US failed"));
    EXPECT_TRUE(log.Contains("Expiration 60"));
    EXPECT_TRUE(log.Contains("Loglevel 10"));

    // A policy that is not "ok" changes nothing, and the next set-up reads the mode anew.
    WriteGlobalPolicy("queue_max=\"1\"", "fail");
    root.EditProfile([](Json::Value& p) { p["factory_data"]["166"] = 1; });
    vconf_set_str("db/nimbra/countrycode", "DE");
    global->SendMoveToPanelLog("settings");
    CTarvoGlobalLogger::Destroy();
    EXPECT_TRUE(log.Contains("Error: recieved body is not ok"));
    EXPECT_TRUE(log.Contains("log post to https://127.0.0.2:9/openapi/log/14_global/DE failed"));
    EXPECT_TRUE(http.Requests().empty());
}

TEST_F(UsageLogger, APolicyWithStatOkAmongBlanksSetsUpOnceForABatchOfEvents) {
    WriteGlobalPolicy("queue_max=\"2\" expiration=\"90\" loglevel=\"7\"", " ok ");
    global->SendMoveToPanelLog("settings");
    EXPECT_TRUE(http.Requests().empty());
    global->SendMoveToPanelLog("apps");
    ASSERT_EQ(http.Requests().size(), 1u) << "queue_max 2 sends the two together";

    const std::vector<Json::Value> events = Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["path"], "/openapi/log/policy");
    EXPECT_EQ(events[0]["service"], "14_global");
    EXPECT_EQ(events[1]["desc"], "{service = apps}");
    EXPECT_EQ(events[0]["header"], tarvo::test::ParseText(R"({"model_name": "TRV55", "user_id": "DUID-7",
        "duid": "DUID-7", "country_code": "US"})"));
    EXPECT_TRUE(log.Contains("Expiration 90"));
}

TEST_F(UsageLogger, TheServiceValuesStandOnlyWhenTheTickLevelIsRead) {
    // A url alone leaves queue_max at 0, which the client treats as a queue of one.
    WritePolicy("ok", "14_global", "/url-only", "", "<event name=\"TICK\" loglevel=\"4\"/>");
    global->SendMoveToPanelLog("settings");
    ASSERT_EQ(Events().size(), 1u);
    EXPECT_EQ(Events()[0]["path"], "/url-only");
    EXPECT_TRUE(log.Contains("Expiration 0"));
    CTarvoGlobalLogger::Destroy();

    WritePolicy("ok", "14_global", "/no-tick-level", "queue_max=\"1\"",
                "<event name=\"MOVETOPANEL\" loglevel=\"3\"/><event name=\"TICK\"/>");
    CTarvoGlobalLogger::GetInstance()->SendMoveToPanelLog("settings");
    CTarvoGlobalLogger::Destroy();
    EXPECT_EQ(Events().size(), 1u) << "the defaults send elsewhere";
    EXPECT_TRUE(log.Contains("Set Default Value"));
    EXPECT_TRUE(log.Contains("log post to https://127.0.0.1:9/openapi/log/14_global/US failed"));
}

TEST_F(UsageLogger, AFailedDeliveryTearsTheClientDownAndTheNextEventSetsUpAnew) {
    WritePolicy("ok", "14_global", "/fail", "queue_max=\"1\"", "<event name=\"TICK\" loglevel=\"4\"/>");
    global->SendMoveToPanelLog("refused");
    EXPECT_TRUE(log.Contains("Could not add  event log "));

    WriteGlobalPolicy("queue_max=\"1\"");
    global->SendMoveToPanelLog("accepted");
    const std::vector<Json::Value> events = Events();
    ASSERT_EQ(events.size(), 2u) << "no retry of the refused batch";
    EXPECT_EQ(events[0]["path"], "/fail");
    EXPECT_EQ(events[1]["path"], "/openapi/log/policy");
    EXPECT_EQ(events[1]["desc"], "{service = accepted}");
}

TEST_F(UsageLogger, TicksAreCutTo510BytesAndTheCollectionStaysBelow999) {
    WriteGlobalPolicy("queue_max=\"30\"");
    global->SendTickLog();
    const std::string seconds = std::to_string(Sedge::TCAlarm::GetTickCount() / 1000);
    // Each tick is NAME ":" SECONDS ";".
    auto name = [&](char letter, size_t tickLength) {
        return std::string(tickLength - seconds.size() - 2, letter);
    };
    global->AddTick(std::string(600, 'a'));  // cut to 510 bytes, its count and ";" lost
    global->AddTick(name('b', 489));         // 999: refused
    global->AddTick(name('c', 488));         // 998: taken
    global->AddTick("d");
    global->SendTickLog();
    global->SendTickLog();  // the first emptied the collection
    CTarvoGlobalLogger::Destroy();

    const std::vector<Json::Value> events = Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["desc"], "{" + std::string(510, 'a') + name('c', 488) + ":" + seconds + "}");
}

TEST_F(UsageLogger, PrivacyDurationRunsFromItsStartOrFromZeroWithoutOne) {
    WritePolicy("ok", "14_tvpnp", "/openapi/log/pnp", "queue_max=\"30\"",
                "<event name=\"P01_PRIVACY\" loglevel=\"2\"/>");
    CTarvoPnPLogger* pnp = CTarvoPnPLogger::GetInstance();
    pnp->SetPNPDisclaimerStartTime();
    pnp->SendP01PrivacyLog();
    const unsigned long before = Sedge::TCAlarm::GetTickCount() / 1000;
    pnp->SendP01PrivacyLog();
    const unsigned long after = Sedge::TCAlarm::GetTickCount() / 1000;
    CTarvoPnPLogger::Destroy();

    const std::vector<Json::Value> events = Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["desc"], "{du=0;type=menu}");
    const std::string whole = events[1]["desc"].asString();
    EXPECT_TRUE(whole == "{du=" + std::to_string(before) + ";type=menu}" ||
                whole == "{du=" + std::to_string(after) + ";type=menu}")
        << whole;
}

}  // namespace
