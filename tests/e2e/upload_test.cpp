// The user's answers on their way to the agreement server: the signed document the cloud
// receives, what counts as reported, and the server's faults.
#include <openssl/sha.h>

#include <cstdio>

#include "sync_fixture.h"

namespace tarvo::test {
namespace {

class Upload : public Sync {
  protected:
    void SetUp() override { PrepareTelevision(); }

    // Starts the service with the network up and waits for its first sync.
    void StartConnected() {
        m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = true; });
        StartService();
        EXPECT_EQ(Notification("new_disclaimer_agree_changed")["name"], "new_disclaimer_agree_changed");
    }

    void Restart() {
        m_host.reset();
        std::rename(m_root.At("/var/log/tarvo.log").c_str(), m_root.At("/var/log/tarvo.log.1").c_str());
        m_pending.clear();
        StartService();
    }

    // The PUTs that reached either agreement port, oldest first.
    std::vector<Json::Value> Puts() {
        const Json::Value puts = CloudRequests("PUT");
        return std::vector<Json::Value>(puts.begin(), puts.end());
    }

    // The cloud holds the answer and the service has finished marking what it reported.
    bool WaitReported(const std::string& deployment, const std::string& id, const std::string& letter) {
        return WaitUntil([&] { return Reported(deployment)[id] == letter; }, std::chrono::seconds(20)) &&
               WaitUploadsEnded();
    }

    bool WaitUploadsEnded() {
        return WaitUntil(
            [&] { return LogCount("m_easyHandle reset") == LogCount("m_easyHandle Initialize"); });
    }

    // What the cloud must have received for the store's current answers.
    std::string ExpectedDocument(std::string* letters) {
        std::string document = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<AgreeTerms>\n";
        for (const auto& [id, item] : Listed()) {
            if (item["only_notice"].asBool()) continue;
            const char* letter = item["is_agreed"].asBool() ? "Y" : "N";
            *letters += letter;
            document += "  <term>\n    <id>" + id + "</id>\n    <agree>" + letter +
                        "</agree>\n    <agreeVer>" + item["version"].asString() + "</agreeVer>\n  </term>\n";
        }
        return document + "</AgreeTerms>\n";
    }
};

std::string Sha1Hex(const std::string& text) {
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    std::string hex;
    char byte[3];
    for (unsigned char b : digest) {
        std::snprintf(byte, sizeof(byte), "%02x", b);
        hex += byte;
    }
    return hex;
}

TEST_F(Upload, AnswersGivenOfflineGoOutSignedForEachDeploymentAndOnlyOnce) {
    StartConnected();
    // The first connection reports the fresh store's answers, all "N".
    ASSERT_TRUE(WaitReported("production", "tnc", "N")) << ToLine(CloudAgreements());
    const struct {
        int serverMode;
        const char* deployment;
        const char* key;
        bool agreed;
    } deployments[] = {{0, "production", "7c1e04a2-3b9d-4f16-8a52-e6d0c4b7f913", true},
                       {1, "staging", "a4d92e60-15f7-4c3b-b8e1-2f06d7c93a58", false}};
    for (const auto& d : deployments) {
        SCOPED_TRACE(d.deployment);
        // Answered while the set is offline: the agreement service only comes with the network.
        m_root.EditProfile([&](Json::Value& profile) {
            profile["factory_data"]["166"] = d.serverMode;
            profile["network"]["up"] = false;
        });
        Restart();
        Agree({"tnc"}, d.agreed);
        Agree({"pp"}, d.agreed);
        ClearCloudRequests();
        BringNetworkUp();
        const std::string letter = d.agreed ? "Y" : "N";
        ASSERT_TRUE(WaitReported(d.deployment, "pp", letter)) << ToLine(CloudAgreements());
        EXPECT_EQ(Reported(d.deployment)["tnc"], letter);

        std::string letters;
        const std::string document = ExpectedDocument(&letters);
        const std::vector<Json::Value> puts = Puts();
        ASSERT_EQ(puts.size(), 1u);
        const Json::Value& put = puts[0];
        EXPECT_EQ(put["path"], "/openapi/zephterms/");
        EXPECT_EQ(put["server"], d.deployment);
        EXPECT_EQ(put["body"], document);
        const Json::Value& headers = put["headers"];
        EXPECT_EQ(headers["Content-Type"], "application/xml;charset=UTF-8");
        EXPECT_EQ(headers["DUID"], kSyncDuid);
        EXPECT_EQ(headers["Country"], "US");
        EXPECT_EQ(headers["ModelID"], "TRV55Q9");
        EXPECT_EQ(headers["Signature"],
                  Sha1Hex(std::string(kSyncDuid) + "+US+TRV55Q9+++" + letters + "+" + d.key));

        // Everything is reported: a new start sends nothing.
        ClearCloudRequests();
        Restart();
        ASSERT_TRUE(WaitUntil([&] { return LogCount("already all agreements was put to server") >= 1; }))
            << ReadFile(m_root.At("/var/log/tarvo.log"));
        EXPECT_TRUE(Puts().empty());
    }
}

