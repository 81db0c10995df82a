// The host serving the real service on a bare root: the modes of the files the service makes,
// and errors worded for a person when the service cannot read a member of a call.
#include "host_client.h"
#include "process.h"
#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>

namespace tarvo {
namespace test {
namespace {

unsigned Mode(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

class HostService : public ::testing::Test {
  protected:
    void SetUp() override {
        m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = false; });
        // A log that this process made would carry this process's umask, not the host's.
        std::filesystem::remove(m_root.At("/var/log/tarvo.log"));
        m_host = StartHost(m_root, TARVO_MODULE_PATH);
        ASSERT_NE(m_host, nullptr);
        ASSERT_TRUE(m_client.Connect(DefaultSocket(m_root)));
    }

    TempRoot m_root;
    std::unique_ptr<ChildProcess> m_host;
    HostClient m_client;
};

TEST_F(HostService, TheStoreAndRunArePrivateWhileKeysAndTheLogStayReadable) {
    const std::string store = m_root.At("/opt/usr/apps/org.mirlo.tarvodatacontrol-service/data/data.db");
    const std::string key = m_root.At("/var/vconf/db/tarvodatacontrol/data_db_reset");
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(store) && std::filesystem::exists(key); }));
    EXPECT_EQ(Mode(store), 0600u);
    // The test's root made it 0755 before the host started.
    EXPECT_EQ(Mode(m_root.At("/run")), 0700u);
    EXPECT_EQ(Mode(key), 0644u);
    EXPECT_EQ(Mode(m_root.At("/var/vconf/db/tarvodatacontrol")), 0755u);
    EXPECT_EQ(Mode(m_root.At("/var/log/tarvo.log")), 0644u);
}

TEST_F(HostService, ACallWithAMemberOfTheWrongTypeIsAnsweredWithThatMemberAndItsType) {
    const std::pair<std::string, std::string> cases[] = {
        {R"({"method": "get disclaimer number", "requester": "0"})",
         R"(member "requester" must be a number, got a string)"},
        {R"({"method": "get disclaimer by order", "requester": 0, "request_index": -5e10})",
         R"(member "request_index" must be a number from -2147483648 to 2147483647, got -50000000000.0)"},
        {R"({"method": "set one agreement", "request_item": "tnc", "is_agreed": "true"})",
         R"(member "is_agreed" must be true or false, got a string)"},
        {R"({"method": "set agreements", "agreements": [{"request_item": "tnc", "is_agreed": true},)"
         R"( {"request_item": "pp", "is_agreed": "no"}]})",
         R"(member "agreements[1].is_agreed" must be true or false, got a string)"},
        {R"({"method": "set agreements", "agreements": [5]})",
         R"(member "agreements[0]" must be an object, got 5)"},
        {R"({"method": "set country code", "country_code": {"code": "DE"}})",
         R"(member "country_code" must be a string, got an object)"},
    };
    for (const auto& [call, error] : cases) {
        ASSERT_TRUE(m_client.SendLine(R"({"id": 7, "call": )" + call + "}"));
        const auto answer = m_client.ReadFrame();
        ASSERT_TRUE(answer) << call;
        EXPECT_EQ((*answer)["id"], 7) << call;
        EXPECT_EQ((*answer)["error"], error) << call;
    }
    Json::Value request(Json::objectValue);
    request["method"] = "is service available";
    const auto after = m_client.Call(request);
    ASSERT_TRUE(after);
    // Its result depends on how far the start has come; that it is answered is what counts.
    EXPECT_TRUE((*after)["reply"]["result"].isBool()) << ToLine(*after);
}

}  // namespace
}  // namespace test
}  // namespace tarvo
