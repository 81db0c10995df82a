// The two HTTP clients of the platform: the service's transfer client and the usage log client.
// The transfer client's outcomes (error statuses, time-outs, refusals, uploads) are tested through
// the service's own connector and upload; here only what those cannot see.
#include <ILogger.h>
#include <ZephCurl/ZephCurlEasy.h>
#include <tarvo/platform.h>
#include <vconf.h>

#include "loopback_http.h"
#include "tarvo_test.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using tarvo::test::LoopbackHttp;

// What the service's data function saw: the bytes and the size of each block.
struct Received {
    std::string body;
    std::vector<size_t> blocks;
    size_t refuseAbove = SIZE_MAX;
};

size_t Collect(char* data, size_t size, size_t count, void* user) {
    auto* received = static_cast<Received*>(user);
    const size_t total = size * count;
    if (total > received->refuseAbove) return 0;
    received->body.append(data, total);
    received->blocks.push_back(total);
    return total;
}

unsigned Collect32(char* data, unsigned size, unsigned count, void* user) {
    return static_cast<unsigned>(Collect(data, size, count, user));
}

class HttpClient : public ::testing::Test {
  protected:
    void SetUp() override { http.Start(); }

    // (Re)initialises `client` for `path`, its body going to `received`.
    void Prepare(const std::string& path) {
        received = Received();
        client.reset();
        ASSERT_TRUE(client.Initialize());
        ASSERT_TRUE(client.setOption(ZephCurl::URL, http.Url(path)));
        ASSERT_TRUE(client.setOption(ZephCurl::WRITEFUNCTION, &Collect));
        ASSERT_TRUE(client.setOption(ZephCurl::WRITEDATA, static_cast<void*>(&received)));
    }
    void SetWriteBlock(int bytes) {
        root.EditProfile([bytes](Json::Value& profile) { profile["curl"]["write_block"] = bytes; });
    }

    tarvo::test::TempRoot root;
    LoopbackHttp http;
    Received received;
    ZephCurl::ZephCurlEasy client;
};

TEST_F(HttpClient, RefusesBadOptionsAndSendsTheServiceHeadersAndTheDeviceHeadersExactlyOnce) {
    // Options before initialisation, unknown or mistyped ones, and device headers without a model.
    EXPECT_FALSE(client.setOption(ZephCurl::URL, http.Url("/body")));
    ASSERT_TRUE(client.Initialize());
    EXPECT_FALSE(client.setLumiqHeader(1)) << "no model id in vconf";
    EXPECT_FALSE(client.setOption(static_cast<ZephCurl::ZEPHCURL_OPTION_TYPE>(99), 1L));
    EXPECT_EQ(client.getErrorCode(), CURLE_UNKNOWN_OPTION);
    EXPECT_FALSE(client.setOption(ZephCurl::URL, 1L));

    ASSERT_EQ(vconf_set_str("db/nimbra/modelid", "TRV55Q9"), 0);
    Prepare("/body");
    ASSERT_TRUE(client.setLumiqHeader(1));  // before the list: both must reach the wire
    ASSERT_TRUE(client.setOption(ZephCurl::HTTPHEADER, std::list<std::string>{"Accept: application/json",
                                                                              "Accept-Encoding: identity"}));
    ASSERT_TRUE(client.setLumiqClient("tarvodatacontrol-service/1.0"));
    ASSERT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(received.body, "answer");

    const httplib::Request seen = http.Requests().at(0);
    EXPECT_EQ(seen.get_header_value("User-Agent"), "tarvodatacontrol-service/1.0");
    EXPECT_EQ(seen.get_header_value("Accept"), "application/json");
    EXPECT_EQ(seen.get_header_value_count("Accept-Encoding"), 1u);
    EXPECT_EQ(seen.get_header_value("Accept-Encoding"), "identity");
    EXPECT_EQ(seen.get_header_value("X-Device-Model"), "TRV55Q9");
    EXPECT_EQ(seen.get_header_value("X-Device-Firmware"), "T-1010.5");
}

