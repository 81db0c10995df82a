// tarvo-logctl, a program linked against the module as a television application is, sends usage
// events by the loggers' default URL over HTTPS to the cloud's log servers; the factory's server
// mode chooses the deployment.
#include "sync_fixture.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

namespace tarvo::test {
namespace {

class LoggerToCloud : public Sync {
  protected:
    // The cloud and the device values only, online: the loggers need no running service.
    void SetUp() override {
        PrepareTelevision();
        m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = true; });
    }

    RunResult LogCtl(std::vector<std::string> args) {
        args.insert(args.begin(), {TARVO_LOGCTL_BIN, "--root", m_root.Path()});
        return RunProgram(args, {}, m_root.Path() + "/logctl");
    }
};

TEST_F(LoggerToCloud, EventsReachTheDeploymentOfTheServerModeAndARefusedBatchFails) {
    const std::vector<std::string> steps = {"move-to-panel", "settings",   "tick",          "boot",
                                            "home",          "send-ticks", "privacy-start", "privacy-end"};
    for (const auto& [mode, deployment] : {std::pair<int, std::string>{0, "production"}, {1, "staging"}}) {
        SCOPED_TRACE(deployment);
        m_root.EditProfile([mode = mode](Json::Value& p) { p["factory_data"]["166"] = mode; });
        ClearCloudLogEvents();
        const RunResult run = LogCtl(steps);
        ASSERT_EQ(run.exit_code, 0) << run.out << run.err;
        const int port = deployment == "production" ? m_productionPort : m_stagingPort;
        EXPECT_NE(run.out.find("14_global logs to https://127.0.0.1:" + std::to_string(port) +
                               "/openapi/log/14_global/US"),
                  std::string::npos)
            << run.out;

        const Json::Value events = CloudLogEvents();
        ASSERT_EQ(events.size(), 3u) << events;
        const std::string paths[] = {"/openapi/log/14_global/US", "/openapi/log/14_global/US",
                                     "/openapi/log/14_tvpnp/US"};
        const std::string names[] = {"MOVETOPANEL", "TICK", "P01_PRIVACY"};
        const std::string categories[] = {"EV001", "EV002", "PG004"};
        for (Json::ArrayIndex i = 0; i < 3; ++i) {
            EXPECT_EQ(events[i]["deployment"], deployment);
            EXPECT_EQ(events[i]["path"], paths[i]);
            EXPECT_EQ(events[i]["service"], paths[i].substr(13, paths[i].size() - 16));
            EXPECT_EQ(events[i]["name"], names[i]);
            EXPECT_EQ(events[i]["category"], categories[i]);
            EXPECT_EQ(events[i]["value"], "T-1010.5");
            EXPECT_TRUE(std::regex_match(events[i]["time"].asString(),
                                         std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\+0000)")))
                << events[i]["time"];
        }
        EXPECT_EQ(events[0]["desc"], "{service = settings}");
        EXPECT_TRUE(std::regex_match(events[1]["desc"].asString(), std::regex(R"(\{boot:\d+;home:\d+\})")))
            << events[1]["desc"];
        EXPECT_EQ(events[2]["desc"], "{du=0;type=menu}");
    }

    Fault(R"({"path": "log", "kind": "http_status", "status": 500})");
    const RunResult refused = LogCtl({"move-to-panel", "settings"});
    EXPECT_EQ(refused.exit_code, 1) << refused.out << refused.err;
    EXPECT_NE(refused.err.find("not delivered"), std::string::npos) << refused.err;
    EXPECT_EQ(LogCtl({"privacy", "soon"}).exit_code, 2);
}

}  // namespace
}  // namespace tarvo::test
