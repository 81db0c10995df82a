#include <ZephCurl/ZephCurlEasy.h>
#include <vconf.h>

#include "loopback_http.h"
#include "tarvo_test.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
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

size_t Feed(char* buffer, size_t size, size_t count, void* user) {
    auto* left = static_cast<std::string*>(user);
    const size_t n = left->copy(buffer, size * count);
    left->erase(0, n);
    return n;
}

class HttpClient : public ::testing::Test {
  protected:
    void SetUp() override {
        http.server.Get("/slow", [this](const httplib::Request&, httplib::Response&) {
            tarvo::test::WaitUntil([this] { return release.load(); }, std::chrono::seconds(20));
        });
        http.ServeAndRecord();
        http.Start();
    }
    void TearDown() override { release = true; }

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
    std::atomic<bool> release{false};
    Received received;
    ZephCurl::ZephCurlEasy client;
};

TEST_F(HttpClient, SendsTheServiceHeadersAndTheDeviceHeadersExactlyOnce) {
    ASSERT_EQ(vconf_set_str("db/nimbra/modelid", "UN55TU8000"), 0);
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
    EXPECT_EQ(seen.get_header_value("X-Device-Model"), "UN55TU8000");
    EXPECT_EQ(seen.get_header_value("X-Device-Firmware"), "T-1010.5");
}

TEST_F(HttpClient, DeliversTheBodyInBlocksOfTheProfilesSizeAndARefusedBlockEndsWithAWriteError) {
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

    body.assign(16385, 'x');
    SetWriteBlock(20000);
    Prepare("/body");
    received.refuseAbove = 16384;
    EXPECT_FALSE(client.send());
    EXPECT_EQ(client.getErrorCode(), CURLE_WRITE_ERROR);
    EXPECT_TRUE(received.body.empty());
}

TEST_F(HttpClient, AnErrorStatusIsASuccessfulTransferButNetworkFailuresAreNot) {
    setenv("TARVO_TIMEOUT_SCALE", "0.005", 1);
    Prepare("/fail");
    EXPECT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(received.body, "answer");

    Prepare("/slow");
    ASSERT_TRUE(client.setTimeout(3, 10));
    ASSERT_TRUE(client.setOption(ZephCurl::TIMEOUT, 90L));  // 450 ms at this scale
    EXPECT_FALSE(client.send());
    EXPECT_EQ(client.getErrorCode(), CURLE_OPERATION_TIMEDOUT);

    int closed_port = 0;
    {
        LoopbackHttp gone;
        gone.Start();
        closed_port = gone.Port();
    }
    Prepare("/");
    ASSERT_TRUE(client.setOption(ZephCurl::URL, "http://127.0.0.1:" + std::to_string(closed_port) + "/"));
    EXPECT_FALSE(client.send());
    EXPECT_EQ(client.getErrorCode(), CURLE_COULDNT_CONNECT);
    EXPECT_NE(client.getLastError().find(curl_easy_strerror(CURLE_COULDNT_CONNECT)), std::string::npos);
}

TEST_F(HttpClient, UploadsWithTheReadFunctionAsAPut) {
    const std::string document = "<?xml version=\"1.0\"?><AgreeTerms/>";
    std::string left = document;
    Prepare("/upload");
    ASSERT_TRUE(client.setOption(ZephCurl::UPLOAD, 1L));
    ASSERT_TRUE(client.setOption(ZephCurl::PUT, 1L));
    ASSERT_TRUE(client.setOption(ZephCurl::INFILESIZE_LARGE, static_cast<long>(document.size())));
    ASSERT_TRUE(client.setOption(ZephCurl::READFUNCTION, &Feed));
    ASSERT_TRUE(client.setOption(ZephCurl::READDATA, static_cast<void*>(&left)));
    ASSERT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(http.Requests().at(0).method, "PUT");
    EXPECT_EQ(http.Requests().at(0).body, document);
}

TEST_F(HttpClient, AGzipAnswerReachesTheServiceDecoded) {
    http.answer.assign(5000, 'z');
    Prepare("/body");
    ASSERT_TRUE(client.setOption(ZephCurl::HTTPHEADER, std::list<std::string>{"Accept-Encoding: gzip"}));
    ASSERT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(received.body, http.answer);
    // The server compresses whenever the request accepts gzip.
    EXPECT_EQ(http.Requests().at(0).get_header_value("Accept-Encoding"), "gzip");
}

TEST_F(HttpClient, RefusesOptionsBeforeInitialisationUnknownOrMistypedOptionsAndAMissingModel) {
    EXPECT_FALSE(client.setOption(ZephCurl::URL, http.Url("/body")));
    ASSERT_TRUE(client.Initialize());
    EXPECT_FALSE(client.setLumiqHeader(1)) << "no model id in vconf";
    EXPECT_FALSE(client.setOption(static_cast<ZephCurl::ZEPHCURL_OPTION_TYPE>(99), 1L));
    EXPECT_EQ(client.getErrorCode(), CURLE_UNKNOWN_OPTION);
    EXPECT_FALSE(client.setOption(ZephCurl::URL, 1L));
}

}  // namespace
