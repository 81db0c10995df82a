#include <ILogger.h>

#include "loopback_http.h"
#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

class UsageLogClient : public ::testing::Test {
  protected:
    void SetUp() override {
        http.ServeAndRecord();
        http.Start();
        ILogger* made = nullptr;
        ASSERT_TRUE(CreateLogger(&made));
        logger.reset(made);
    }
    std::vector<Json::Value> Posts() {
        std::vector<Json::Value> posts;
        for (const httplib::Request& request : http.Requests()) {
            EXPECT_EQ(request.method, "POST");
            EXPECT_EQ(request.get_header_value("Content-Type"), "application/json");
            posts.emplace_back();
            EXPECT_TRUE(Json::Reader().parse(request.body, posts.back())) << request.body;
        }
        return posts;
    }

    tarvo::test::TempRoot root;
    tarvo::test::LoopbackHttp http;
    std::unique_ptr<ILogger> logger;
};

TEST_F(UsageLogClient, PostsQueuedEventsWhenTheQueueIsFullOnFlushAndAtFinalize) {
    EXPECT_FALSE(logger->AddEventLog("P01", "t", "c", "v", "d")) << "no service configured yet";
    ASSERT_TRUE(
        logger->SetServiceConfInfo("TarvoGlobal", 2, 60, 0, 10, http.Url("/openapi/log/TarvoGlobal/US")));
    ASSERT_TRUE(logger->AddEventConfInfo("P01", 2, 60, 0, 10));
    ASSERT_TRUE(logger->SetEventHeader("UN55", "DUID-1", "DUID-1", "US", 0, 0, 0));
    EXPECT_FALSE(logger->AddEventLog("UNKNOWN", "t", "c", "v", "d"));

    ASSERT_TRUE(logger->AddEventLog("P01", "2024-01-02T03:04:05+0000", "agree", "T-1010.5", "first"));
    EXPECT_EQ(Posts().size(), 0u);
    ASSERT_TRUE(logger->AddEventLog("P01", "2024-01-02T03:04:06+0000", "agree", "T-1010.5", "second"));
    EXPECT_EQ(Posts().size(), 1u) << "a full queue goes out at once";
    ASSERT_TRUE(logger->AddEventLog("P01", "t", "c", "v", "third"));
    ASSERT_TRUE(logger->FlushLog());
    ASSERT_TRUE(logger->FlushLog()) << "an empty queue sends nothing";
    ASSERT_TRUE(logger->AddEventLog("P01", "t", "c", "v", "fourth"));
    ASSERT_TRUE(logger->Finalize());

    const std::vector<Json::Value> posts = Posts();
    ASSERT_EQ(posts.size(), 3u);
    Json::Value expected;
    Json::Reader().parse(R"({"service": "TarvoGlobal",
        "header": {"model_name": "UN55", "user_id": "DUID-1", "duid": "DUID-1", "country_code": "US"},
        "events": [{"name": "P01", "time": "2024-01-02T03:04:05+0000", "category": "agree",
                    "value": "T-1010.5", "desc": "first"},
                   {"name": "P01", "time": "2024-01-02T03:04:06+0000", "category": "agree",
                    "value": "T-1010.5", "desc": "second"}]})",
                         expected);
    EXPECT_EQ(posts[0], expected);
    EXPECT_EQ(posts[1]["events"][0]["desc"].asString(), "third");
    EXPECT_EQ(posts[2]["events"][0]["desc"].asString(), "fourth");
}

TEST_F(UsageLogClient, AFailedPostIsReportedAndItsBatchDropped) {
    ASSERT_TRUE(logger->SetServiceConfInfo("TarvoGlobal", 30, 60, 0, 10, http.Url("/fail")));
    ASSERT_TRUE(logger->AddEventConfInfo("P01", 30, 60, 0, 10));
    ASSERT_TRUE(logger->AddEventLog("P01", "t", "c", "v", "d"));
    EXPECT_FALSE(logger->FlushLog()) << "HTTP 500";
    EXPECT_TRUE(logger->FlushLog());
}

}  // namespace
