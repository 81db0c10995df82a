// The real service in tarvo-service-host over a store filled before start, with a client
// connection for calls and a subscribed one for notifications. The network is down, so no
// server request runs. Used from the test's thread only.
#pragma once

#include "disclaimer_rows.h"
#include "host_client.h"
#include "process.h"
#include "tarvo_test.h"

#include <vconf.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tarvo::test {

// Six records: every requester sees a different list, one is revised, one is unavailable on
// this set (it needs UHD RM, which the default profile lacks), one is a common item.
inline std::vector<DisclaimerRow> SeedRows() {
    DisclaimerRow common{"main_common"};
    common.title = "Welcome";

    DisclaimerRow tnc{"tnc", 1};
    tnc.title = "Terms and Conditions";
    tnc.intro = "Please read";
    tnc.details = "All the terms";
    tnc.buttons = {"Agree", "Disagree"};

    DisclaimerRow pp{"pp", 2};
    pp.title = "Privacy Policy";
    pp.agreed = true;
    pp.ppUsed = true;

    DisclaimerRow voice{"voice_new", 4, "Sub"};
    voice.version = "2.1";
    voice.title = "Voice";
    voice.visibleAtPnP = false;
    voice.checkVoiceRec = true;
    voice.revised = true;
    voice.reverse = true;
    voice.agreeDependency = "pp";

    DisclaimerRow viewing{"viewing", 0, "Sub"};
    viewing.title = "Viewing Information";
    viewing.intro = "Intro";
    viewing.details = "Line one\nLine two";
    viewing.visibleAtMenu = false;
    viewing.onlyNotice = true;
    for (int i = 1; i <= 10; ++i) viewing.buttons.push_back("B" + std::to_string(i));

    DisclaimerRow uhd{"uhd_video", 3, "Menu"};
    uhd.title = "UHD";
    uhd.checkUHDRM = true;
    uhd.agreed = true;

    return {common, tnc, pp, voice, viewing, uhd};
}

class SeededService : public ::testing::Test {
  protected:
    void SetUp() override {
        m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = false; });
        ASSERT_TRUE(WriteDisclaimerRows(m_root, Rows(), "en"));
        StartService();
    }

    // The records the store holds at start.
    virtual std::vector<DisclaimerRow> Rows() const { return SeedRows(); }

    // Starts the host on the root as it is and waits until the start-up events have run.
    void StartService() {
        const size_t created = LogCount("Data Control Service Created Success!");
        const size_t checked = LogCount("m_CheckRevisedTerms");
        m_host = StartHost(m_root, TARVO_MODULE_PATH);
        ASSERT_NE(m_host, nullptr);
        ASSERT_TRUE(m_client.Connect(DefaultSocket(m_root)));
        ASSERT_TRUE(m_listener.Subscribe(DefaultSocket(m_root)));
        ASSERT_TRUE(WaitForLog("Data Control Service Created Success!", created + 1));
        ASSERT_TRUE(WaitForLog("m_CheckRevisedTerms", checked + 1));
    }

    // Ends the host; StartService connects both clients afresh.
    void StopService() { m_host.reset(); }

    // The answer frame of a call written as raw JSON text, for numbers JsonCpp would not build.
    Json::Value RawAnswer(const std::string& call) {
        EXPECT_TRUE(m_client.SendLine(R"({"id": 99, "call": )" + call + "}"));
        const auto answer = m_client.ReadFrame();
        EXPECT_TRUE(answer) << "no answer to " << call;
        return answer ? *answer : Json::Value();
    }

    // The reply of one call; a call that fails fails the test.
    Json::Value Ask(const Json::Value& request) {
        const auto answer = m_client.Call(request);
        EXPECT_TRUE(answer && answer->isMember("reply")) << ToLine(request);
        return answer ? (*answer)["reply"] : Json::Value();
    }

    Json::Value Ask(const char* method) { return Ask(Method(method)); }

    // A call of `method` with one argument.
    Json::Value Ask(const char* method, const char* key, const Json::Value& value) {
        Json::Value request = Method(method);
        request[key] = value;
        return Ask(request);
    }

    Json::Value Number(int requester) { return Ask("get disclaimer number", "requester", requester); }
    Json::Value ById(const std::string& id) { return Ask("get disclaimer by term id", "request_item", id); }

    Json::Value Ordered(int requester, int index) {
        Json::Value request = Method("get disclaimer by order");
        request["requester"] = requester;
        request["request_index"] = index;
        return Ask(request);
    }

    Json::Value Agree(const std::string& id, bool agreed) {
        Json::Value request = Method("set one agreement");
        request["request_item"] = id;
        request["is_agreed"] = agreed;
        return Ask(request);
    }

    // The ids a requester's list gives, in order, index by index.
    std::string OrderedIds(int requester) {
        std::string ids;
        const Json::UInt count = Number(requester)["number"].asUInt();
        for (Json::UInt i = 0; i < count; ++i) {
            ids += Ordered(requester, static_cast<int>(i))["id"].asString() + " ";
        }
        return ids;
    }

    // The next notification body; a test failure when none comes.
    Json::Value NextNotification() {
        const auto frame = m_listener.ReadFrame();
        EXPECT_TRUE(frame && frame->isMember("notification")) << (frame ? ToLine(*frame) : "nothing");
        if (frame) {
            EXPECT_EQ((*frame)["type"], "tarvodatacontrol");
        }
        return frame ? (*frame)["notification"] : Json::Value();
    }

    // Nothing was notified so far: the host writes in order, so the answer to a ping on the
    // listener comes first when no notification is pending.
    void ExpectNoNotification() {
        const auto frame = m_listener.Control("ping");
        ASSERT_TRUE(frame);
        EXPECT_FALSE(frame->isMember("notification")) << ToLine(*frame);
    }

    size_t LogCount(const std::string& text) const { return test::LogCount(m_root, text); }
    RunResult Ctl(const std::vector<std::string>& args) { return RunCtl(m_root, args); }

    bool WaitForLog(const std::string& text, size_t count = 1) const {
        return WaitUntil([&] { return LogCount(text) >= count; });
    }

    // Asks for the reset and waits for its last step, the mark it leaves (logged just before).
    void Reset() {
        const size_t before = LogCount("set VCONF db/ostrel/reset/tarvosetting 1");
        EXPECT_EQ(Ask("request reset ostrel")["result"], true);
        ASSERT_TRUE(WaitForLog("set VCONF db/ostrel/reset/tarvosetting 1", before + 1));
        ASSERT_TRUE(WaitUntil([] { return VconfNumber("db/ostrel/reset/tarvosetting") == 1; }));
    }

    TempRoot m_root;
    std::unique_ptr<ChildProcess> m_host;
    HostClient m_client;
    HostClient m_listener;
};

}  // namespace tarvo::test
