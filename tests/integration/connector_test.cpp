#include <TarvoInternalData.h>
#include <TarvoKelvaneConnector.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/resource.h>
#include <vconf.h>

#include <ctime>
#include <mutex>
#include <regex>
#include <thread>
#include <vector>

#include "tarvo_test.h"

namespace {

struct Received {
    std::string target;
    httplib::Headers headers;

    std::vector<std::string> Values(const std::string& key) const {
        std::vector<std::string> values;
        auto range = headers.equal_range(key);
        for (auto it = range.first; it != range.second; ++it) values.push_back(it->second);
        return values;
    }
};

std::string Pattern(size_t size, char seed) {
    std::string body(size, ' ');
    for (size_t i = 0; i < size; ++i) body[i] = static_cast<char>('a' + (seed + i) % 26);
    return body;
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#else
constexpr bool kAddressSanitizer = false;
#endif

// The process's peak resident size so far, in bytes.
long PeakResidentBytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss * 1024L;
}

using Answer = std::function<void(const httplib::Request&, httplib::Response&)>;

class Connector : public ::testing::Test {
  protected:
    void SetUp() override {
        m_server.Get(".*", [this](const httplib::Request& req, httplib::Response& res) {
            Answer answer;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_received.push_back({req.target, req.headers});
                answer = m_answer;
            }
            answer(req, res);
        });
        m_port = m_server.bind_to_any_port("127.0.0.1");
        ASSERT_GT(m_port, 0);
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        ASSERT_TRUE(tarvo::test::WaitUntil([this] { return m_server.is_running(); }));

        SetDomain("http://127.0.0.1:" + std::to_string(m_port));
        ASSERT_EQ(0, vconf_set_str("db/nimbra/countrycode", "US"));
        ASSERT_EQ(0, vconf_set_str("db/nimbra/modelid", "TRV55"));
        ASSERT_EQ(0, vconf_set_str("db/menu_widget/language", "zh_TW.utf8"));
    }

    void TearDown() override {
        CTarvoKelvaneConnector::ReleaseConnector();
        m_server.stop();
        if (m_thread.joinable()) m_thread.join();
    }

    void SetDomain(const std::string& domain) {
        ASSERT_EQ(0, vconf_set_str("db/nimbra/gpmurl/apps", domain.c_str()));
    }

    void SetAnswer(Answer answer) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_answer = std::move(answer);
    }

    void ServeChunked(const std::vector<std::string>& chunks) {
        SetAnswer([chunks](const httplib::Request&, httplib::Response& res) {
            res.set_chunked_content_provider("application/json", [chunks](size_t, httplib::DataSink& sink) {
                for (const auto& c : chunks) sink.write(c.data(), c.size());
                sink.done();
                return true;
            });
        });
    }

    void Serve(const std::string& body, int status = 200) {
        SetAnswer([body, status](const httplib::Request&, httplib::Response& res) {
            res.status = status;
            res.set_content(body, "application/json");
        });
    }

    std::vector<Received> Requests() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }

    std::string Body() const {
        return std::string(CTarvoKelvaneConnector::GetData(), CTarvoKelvaneConnector::GetDataSize());
    }

    tarvo::test::TempRoot m_root;
    httplib::Server m_server;
    std::thread m_thread;
    int m_port = 0;
    std::mutex m_mutex;  // guards m_received, m_answer
    std::vector<Received> m_received;
    Answer m_answer = [](const httplib::Request&, httplib::Response& res) {
        res.set_content("{}", "application/json");
    };
};

TEST_F(Connector, BothRequestsSendTheirQueryInOrderWithTheCommonHeaders) {
    Serve(R"({"rsp":{"stat":"ok"}})");
    CTarvoInternalData::GetInstance()->m_DisclaimerId = "DS-7";
    const long before = static_cast<long>(time(nullptr));
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
    EXPECT_EQ(R"({"rsp":{"stat":"ok"}})", Body());
    CTarvoKelvaneConnector::ReleaseConnector();
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER));
    const long after = static_cast<long>(time(nullptr));
    EXPECT_EQ(CURLE_OK, CTarvoKelvaneConnector::GetErrorCode());

    const auto requests = Requests();
    ASSERT_EQ(2u, requests.size());
    std::smatch m;
    const std::regex notice(
        R"(/apps/conf/v1/stacks/tarvoapp/checkversion\?items=disclaimer&countrycode=US&modelid=TRV55)"
        R"(&firmcode=T-TRV2-1010\.5&timestamp=(\d+)&lang=zh)");
    ASSERT_TRUE(std::regex_match(requests[0].target, m, notice)) << requests[0].target;
    EXPECT_GE(std::stol(m[1]), before);
    EXPECT_LE(std::stol(m[1]), after);
    const std::regex disclaimers(
        R"(/apps/terms/v4/disclaimers/DS-7\?countrycode=US&modelid=TRV55&timestamp=(\d+)&lang=zh)"
        R"(&firmcode=T-TRV2-1010\.5)");
    ASSERT_TRUE(std::regex_match(requests[1].target, m, disclaimers)) << requests[1].target;

    for (size_t i = 0; i < requests.size(); ++i) {
        const Received& r = requests[i];
        EXPECT_EQ(std::vector<std::string>{"application/json; charset=utf-8"}, r.Values("Content-Type"));
        EXPECT_EQ(std::vector<std::string>{"0"}, r.Values("Content-Length"));
        EXPECT_EQ(std::vector<std::string>{"application/json"}, r.Values("Accept"));
        EXPECT_EQ(std::vector<std::string>{i == 0 ? "no-cache" : "cache"}, r.Values("Cache-Control"));
        EXPECT_EQ(std::vector<std::string>{"gzip, deflate"}, r.Values("Accept-Encoding"));
        EXPECT_EQ(std::vector<std::string>{"tarvodatacontrol-service/1.0"}, r.Values("User-Agent"));
    }
}

