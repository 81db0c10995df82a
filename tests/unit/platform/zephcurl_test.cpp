#include <ZephCurl/ZephCurlEasy.h>
#include <vconf.h>

#include "loopback_http.h"
#include "tarvo_test.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
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
        auto record = [this](const httplib::Request& request, httplib::Response& response) {
            std::lock_guard<std::mutex> lock(mutex);
            seen = request;
            response.status = request.path == "/fail" ? 500 : 200;
            response.set_content(body, "text/plain");
        };
        http.server.Get("/body", record).Get("/fail", record).Put("/upload", record);
        http.server.Get("/slow", [this](const httplib::Request&, httplib::Response&) {
            std::unique_lock<std::mutex> lock(mutex);
            released.wait_for(lock, std::chrono::seconds(20), [this] { return release; });
        });
        http.server.set_logger([this](const httplib::Request&, const httplib::Response& response) {
            std::lock_guard<std::mutex> lock(mutex);
            answeredEncoding = response.get_header_value("Content-Encoding");
        });
        http.Start();
    }
    void TearDown() override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            release = true;
        }
        released.notify_all();
    }

    // Initialises `client` for `path`, its body going to `received`.
    void Prepare(ZephCurl::ZephCurlEasy& client, const std::string& path) {
        received = Received();
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
    std::mutex mutex;  // guards seen, answeredEncoding, release
    std::condition_variable released;
    bool release = false;
    httplib::Request seen;
    std::string answeredEncoding;
    std::string body = "answer";
    Received received;
};

TEST_F(HttpClient, SendsTheServiceHeadersAndTheDeviceHeadersExactlyOnce) {
    ASSERT_EQ(vconf_set_str("db/nimbra/modelid", "UN55TU8000"), 0);
    ZephCurl::ZephCurlEasy client;
    Prepare(client, "/body");
    ASSERT_TRUE(client.setLumiqHeader(1));  // before the list: both must reach the wire
    ASSERT_TRUE(client.setOption(ZephCurl::HTTPHEADER, std::list<std::string>{"Accept: application/json",
                                                                              "Accept-Encoding: identity"}));
    ASSERT_TRUE(client.setLumiqClient("tarvodatacontrol-service/1.0"));
    ASSERT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(received.body, "answer");

    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(seen.get_header_value("User-Agent"), "tarvodatacontrol-service/1.0");
    EXPECT_EQ(seen.get_header_value("Accept"), "application/json");
    EXPECT_EQ(seen.get_header_value_count("Accept-Encoding"), 1u);
    EXPECT_EQ(seen.get_header_value("Accept-Encoding"), "identity");
    EXPECT_EQ(seen.get_header_value("X-Device-Model"), "UN55TU8000");
    EXPECT_EQ(seen.get_header_value("X-Device-Firmware"), "T-1010.5");
}

TEST_F(HttpClient, DeliversTheBodyInBlocksOfTheProfilesSizeToEitherFunctionForm) {
    body.clear();
    for (int i = 0; body.size() < 40000; ++i) body += std::to_string(i) + ",";
    body.resize(40000);
    ZephCurl::ZephCurlEasy client;
    Prepare(client, "/body");
    ASSERT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(received.body, body);
    EXPECT_EQ(received.blocks, (std::vector<size_t>{16384, 16384, 7232}));

    SetWriteBlock(10000);
    client.reset();
    Prepare(client, "/body");
    ASSERT_TRUE(client.setOption(ZephCurl::WRITEFUNCTION, &Collect32));
    ASSERT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(received.body, body);
    EXPECT_EQ(received.blocks, (std::vector<size_t>{10000, 10000, 10000, 10000}));
}

TEST_F(HttpClient, ABlockTheFunctionRefusesEndsTheTransferWithAWriteError) {
    body.assign(16385, 'x');
    ZephCurl::ZephCurlEasy client;
    Prepare(client, "/body");
    received.refuseAbove = 16384;
    ASSERT_TRUE(client.send()) << "libcurl's own block size never reaches the refusal";

    SetWriteBlock(20000);
    client.reset();
    Prepare(client, "/body");
    received.refuseAbove = 16384;
    EXPECT_FALSE(client.send());
    EXPECT_EQ(client.getErrorCode(), CURLE_WRITE_ERROR);
    EXPECT_TRUE(received.body.empty());
}

