// Every fault the OpenAPI server can show, first with an empty store and then with a filled
// one: the host goes on answering, a bad answer changes nothing in the store, the requester
// hears the error the service last knew, and the next good answer heals everything.
#include "sync_fixture.h"

#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tarvo::test {
namespace {

// A loopback port that was bound and closed again, so a connection to it is refused.
int ClosedPort() {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    int port = 0;
    if (s >= 0 && bind(s, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
        getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    if (s >= 0) close(s);
    return port;
}

struct Case {
    std::string fault;  // the admin's form, or "refused": no server on the domain's port
    int code;           // "error_code" of the failure with an empty store
    int writeBlock = 16384;
};

class ServerFaults : public Sync {
  protected:
    void Apply(const Case& c) {
        m_root.EditProfile([&](Json::Value& profile) { profile["curl"]["write_block"] = c.writeBlock; });
        if (c.fault == "refused") {
            SetVconf("db/nimbra/gpmurl/apps", "http://127.0.0.1:" + std::to_string(ClosedPort()));
        } else if (!c.fault.empty()) {
            Fault(c.fault);
        }
    }

    void Heal() {
        m_admin->Delete("/admin/fault");
        SetVconf("db/nimbra/gpmurl/apps", "http://127.0.0.1:" + std::to_string(m_openapiPort));
        m_root.EditProfile([](Json::Value& profile) { profile["curl"]["write_block"] = 16384; });
    }

    // A request while `c` is in force: queries answer at once however long the server takes,
    // and the worker still serves a country list after it.
    Json::Value RequestDuring(const Case& c) {
        Apply(c);
        Json::Value request = ParseText(R"({"method": "request update disclaimers"})");
        request["request_from"] = "settings";
        EXPECT_TRUE(Call(request)["result"].asBool());
        const auto asked = std::chrono::steady_clock::now();
        EXPECT_TRUE(Method("is service available")["result"].asBool());
        EXPECT_TRUE(Method("get disclaimer number")["result"].asBool());
        EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(1)) << c.fault;
        const Json::Value got = Notification("new_disclaimer_got");
        EXPECT_TRUE(Method("request country code list").isNull());
        EXPECT_EQ(Notification("new_country_list_got")["result"], "success") << c.fault;
        Heal();
        return got;
    }
};

TEST_F(ServerFaults, NoBadAnswerChangesTheStoreAndTheNextGoodOneHealsIt) {
    // A failure without a code of its own leaves the code of the one before it.
    const Case failures[] = {
        {R"({"path": "checkversion", "kind": "not_json"})", 0},
        {R"({"path": "checkversion", "kind": "empty"})", 0},
        {R"({"path": "checkversion", "kind": "stat_error", "code": "7001"})", 7001},
        {R"({"path": "checkversion", "kind": "http_status", "status": 503})", 503},
        {R"({"path": "checkversion", "kind": "drop"})", CURLE_GOT_NOTHING},
        {R"({"path": "checkversion", "kind": "delay", "delay_ms": 3000})", CURLE_OPERATION_TIMEDOUT},
        {R"({"path": "disclaimers", "kind": "stat_error"})", 5000},
        {R"({"path": "disclaimers", "kind": "not_json"})", 5000},
        {R"({"path": "disclaimers", "kind": "empty"})", 5000},
        {R"({"path": "disclaimers", "kind": "http_status", "status": 404, "code": "4002"})", 4002},
        {R"({"path": "disclaimers", "kind": "drop"})", CURLE_GOT_NOTHING},
        {R"({"path": "disclaimers", "kind": "delay", "delay_ms": 3000})", CURLE_OPERATION_TIMEDOUT},
        // A client library that hands out more than 16384 bytes at once meets the refusal.
        {R"({"path": "any", "kind": "big_chunk", "bytes": 16385})", CURLE_WRITE_ERROR, 20000},
        {"refused", CURLE_COULDNT_CONNECT},
    };
    for (const Case& c : failures) {
        const Json::Value got = RequestDuring(c);
        EXPECT_EQ(got["result"], "fail") << c.fault;
        EXPECT_EQ(got["error_code"], c.code) << c.fault;
        EXPECT_EQ(got["error_reason"], 0) << c.fault;
        EXPECT_EQ(got["wizard_page"], "wizard-easy") << c.fault;
        EXPECT_TRUE(Listed().empty()) << c.fault;
    }
    EXPECT_EQ(RequestDuring(Case{"", 0})["result"], "success");
    const auto english = Listed();
    ASSERT_EQ(english.at("tnc")["title"], DataDisclaimer("US", "tnc")["texts"]["en"]["title"]);

    // A new language needs a fetch; while it fails, the requester gets the stored records.
    SetVconf("db/menu_widget/language", "fr_FR.utf8");
    for (const Case& c : failures) {
        const Json::Value got = RequestDuring(c);
        EXPECT_EQ(got["result"], "success") << c.fault;
        EXPECT_FALSE(got.isMember("error_code")) << c.fault;
        EXPECT_EQ(Listed(), english) << c.fault;
    }
    // Answers that are slow or come as one large chunk, but whole, are taken.
    const Case tolerated[] = {
        {"", 0},
        {R"({"path": "disclaimers", "kind": "delay", "delay_ms": 500})", 0},
        {R"({"path": "any", "kind": "big_chunk", "bytes": 40000})", 0},
    };
    const char* languages[] = {"fr", "en", "fr"};
    for (size_t i = 0; i < std::size(tolerated); ++i) {
        SetVconf("db/menu_widget/language", std::string(languages[i]) + (i == 1 ? "_US.utf8" : "_FR.utf8"));
        EXPECT_EQ(RequestDuring(tolerated[i])["result"], "success") << tolerated[i].fault;
        EXPECT_EQ(Listed()["tnc"]["title"], DataDisclaimer("US", "tnc")["texts"][languages[i]]["title"])
            << tolerated[i].fault;
    }
}

}  // namespace
}  // namespace tarvo::test