TEST_F(Upload, EveryServerFaultLeavesAnswersUnreportedUntilTheNextChangeAndAnOkWithAnErrorCounts) {
    StartConnected();
    ASSERT_TRUE(WaitReported("production", "tnc", "N"));
    // Answers no agreement server sends (declarations, entities, too much markup) are the
    // parser's own test; here any answer it refuses is one more fault.
    const std::string faults[] = {
        R"({"kind": "stat_error"})",
        R"({"kind": "not_xml"})",
        R"({"kind": "wrong_root"})",
        R"({"kind": "http_status", "status": 503})",
        R"({"kind": "drop"})",
        R"({"kind": "untrusted_cert"})",
        R"({"kind": "big_chunk", "bytes": 16385})",
        R"({"kind": "body", "body": "<!DOCTYPE rsp><rsp stat=\"ok\"/>"})",
    };
    bool agreed = true;
    for (const std::string& fault : faults) {
        SCOPED_TRACE(fault.substr(0, 120));
        const std::string letter = agreed ? "Y" : "N";
        Json::Value form = ParseText(fault);
        form["path"] = "agreement";
        if (form["kind"] == "big_chunk") {
            // A client library that hands out more than 16384 bytes at once meets the refusal.
            m_root.EditProfile([](Json::Value& profile) { profile["curl"]["write_block"] = 65536; });
        }
        Fault(ToLine(form));
        const size_t failures = LogCount("Agreement Server Connection Fail!");
        Agree({"tnc"}, agreed);
        ASSERT_TRUE(WaitUntil([&] { return LogCount("Agreement Server Connection Fail!") > failures; }));
        EXPECT_NE(Reported("production")["tnc"], letter);

        // The next change, with the server healed, carries every answer and reports them.
        m_admin->Delete("/admin/fault");
        m_root.EditProfile([](Json::Value& profile) { profile["curl"]["write_block"] = 16384; });
        Agree({"pp"}, agreed);
        ASSERT_TRUE(WaitReported("production", "tnc", letter));
        EXPECT_EQ(Reported("production")["pp"], letter);
        agreed = !agreed;
    }

    // An answer of two full blocks is read and an ok with an error counts: a restart has nothing
    // left to send.
    for (const char* fault : {R"({"path": "agreement", "kind": "big_chunk", "bytes": 32768})",
                              R"({"path": "agreement", "kind": "ok_with_err"})"}) {
        SCOPED_TRACE(fault);
        Fault(fault);
        const size_t successes = LogCount("set agreement success!");
        Agree({"tnc"}, agreed);
        EXPECT_TRUE(WaitUntil([&] { return LogCount("set agreement success!") > successes; }));
        ASSERT_TRUE(WaitUploadsEnded());
        agreed = !agreed;
    }
    m_admin->Delete("/admin/fault");
    ClearCloudRequests();
    Restart();
    ASSERT_TRUE(WaitUntil([&] { return LogCount("already all agreements was put to server") >= 1; }));
    EXPECT_TRUE(Puts().empty());
}

TEST_F(Upload, ASlowAgreementServerHoldsUpNeitherQueriesNorASyncAndAnAnswerGivenMeanwhileFollows) {
    m_timeoutScale = "1";
    StartConnected();
    ASSERT_TRUE(WaitReported("production", "tnc", "N"));
    Fault(R"({"path": "agreement", "kind": "delay", "delay_ms": 6000})");
    const size_t started = LogCount("m_easyHandle Initialize");
    Agree({"tnc"}, true);
    ASSERT_TRUE(WaitUntil([&] { return LogCount("m_easyHandle Initialize") > started; }));

    // A language change makes the service fetch again while the upload waits on the server.
    SetVconf("db/menu_widget/language", "ko_kr.utf8");
    EXPECT_EQ(RequestUpdate("wizard-terms")["result"], "success");
    EXPECT_GT(Method("get disclaimer number")["number"].asInt(), 0);
    EXPECT_NE(Reported("production")["tnc"], "Y") << "the upload should still be waiting";
    // Not in the document on its way, so that upload's success must not count it as reported.
    Agree({"pp"}, true);
    EXPECT_TRUE(WaitReported("production", "tnc", "Y"));
    EXPECT_TRUE(WaitReported("production", "pp", "Y"));
}

}  // namespace
}  // namespace tarvo::test