TEST_F(HttpClient, AnErrorStatusIsASuccessfulTransferButNetworkFailuresAreNot) {
    setenv("TARVO_TIMEOUT_SCALE", "0.005", 1);
    ZephCurl::ZephCurlEasy client;
    Prepare(client, "/fail");
    EXPECT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(received.body, "answer");

    client.reset();
    Prepare(client, "/slow");
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
    client.reset();
    ASSERT_TRUE(client.Initialize());
    ASSERT_TRUE(client.setOption(ZephCurl::URL, "http://127.0.0.1:" + std::to_string(closed_port) + "/"));
    EXPECT_FALSE(client.send());
    EXPECT_EQ(client.getErrorCode(), CURLE_COULDNT_CONNECT);
    EXPECT_NE(client.getLastError().find(curl_easy_strerror(CURLE_COULDNT_CONNECT)), std::string::npos);
}

TEST_F(HttpClient, UploadsWithTheReadFunctionAsAPut) {
    const std::string document = "<?xml version=\"1.0\"?><AgreeTerms/>";
    std::string left = document;
    ZephCurl::ZephCurlEasy client;
    Prepare(client, "/upload");
    ASSERT_TRUE(client.setOption(ZephCurl::UPLOAD, 1L));
    ASSERT_TRUE(client.setOption(ZephCurl::PUT, 1L));
    ASSERT_TRUE(client.setOption(ZephCurl::INFILESIZE_LARGE, static_cast<long>(document.size())));
    ASSERT_TRUE(client.setOption(ZephCurl::READFUNCTION, &Feed));
    ASSERT_TRUE(client.setOption(ZephCurl::READDATA, static_cast<void*>(&left)));
    ASSERT_TRUE(client.send()) << client.getLastError();
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(seen.method, "PUT");
    EXPECT_EQ(seen.body, document);
}

TEST_F(HttpClient, AGzipAnswerReachesTheServiceDecoded) {
    body.assign(5000, 'z');
    ZephCurl::ZephCurlEasy client;
    Prepare(client, "/body");
    ASSERT_TRUE(client.setOption(ZephCurl::HTTPHEADER, std::list<std::string>{"Accept-Encoding: gzip"}));
    ASSERT_TRUE(client.send()) << client.getLastError();
    EXPECT_EQ(received.body, body);
    // The server logs an answer after sending it.
    EXPECT_TRUE(tarvo::test::WaitUntil([this] {
        std::lock_guard<std::mutex> lock(mutex);
        return answeredEncoding == "gzip";
    }));
}

TEST_F(HttpClient, RefusesUnknownOrMisusedOptionsMissingDeviceValuesAndAnUnreadableCaFile) {
    ZephCurl::ZephCurlEasy client;
    EXPECT_FALSE(client.setOption(ZephCurl::URL, http.Url("/body"))) << "not initialised";
    ASSERT_TRUE(client.Initialize());
    EXPECT_FALSE(client.setLumiqHeader(1)) << "no model id in vconf";
    EXPECT_FALSE(client.setOption(static_cast<ZephCurl::ZEPHCURL_OPTION_TYPE>(99), 1L));
    EXPECT_EQ(client.getErrorCode(), CURLE_UNKNOWN_OPTION);
    EXPECT_FALSE(client.setOption(ZephCurl::URL, 1L));

    EXPECT_TRUE(client.setBrellaKelvaneSSLContext()) << "no ca_file: the system store";
    root.EditProfile([this](Json::Value& profile) { profile["ca_file"] = root.Path(); });  // a directory
    EXPECT_FALSE(client.setBrellaKelvaneSSLContext());
    EXPECT_EQ(client.getErrorCode(), CURLE_SSL_CACERT_BADFILE);
}

}  // namespace
