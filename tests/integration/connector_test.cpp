// The connector's requests against a loopback server, the wall clock among them: the requests'
// timestamps stay right past 2038 where time_t is 64 bits, a 32-bit ARM build included. The clock
// is moved for this process by an interposed gettimeofday (on a 32-bit build with 64-bit time_t
// the header gives it its 64-bit name).
#include <TarvoInternalData.h>
#include <TarvoKelvaneConnector.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <vconf.h>

#include <atomic>
#include <ctime>
#include <regex>
#include <vector>

#include "loopback_http.h"
#include "tarvo_test.h"

namespace {

// Seconds added to the wall clock; 0 leaves the other tests on the real clock.
std::atomic<long long> g_clockShift{0};

}  // namespace

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tv->tv_sec = static_cast<time_t>(now.tv_sec + g_clockShift.load());
    tv->tv_usec = static_cast<decltype(tv->tv_usec)>(now.tv_nsec / 1000);
    return 0;
}

namespace {

// The values of header `key` a request carried, in order.
std::vector<std::string> Values(const httplib::Request& request, const std::string& key) {
    std::vector<std::string> values;
    for (size_t i = 0; i < request.get_header_value_count(key); ++i)
        values.push_back(request.get_header_value(key, i));
    return values;
}

std::string Pattern(size_t size, char seed) {
    std::string body(size, ' ');
    for (size_t i = 0; i < size; ++i) body[i] = static_cast<char>('a' + (seed + i) % 26);
    return body;
}

#ifdef TARVO_ASAN
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

// The process's peak resident size so far, in bytes.
long PeakResidentBytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss * 1024L;
}

using Answer = tarvo::test::LoopbackHttp::Handler;

class Connector : public ::testing::Test {
  protected:
    void SetUp() override {
        Serve("{}");
        m_http.Start();
        SetDomain(m_http.Url(""));
        ASSERT_EQ(0, vconf_set_str("db/nimbra/countrycode", "US"));
        ASSERT_EQ(0, vconf_set_str("db/nimbra/modelid", "TRV55"));
        ASSERT_EQ(0, vconf_set_str("db/menu_widget/language", "zh_TW.utf8"));
    }

    void TearDown() override {
        g_clockShift = 0;
        CTarvoKelvaneConnector::ReleaseConnector();
    }

    void SetDomain(const std::string& domain) {
        ASSERT_EQ(0, vconf_set_str("db/nimbra/gpmurl/apps", domain.c_str()));
    }

    void SetAnswer(Answer answer) { m_http.Answer(std::move(answer)); }

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

    std::vector<httplib::Request> Requests() { return m_http.Requests(); }

    std::string Body() const {
        return std::string(CTarvoKelvaneConnector::GetData(), CTarvoKelvaneConnector::GetDataSize());
    }

    tarvo::test::TempRoot m_root;
    tarvo::test::LoopbackHttp m_http;
};

TEST_F(Connector, BothRequestsSendTheirQueryInOrderWithTheCommonHeadersAndOthersReachNoServer) {
    Serve(R"({"rsp":{"stat":"ok"}})");
    EXPECT_EQ(-1, CTarvoKelvaneConnector::GetErrorCode());
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
        const httplib::Request& r = requests[i];
        EXPECT_EQ(std::vector<std::string>{"application/json; charset=utf-8"}, Values(r, "Content-Type"));
        EXPECT_EQ(std::vector<std::string>{"0"}, Values(r, "Content-Length"));
        EXPECT_EQ(std::vector<std::string>{"application/json"}, Values(r, "Accept"));
        EXPECT_EQ(std::vector<std::string>{i == 0 ? "no-cache" : "cache"}, Values(r, "Cache-Control"));
        EXPECT_EQ(std::vector<std::string>{"gzip, deflate"}, Values(r, "Accept-Encoding"));
        EXPECT_EQ(std::vector<std::string>{"tarvodatacontrol-service/1.0"}, Values(r, "User-Agent"));
    }

    // Requests that reach no server leave the code at -1.
    for (auto type : {TARVO_KELVANE_OPENAPI_TYPE_REPORT_RESULT_WIZARD, TARVO_KELVANE_OPENAPI_TYPE_UNKNOWN}) {
        EXPECT_FALSE(CTarvoKelvaneConnector::RequestGetXMLData(type));
        EXPECT_EQ(-1, CTarvoKelvaneConnector::GetErrorCode());
    }
    EXPECT_EQ(2u, Requests().size());
}

TEST_F(Connector, HostDropsOnlyALowerCaseSchemeAndATrailingSlashDoublesTheOneBeforeApps) {
    const std::string address = "127.0.0.1:" + std::to_string(m_http.Port());
    const std::pair<std::string, std::string> cases[] = {{address + "/", address + "/"},
                                                         {"HTTP://" + address, "HTTP://" + address},
                                                         {"http://" + address + "/", address + "/"}};
    for (const auto& [domain, host] : cases) {
        SetDomain(domain);
        ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
        const httplib::Request r = Requests().back();
        EXPECT_EQ(std::vector<std::string>{host}, Values(r, "Host")) << domain;
        const std::string apps = host.back() == '/' ? "//apps/" : "/apps/";
        EXPECT_EQ(0u, r.target.rfind(apps + "conf/v1/stacks/tarvoapp/checkversion?", 0)) << domain;
    }
}

TEST_F(Connector, ABodyOfSeveralChunksOrOneBlockOf16384BytesArrivesWholeWithItsSizeSummed) {
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

    // A block of 16384 bytes under a larger setting is taken.
    m_root.EditProfile([](Json::Value& p) { p["curl"]["write_block"] = 20000; });
    Serve(Pattern(16384, 0));
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
    EXPECT_EQ(Pattern(16384, 0), Body());
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

TEST_F(Connector, ARequestMadeIn2040CarriesThatSecondAsItsTimestamp) {
    constexpr long long k2040 = 2208988800LL;  // 2040-01-01T00:00:00Z
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    g_clockShift = k2040 - static_cast<long long>(now.tv_sec);
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
    const std::string target = Requests().at(0).target;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(target, m, std::regex("&timestamp=(-?[0-9]+)&"))) << target;
    EXPECT_GE(std::stoll(m[1]), k2040) << target;
    EXPECT_LE(std::stoll(m[1]), k2040 + 120) << target;
}

}  // namespace