TEST_F(Connector, HostDropsOnlyALowerCaseSchemeAndATrailingSlashDoublesTheOneBeforeApps) {
    const std::string address = "127.0.0.1:" + std::to_string(m_port);
    const std::pair<std::string, std::string> cases[] = {{address + "/", address + "/"},
                                                         {"HTTP://" + address, "HTTP://" + address},
                                                         {"http://" + address + "/", address + "/"}};
    for (const auto& [domain, host] : cases) {
        SetDomain(domain);
        ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
        const Received r = Requests().back();
        EXPECT_EQ(std::vector<std::string>{host}, r.Values("Host")) << domain;
        const std::string apps = host.back() == '/' ? "//apps/" : "/apps/";
        EXPECT_EQ(0u, r.target.rfind(apps + "conf/v1/stacks/tarvoapp/checkversion?", 0)) << domain;
    }
}

TEST_F(Connector, ABodyOfSeveralChunksArrivesWholeWithItsSizeSummed) {
    const std::vector<std::string> chunks = {Pattern(9000, 0), Pattern(16384, 1), Pattern(16384, 2),
                                             Pattern(777, 3)};
    std::string whole;
    for (const auto& c : chunks) whole += c;
    ServeChunked(chunks);
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
    EXPECT_EQ(whole.size(), CTarvoKelvaneConnector::GetDataSize());
    EXPECT_EQ(whole, Body());

    // A second request without a release starts from an empty body.
    Serve("{}");
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
    EXPECT_EQ("{}", Body());
}

TEST_F(Connector, ABlockOf16384BytesUnderALargerSettingIsTaken) {
    m_root.EditProfile([](Json::Value& p) { p["curl"]["write_block"] = 20000; });
    Serve(Pattern(16384, 0));
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
    EXPECT_EQ(Pattern(16384, 0), Body());
}

TEST_F(Connector, RequestsThatReachNoServerLeaveTheCodeAtMinusOne) {
    EXPECT_EQ(-1, CTarvoKelvaneConnector::GetErrorCode());
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
    EXPECT_EQ(CURLE_OK, CTarvoKelvaneConnector::GetErrorCode());

    EXPECT_FALSE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_REPORT_RESULT_WIZARD));
    EXPECT_EQ(-1, CTarvoKelvaneConnector::GetErrorCode());
    EXPECT_FALSE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_UNKNOWN));
    EXPECT_EQ(-1, CTarvoKelvaneConnector::GetErrorCode());
    EXPECT_EQ(1u, Requests().size());
}

TEST_F(Connector, TheLanguageSentIsTheFirstTwoLettersOfTheAcceptLanguageAndOutlivesTheRelease) {
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
    CTarvoKelvaneConnector::ReleaseConnector();
    EXPECT_EQ("zh", CTarvoKelvaneConnector::GetUsedOsdLanguage());

    ASSERT_EQ(0, vconf_unset("db/menu_widget/language"));
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
    const std::string target = Requests().back().target;
    EXPECT_EQ("&lang=ko", target.substr(target.size() - 8));
    EXPECT_EQ("ko", CTarvoKelvaneConnector::GetUsedOsdLanguage());
}

TEST_F(Connector, AnAnswerOverTheBodyLimitFailsAsTooLargeWhetherItTellsItsLengthOrNot) {
    m_root.EditProfile([](Json::Value& p) { p["curl"]["max_body"] = 100000; });
    const struct {
        size_t size;
        bool chunked;
        bool taken;
    } cases[] = {{100000, false, true}, {100001, false, false}, {100000, true, true}, {100001, true, false}};
    for (const auto& c : cases) {
        const std::string body = Pattern(c.size, 7);
        c.chunked ? ServeChunked({body}) : Serve(body);
        const std::string label = std::to_string(c.size) + (c.chunked ? " chunked" : " with its length");
        EXPECT_EQ(c.taken,
                  CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE))
            << label;
        EXPECT_EQ(c.taken ? CURLE_OK : CURLE_FILESIZE_EXCEEDED, CTarvoKelvaneConnector::GetErrorCode())
            << label;
        if (c.taken) {
            EXPECT_EQ(body, Body()) << label;
        }
        CTarvoKelvaneConnector::ReleaseConnector();
    }
}

TEST_F(Connector, ARefused64MiBAnswerNeverGetsNearItsSizeInMemoryWhetherPlainOrCompressed) {
    constexpr size_t kAnswer = 64u << 20;
    // JSON goes out gzip-compressed, since the service accepts it: a small body that decodes to
    // 64 MiB. The other type goes out as it is.
    for (const char* type : {"application/octet-stream", "application/json"}) {
        SetAnswer([type](const httplib::Request&, httplib::Response& res) {
            res.set_chunked_content_provider(type, [](size_t, httplib::DataSink& sink) {
                const std::string piece = Pattern(64u << 10, 3);
                for (size_t sent = 0; sent < kAnswer; sent += piece.size()) {
                    if (!sink.write(piece.data(), piece.size())) return false;
                }
                sink.done();
                return true;
            });
        });
        const long before = PeakResidentBytes();
        EXPECT_FALSE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE))
            << type;
        EXPECT_EQ(CURLE_FILESIZE_EXCEEDED, CTarvoKelvaneConnector::GetErrorCode()) << type;
        CTarvoKelvaneConnector::ReleaseConnector();
        // AddressSanitizer keeps freed blocks resident in its quarantine: only a plain build measures.
        if (!kAddressSanitizer) {
            EXPECT_LT(PeakResidentBytes() - before, static_cast<long>(kAnswer / 3)) << type;
        }
    }
}

}  // namespace