TEST_F(HttpClient, DeliversTheBodyInBlocksOfTheProfilesSizeToEitherFormOfDataFunction) {
    std::string& body = http.answer;
    body.clear();
    for (int i = 0; body.size() < 40000; ++i) body += std::to_string(i) + ",";
    body.resize(40000);
    Prepare("/body");
    received.refuseAbove = 16384;  // libcurl's own block size never reaches the refusal
    ASSERT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(received.body, body);
    EXPECT_EQ(received.blocks, (std::vector<size_t>{16384, 16384, 7232}));

    SetWriteBlock(10000);
    Prepare("/body");
    ASSERT_TRUE(client.setOption(ZephCurl::WRITEFUNCTION, &Collect32));
    ASSERT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(received.body, body);
    EXPECT_EQ(received.blocks, (std::vector<size_t>{10000, 10000, 10000, 10000}));
}

class UsageLogClient : public ::testing::Test {
  protected:
    void SetUp() override {
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

// A full queue, the post at the end and the batch's document are seen through the usage loggers.
TEST_F(UsageLogClient, RefusesEventsWithoutTheirConfigurationAndFlushesOnlyWhatIsQueued) {
    EXPECT_FALSE(logger->AddEventLog("P01", "t", "c", "v", "d")) << "no service configured yet";
    ASSERT_TRUE(
        logger->SetServiceConfInfo("TarvoGlobal", 2, 60, 0, 10, http.Url("/openapi/log/TarvoGlobal/US")));
    ASSERT_TRUE(logger->AddEventConfInfo("P01", 2, 60, 0, 10));
    EXPECT_FALSE(logger->AddEventLog("UNKNOWN", "t", "c", "v", "d"));
    ASSERT_TRUE(logger->AddEventLog("P01", "t", "c", "v", "first"));
    ASSERT_TRUE(logger->FlushLog());
    ASSERT_TRUE(logger->FlushLog()) << "an empty queue sends nothing";
    const std::vector<Json::Value> posts = Posts();
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0]["events"][0]["desc"].asString(), "first");
}

// A set without a network has no route to any server: both clients fail at once as libcurl does
// then, and the first request after the network is back goes out.
TEST_F(UsageLogClient, WhileTheNetworkIsDownNeitherClientReachesTheServerAndTheNextRequestDoes) {
    ASSERT_TRUE(
        logger->SetServiceConfInfo("TarvoGlobal", 30, 60, 0, 10, http.Url("/openapi/log/TarvoGlobal/US")));
    ASSERT_TRUE(logger->AddEventConfInfo("P01", 30, 60, 0, 10));
    ZephCurl::ZephCurlEasy client;
    const auto send = [&] {
        client.reset();
        EXPECT_TRUE(client.Initialize());
        EXPECT_TRUE(client.setOption(ZephCurl::URL, http.Url("/body?duid=D1")));
        return client.send();
    };

    ASSERT_TRUE(tarvo::platform::SetNetworkDown());
    ASSERT_TRUE(logger->AddEventLog("P01", "t", "c", "v", "offline"));
    EXPECT_FALSE(logger->FlushLog());
    EXPECT_FALSE(send());
    EXPECT_EQ(client.getErrorCode(), CURLE_COULDNT_CONNECT);
    EXPECT_EQ(client.getLastError(), "Couldn't connect to server: Failed to connect to 127.0.0.1 port " +
                                         std::to_string(http.Port()) +
                                         " after 0 ms: Network is unreachable (the network is down)");
    EXPECT_TRUE(http.Requests().empty());

    ASSERT_TRUE(tarvo::platform::SetNetworkUp("ethernet"));
    ASSERT_TRUE(logger->AddEventLog("P01", "t", "c", "v", "online"));
    EXPECT_TRUE(logger->FlushLog());
    EXPECT_TRUE(send()) << client.getLastError();
    const std::vector<httplib::Request> requests = http.Requests();
    ASSERT_EQ(requests.size(), 2u);
    Json::Value post;
    ASSERT_TRUE(Json::Reader().parse(requests[0].body, post));
    ASSERT_EQ(post["events"].size(), 1u) << "the offline batch was dropped";
    EXPECT_EQ(post["events"][0]["desc"], "online");
    EXPECT_EQ(requests[1].path, "/body");
}

}  // namespace
