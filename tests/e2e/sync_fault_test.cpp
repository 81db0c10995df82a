// The cloud failing in each way it can while the store is empty: the store stays empty and the
// requester hears of the failure with the code the service last knew.
#include "sync_fixture.h"

#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tarvo {
namespace test {
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

TEST_F(Sync, EachCloudFaultLeavesTheStoreEmptyAndFailsTheRequesterWithTheLastKnownCode) {
    // The television's client hands over blocks larger than the service takes.
    m_root.EditProfile([](Json::Value& profile) { profile["curl"]["write_block"] = 20000; });
    struct Case {
        std::string fault;
        int code;
    };
    // A failure without a code of its own leaves the code of the one before it.
    const Case cases[] = {
        {R"({"path": "checkversion", "kind": "not_json"})", 0},
        {R"({"path": "checkversion", "kind": "empty"})", 0},
        {R"({"path": "checkversion", "kind": "stat_error", "code": "7001"})", 7001},
        {R"({"path": "disclaimers", "kind": "stat_error", "code": "7002"})", 7002},
        {R"({"path": "disclaimers", "kind": "empty"})", 7002},
        {R"({"path": "any", "kind": "big_chunk", "bytes": 16385})", CURLE_WRITE_ERROR},
        {"refused", CURLE_COULDNT_CONNECT},
    };
    for (const Case& c : cases) {
        if (c.fault == "refused") {
            SetVconf("db/nimbra/gpmurl/apps", "http://127.0.0.1:" + std::to_string(ClosedPort()));
        } else {
            Fault(c.fault);
        }
        const Json::Value got = RequestUpdate("settings");
        EXPECT_EQ(got["result"], "fail") << c.fault;
        EXPECT_EQ(got["error_code"], c.code) << c.fault;
        EXPECT_EQ(got["error_reason"], 0) << c.fault;
        EXPECT_EQ(got["wizard_page"], "wizard-easy") << c.fault;
        EXPECT_TRUE(Listed().empty()) << c.fault;
    }
}

}  // namespace
}  // namespace test
}  // namespace tarvo
