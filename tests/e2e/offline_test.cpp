// A television whose network goes down while the service runs: no request reaches the cloud until
// the network is back, as `tarvoctl network down|up|dns` switches it, on whatever kind of link;
// and what the host's terminal shows of the platform log.
#include <cstdlib>
#include <functional>

#include "sync_fixture.h"

namespace tarvo::test {
namespace {

class Offline : public Sync {
  protected:
    // The service runs connected, its first sync and upload done, its log mirrored to stderr at
    // the default level.
    void SetUp() override {
        PrepareTelevision();
        m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = true; });
        setenv("TARVO_LOG_STDERR", "1", 1);
        unsetenv("TARVO_LOG_LEVEL");
        StartService();
        EXPECT_EQ(Notification("new_disclaimer_agree_changed")["name"], "new_disclaimer_agree_changed");
        ASSERT_TRUE(WaitUntil([&] { return Reported()["tnc"] == "N"; }, std::chrono::seconds(20)))
            << ToLine(CloudAgreements());
    }

    void Network(std::vector<std::string> words) {
        words.insert(words.begin(), "network");
        const RunResult run = RunCtl(m_root, words);
        ASSERT_EQ(run.exit_code, 0) << run.out << run.err;
    }
};

TEST_F(Offline, NoAnswerOrFetchReachesTheCloudWhileTheNetworkIsDownAndTheNextOneAfterDoes) {
    Network({"down"});
    ClearCloudRequests();
    Agree({"tnc"}, true);
    // The host's terminal shows warnings, errors and one line per transfer, without colour codes
    // when it is no terminal; the file keeps every line.
    ASSERT_TRUE(WaitUntil(
        [&] { return m_host->Stderr().find("Agreement Server Connection Fail!") != std::string::npos; }));
    const std::string shown = m_host->Stderr();
    EXPECT_EQ(shown.find('\033'), std::string::npos);
    EXPECT_EQ(shown.find(" I/TarvoDataControl("), std::string::npos);
    EXPECT_EQ(shown.find(" D/"), std::string::npos);
    EXPECT_NE(shown.find(" I/TarvoHttp("), std::string::npos) << "the start's fetches and upload";
    EXPECT_NE(shown.find("Network is unreachable"), std::string::npos) << shown;
    EXPECT_GT(LogCount(" I/TarvoDataControl("), 0u);
    EXPECT_EQ(LogCount("\033["), 0u);
    // A new language makes the service fetch, which fails as on a set without a route (the
    // service then answers from its stored set).
    SetVconf("db/menu_widget/language", "ko_kr.utf8");
    RequestUpdate("tarvoctl");
    EXPECT_GE(LogCount("m_errorCode = 7"), 1u);
    EXPECT_EQ(ToLine(CloudRequests("GET")), "[]");
    EXPECT_EQ(ToLine(CloudRequests("PUT")), "[]");
    EXPECT_EQ(Reported()["tnc"], "N");

    // Back online, the next change carries every answer and the fetch goes out.
    Network({"up", "ethernet"});
    Agree({"pp"}, true);
    ASSERT_TRUE(WaitUntil([&] { return Reported()["pp"] == "Y"; }, std::chrono::seconds(20)))
        << ToLine(CloudAgreements());
    EXPECT_EQ(Reported()["tnc"], "Y");
    EXPECT_EQ(RequestUpdate("tarvoctl")["result"], "success");
    EXPECT_GT(CloudRequests("GET").size(), 0u);
}

// A link is up only when its DNS answers; wifi, cellular and bt links then sync as the wired one
// does, also when no address can be read, and a new address makes the device id be read afresh.
TEST_F(Offline, EveryProfileSyncsOnceItsDnsAnswersAndANewAddressRereadsTheDeviceId) {
    // Waits for the sync that `step` starts to end; nothing is new, so each fetches the notice alone.
    auto synced = [&](const std::function<void()>& step) {
        const size_t ends = LogCount("Total process END");
        step();
        return WaitUntil([&] { return LogCount("Total process END") > ends; }, std::chrono::seconds(20));
    };
    m_root.EditProfile([](Json::Value& p) { p["network"]["dns"] = false; });
    ClearCloudRequests();
    // The wake-up finds no network and watches for one; wifi without DNS is none either.
    ASSERT_TRUE(m_calls.Control("wakeup"));
    Network({"up", "wifi"});
    ASSERT_TRUE(WaitUntil([&] { return LogCount("Network is not successful! try again!!") == 1; }));
    EXPECT_EQ(CloudRequests().size(), 0u);

    m_root.EditProfile([](Json::Value& p) {
        p["network"]["dns"] = true;
        p["network"].removeMember("mac");
    });
    SetVconf("db/nimbra/duid", "DUID-NEW-LINK");
    ASSERT_TRUE(synced([&] { Network({"dns"}); }));
    EXPECT_EQ(CloudRequests().size(), 1u);
    Agree({"pp"}, true);
    EXPECT_TRUE(WaitUntil([&] { return CloudAgreements()["production"].isMember("DUID-NEW-LINK"); },
                          std::chrono::seconds(20)))
        << ToLine(CloudAgreements());

    for (const char* profile : {"cellular", "bt"}) {
        Network({"up", profile});
        ASSERT_TRUE(synced([&] { ASSERT_TRUE(m_calls.Control("wakeup")); })) << profile;
    }
    EXPECT_EQ(CloudRequests().size(), 3u);
}

}  // namespace
}  // namespace tarvo::test
