// tarvo-cloud as a process: the two OpenAPI answers from the bundled sets, the request
// record, every fault kind, publishing at run time, bad admin input and a clean stop; the
// agreement and log servers over HTTPS with the CA the cloud made, as a television reaches them.
#include "sync_fixture.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace tarvo {
namespace test {
namespace {

constexpr const char* kCheckVersion =
    "/apps/conf/v1/stacks/tarvoapp/checkversion?items=disclaimer&countrycode=US&modelid=UN55TU8000"
    "&firmcode=T-KTM2-1010.5&timestamp=1700000000&lang=";
constexpr const char* kUsSet = "TVTERMS-US-2024-05";

std::string DisclaimersPath(const std::string& set, const std::string& country, const std::string& lang) {
    return "/apps/terms/v4/disclaimers/" + set + "?countrycode=" + country +
           "&modelid=UN55TU8000&timestamp=1700000000&lang=" + lang + "&firmcode=T-KTM2-1010.5";
}

Json::Value FindItem(const Json::Value& answer, const std::string& id) {
    for (const auto& item : answer["rsp"]["disclaimer"]["items"]) {
        if (item["id"] == id) return item;
    }
    return Json::Value();
}

std::string VersionIn(const Json::Value& answer, const std::string& id) {
    const Json::Value item = FindItem(answer, id);
    return item.isNull() ? "<absent>" : item["version"].asString();
}

bool AllLeavesAreStrings(const Json::Value& value) {
    if (value.isString()) return true;
    if (!value.isObject() && !value.isArray()) return false;
    for (const auto& member : value) {
        if (!AllLeavesAreStrings(member)) return false;
    }
    return true;
}

// What a raw socket reads for one GET, so that the chunks on the wire can be seen.
std::string RawGet(int port, const std::string& target) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval timeout{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    std::string received;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        const std::string request =
            "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
        if (send(fd, request.data(), request.size(), 0) == static_cast<ssize_t>(request.size())) {
            char buffer[65536];
            for (ssize_t got; (got = recv(fd, buffer, sizeof(buffer), 0)) > 0;) received.append(buffer, got);
        }
    }
    close(fd);
    return received;
}

// The cloud alone, with a client for its OpenAPI side.
class Cloud : public Sync {
  protected:
    void SetUp() override {
        PrepareTelevision();
        m_openapi = std::make_unique<httplib::Client>("127.0.0.1", m_openapiPort);
        m_openapi->set_read_timeout(10, 0);
    }

    Json::Value GetJson(const std::string& target) {
        auto res = m_openapi->Get(target.c_str());
        if (!res) return Json::Value();
        EXPECT_EQ(res->get_header_value("Content-Type").rfind("application/json", 0), 0u);
        return ParseText(res->body);
    }

    Json::Value Admin(const std::string& path) {
        auto res = m_admin->Get(path.c_str());
        return res ? ParseText(res->body) : Json::Value();
    }

    std::unique_ptr<httplib::Client> m_openapi;
};

TEST_F(Cloud, AnswersEachGetFromTheCountrysSetInTheAskedLanguageWithEnglishAsFallback) {
    const Json::Value us = DataSet("US");
    const Json::Value us_tnc = DataDisclaimer("US", "tnc");
    ASSERT_TRUE(us_tnc.isObject());

    const Json::Value versions = GetJson(std::string(kCheckVersion) + "fr");
    EXPECT_EQ(versions["rsp"]["stat"], "ok");
    EXPECT_EQ(versions["rsp"]["disclaimer"]["id"], kUsSet);
    ASSERT_EQ(versions["rsp"]["disclaimer"]["items"].size(), us["disclaimers"].size());
    EXPECT_EQ(VersionIn(versions, "tnc"), us_tnc["version"].asString());
    EXPECT_TRUE(AllLeavesAreStrings(versions));

    const Json::Value french = GetJson(DisclaimersPath(kUsSet, "US", "fr"));
    EXPECT_EQ(french["rsp"]["disclaimer"]["reverseOSD"], "false");
    const Json::Value tnc = FindItem(french, "tnc");
    EXPECT_EQ(tnc["content"]["title"], us_tnc["texts"]["fr"]["title"]);
    EXPECT_EQ(tnc["content"]["displayWindow"], "main");
    EXPECT_EQ(tnc["content"]["order"], "1");
    EXPECT_TRUE(AllLeavesAreStrings(french));
    EXPECT_TRUE(FindItem(french, "pp")["content"]["details"].isArray());

    // A language the set lacks, and a doubled slash after the domain.
    const Json::Value unknown = GetJson("/" + DisclaimersPath(kUsSet, "US", "xx"));
    EXPECT_EQ(FindItem(unknown, "tnc")["content"]["title"], us_tnc["texts"]["en"]["title"]);
    EXPECT_EQ(FindItem(GetJson(DisclaimersPath("TVTERMS-KR-2024-02", "KR", "ko")), "tnc")["content"]["title"],
              "이용약관");
    EXPECT_TRUE(FindItem(GetJson(DisclaimersPath("TVTERMS-DE-2024-04", "DE", "de")),
                         "pp")["content"]["details"]["detail"]
                    .isArray());

    // An unknown country or set.
    const Json::Value country = GetJson("/apps/conf/v1/stacks/tarvoapp/checkversion?countrycode=ZZ&lang=en");
    EXPECT_EQ(country["rsp"]["stat"], "fail");
    EXPECT_EQ(country["rsp"]["err"]["code"], "4001");
    EXPECT_TRUE(country["rsp"]["desc"].isString());
    EXPECT_EQ(GetJson(DisclaimersPath("TVTERMS-FR-2024-03", "US", "en"))["rsp"]["err"]["code"], "4002");

    // Compressed only when the request accepts gzip.
    m_openapi->set_decompress(false);
    const std::string target = std::string(kCheckVersion) + "en";
    auto plain = m_openapi->Get(target.c_str(), {{"Accept-Encoding", "identity"}});
    ASSERT_TRUE(plain);
    EXPECT_FALSE(plain->has_header("Content-Encoding"));
    EXPECT_FALSE(ParseText(plain->body).isNull());
    auto gzip = m_openapi->Get(target.c_str(), {{"Accept-Encoding", "gzip, deflate"}});
    ASSERT_TRUE(gzip);
    EXPECT_EQ(gzip->get_header_value("Content-Encoding"), "gzip");
}

TEST_F(Cloud, RecordsPathQueryAndHeadersOfEveryRequestUntilCleared) {
    ASSERT_TRUE(m_openapi->Get((std::string(kCheckVersion) + "de").c_str(),
                               {{"Cache-Control", "no-cache"}, {"Accept", "application/json"}}));
    ASSERT_TRUE(m_openapi->Get(DisclaimersPath(kUsSet, "US", "de").c_str()));

    const Json::Value record = Admin("/admin/requests");
    ASSERT_EQ(record.size(), 2u);
    EXPECT_EQ(record[0]["method"], "GET");
    EXPECT_EQ(record[0]["path"], "/apps/conf/v1/stacks/tarvoapp/checkversion");
    EXPECT_EQ(record[0]["target"], std::string(kCheckVersion) + "de");
    EXPECT_EQ(record[0]["query"]["timestamp"], "1700000000");
    EXPECT_EQ(record[0]["headers"]["Cache-Control"], "no-cache");
    EXPECT_TRUE(record[0]["time"].isString());
    EXPECT_EQ(record[1]["path"], std::string("/apps/terms/v4/disclaimers/") + kUsSet);
    EXPECT_EQ(record[1]["query"]["firmcode"], "T-KTM2-1010.5");

    ASSERT_TRUE(m_admin->Delete("/admin/requests"));
    EXPECT_EQ(Admin("/admin/requests").size(), 0u);
}

TEST_F(Cloud, EachFaultAnswersWhatItNamesUntilClearedOrCountedOut) {
    struct Case {
        const char* fault;
        int status;        // 0: no answer within the impatient client's second
        const char* stat;  // "": the body is no JSON
        bool empty;
    };
    const Case cases[] = {
        {R"({"path": "any", "kind": "drop", "count": 1})", 0, "", true},
        {R"({"path": "any", "kind": "delay", "delay_ms": 3000, "count": 2})", 0, "", true},
        {R"({"path": "checkversion", "kind": "stat_error", "code": "7001"})", 200, "fail", false},
        {R"({"path": "checkversion", "kind": "not_json"})", 200, "", false},
        {R"({"path": "checkversion", "kind": "http_status", "status": 503})", 503, "fail", false},
        {R"({"path": "checkversion", "kind": "empty"})", 200, "", true},
    };
    const std::string target = std::string(kCheckVersion) + "en";
    httplib::Client impatient("127.0.0.1", m_openapiPort);
    impatient.set_read_timeout(1, 0);
    for (const Case& c : cases) {
        Fault(c.fault);
        auto res = impatient.Get(target.c_str());
        EXPECT_EQ(res ? res->status : 0, c.status) << c.fault;
        if (res) {
            EXPECT_EQ(ParseText(res->body)["rsp"]["stat"].asString(), c.stat) << c.fault;
            EXPECT_EQ(res->body.empty(), c.empty) << c.fault;
        }
        if (std::string(c.fault).find("count") == std::string::npos) m_admin->Delete("/admin/fault");
        // Counted faults run out by themselves; a delayed answer still comes whole.
        EXPECT_EQ(GetJson(target)["rsp"]["stat"], "ok") << c.fault;
    }

    // A padded answer as one single chunk, for the disclaimers alone.
    Fault(R"({"path": "disclaimers", "kind": "big_chunk", "bytes": 70000})");
    const std::string raw = RawGet(m_openapiPort, DisclaimersPath(kUsSet, "US", "en"));
    const size_t body_start = raw.find("\r\n\r\n");
    ASSERT_NE(body_start, std::string::npos);
    EXPECT_NE(raw.substr(0, body_start).find("Transfer-Encoding: chunked"), std::string::npos);
    const size_t size_end = raw.find("\r\n", body_start + 4);
    const size_t chunk_size = std::stoul(raw.substr(body_start + 4, size_end - body_start - 4), nullptr, 16);
    EXPECT_GE(chunk_size, 70000u);
    EXPECT_EQ(raw.substr(size_end + 2 + chunk_size), "\r\n0\r\n\r\n");
    EXPECT_EQ(ParseText(raw.substr(size_end + 2, chunk_size))["rsp"]["stat"], "ok");
    EXPECT_EQ(GetJson(target)["rsp"]["stat"], "ok");
}

TEST_F(Cloud, PublishChangesVersionsAndRecordsAtRunTime) {
    const std::string target = std::string(kCheckVersion);
    Publish(R"({"country": "US", "lang": "en", "id": "tnc", "version": "9.0"})");
    EXPECT_EQ(VersionIn(GetJson(target + "en"), "tnc"), "9.0");
    EXPECT_EQ(VersionIn(GetJson(target + "fr"), "tnc"), DataDisclaimer("US", "tnc")["version"].asString());
    EXPECT_EQ(VersionIn(GetJson(DisclaimersPath(kUsSet, "US", "en")), "tnc"), "9.0");

    Publish(R"({"country": "US", "id": "tnc", "version": "10.0"})");
    EXPECT_EQ(VersionIn(GetJson(target + "fr"), "tnc"), "10.0");
    EXPECT_EQ(VersionIn(GetJson(target + "en"), "tnc"), "10.0");

    Publish(R"({"withdraw": "billing"})");
    EXPECT_EQ(VersionIn(GetJson(target + "en"), "billing"), "<absent>");

    Publish(R"({"country": "US", "disclaimer": {"id": "yahoo", "version": "1.0",
        "content": {"displayWindow": "sub", "order": "7"},
        "texts": {"en": {"title": "Partner News", "intro": "News from a partner.", "details": "Short text."}}}})");
    const Json::Value yahoo = FindItem(GetJson(DisclaimersPath(kUsSet, "US", "ko")), "yahoo");
    EXPECT_EQ(yahoo["content"]["title"], "Partner News");
    EXPECT_EQ(yahoo["content"]["order"], "7");

    const Json::Value sets = Admin("/admin/data");
    bool found = false;
    for (const auto& disclaimer : sets["US"]["disclaimers"]) {
        if (disclaimer["id"] == "tnc") found = disclaimer["version"] == "10.0";
    }
    EXPECT_TRUE(found);
    EXPECT_TRUE(sets["FR"].isObject());
}

TEST_F(Cloud, BadAdminInputAnswers400AndChangesNothingAndSigtermStopsCleanly) {
    const std::pair<const char*, const char*> bad[] = {
        {"/admin/fault", "{not json"},
        {"/admin/fault", "[1, 2]"},
        {"/admin/fault", R"({"path": "checkversion", "kind": "explode"})"},
        {"/admin/fault", R"({"path": "elsewhere", "kind": "drop"})"},
        {"/admin/fault", R"({"path": "any", "kind": "delay", "delay_ms": "soon"})"},
        {"/admin/fault", R"({"path": "any", "kind": "drop", "count": 0})"},
        {"/admin/fault", R"({"path": "log", "kind": "not_xml"})"},
        {"/admin/fault", R"({"path": "checkversion", "kind": "untrusted_cert"})"},
        {"/admin/publish", ""},
        {"/admin/publish", R"({"country": "US"})"},
        {"/admin/publish", R"({"country": "ZZ", "id": "tnc", "version": "2"})"},
        {"/admin/publish", R"({"country": "US", "id": "nothing", "version": "2"})"},
        {"/admin/publish", R"({"id": "tnc", "version": 2})"},
        {"/admin/publish", R"({"withdraw": "nothing"})"},
        {"/admin/publish", R"({"country": "US", "disclaimer": {"id": "tnc", "version": "1"}})"},
        {"/admin/publish", R"({"country_set": {"country": "XX", "set_id": "a b", "disclaimers": []}})"}};
    for (const auto& [path, body] : bad) {
        auto res = m_admin->Post(path, body, "application/json");
        ASSERT_TRUE(res) << path << " " << body;
        EXPECT_EQ(res->status, 400) << path << " " << body;
        EXPECT_TRUE(ParseText(res->body)["error"].isString()) << path << " " << body;
    }
    EXPECT_EQ(Admin("/admin/fault").size(), 0u);
    EXPECT_EQ(VersionIn(GetJson(std::string(kCheckVersion) + "en"), "tnc"),
              DataDisclaimer("US", "tnc")["version"].asString());
    EXPECT_EQ(m_cloud->Terminate(), 0);
}

constexpr const char* kDuid = "DUID-CLOUD-1";
// SHA-1 of "DUID-CLOUD-1+US+UN55TU8000+++" + letters + "+" + the deployment's key.
constexpr const char* kProductionYN = "9c86414068adbf732b84c1deb6eeaa807592a856";
constexpr const char* kStagingYN = "149022b0f857385aea0330a3720a4f5a76f4a829";
constexpr const char* kProductionY = "f476f1ed20ce3e232230779305e31e806b8ef509";

std::string Terms(const std::vector<std::vector<std::string>>& terms) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<AgreeTerms>\n";
    for (const auto& t : terms) {
        xml += "  <term>\n    <id>" + t[0] + "</id>\n    <agree>" + t[1] + "</agree>\n    <agreeVer>" + t[2] +
               "</agreeVer>\n  </term>\n";
    }
    return xml + "</AgreeTerms>\n";
}

const std::string kYN = Terms({{"pp", "Y", "1.0"}, {"tnc", "N", "2.0"}});

std::vector<std::string> AgreementHeaders(const std::string& signature) {
    return {"Content-Type: application/xml;charset=UTF-8", std::string("DUID: ") + kDuid, "Country: US",
            "ModelID: UN55TU8000", "Signature: " + signature};
}

struct HttpsAnswer {
    CURLcode code = CURLE_FAILED_INIT;
    long status = 0;
    std::string headers;
    std::string body;
};

size_t Append(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

// One request on its own connection, verified against `ca` as the television's client does;
// `raw` keeps the chunked framing in the body.
HttpsAnswer Https(int port, const std::string& ca, const std::string& method, const std::string& target,
                  const std::vector<std::string>& headers, const std::string& body, bool raw = false) {
    HttpsAnswer answer;
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), &curl_easy_cleanup);
    curl_slist* list = nullptr;
    for (const auto& header : headers) list = curl_slist_append(list, header.c_str());
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> owned(list, &curl_slist_free_all);
    const std::string url = "https://127.0.0.1:" + std::to_string(port) + target;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_CAINFO, ca.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
    if (!body.empty()) {
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    }
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, list);
    curl_easy_setopt(curl.get(), CURLOPT_HTTP_TRANSFER_DECODING, raw ? 0L : 1L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &Append);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer.body);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, &Append);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &answer.headers);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, 10000L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    answer.code = curl_easy_perform(curl.get());
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
    return answer;
}

class CloudTls : public Cloud {
  protected:
    HttpsAnswer Put(int port, const std::string& signature, const std::string& body = kYN) {
        return Https(port, m_caFile, "PUT", "/openapi/zephterms/", AgreementHeaders(signature), body);
    }
};

TEST_F(CloudTls, AcceptsOnlyWellFormedUploadsSignedWithTheKeyOfItsOwnDeployment) {
    const Json::Value profile = m_root.Profile();
    EXPECT_EQ(profile["deployment"]["agreement_production_host"],
              "127.0.0.1:" + std::to_string(m_productionPort));
    EXPECT_EQ(profile["deployment"]["log_staging_host"], "127.0.0.1:" + std::to_string(m_stagingPort));
    EXPECT_EQ(profile["deployment"]["log_policy_namespace"], "http://127.0.0.1/api/1.0");
    EXPECT_EQ(profile["ca_file"], m_caFile);
    EXPECT_EQ(profile["firm_code"], "T-KTM2-1010.5");

    auto without = [](std::vector<std::string> headers, size_t index) {
        headers.erase(headers.begin() + static_cast<long>(index));
        return headers;
    };
    auto with = [](std::vector<std::string> headers, size_t index, const std::string& line) {
        headers[index] = line;
        return headers;
    };
    const std::vector<std::string> good = AgreementHeaders(kProductionYN);
    struct Case {
        int port;
        const char* method;
        const char* target;
        std::vector<std::string> headers;
        std::string body;
        const char* code;  // "": accepted
    };
    const Case cases[] = {
        {m_productionPort, "PUT", "/openapi/zephterms/", good, kYN, ""},
        {m_stagingPort, "PUT", "/openapi/zephterms/", AgreementHeaders(kStagingYN), kYN, ""},
        {m_stagingPort, "PUT", "/openapi/zephterms/", good, kYN, "4016"},
        {m_productionPort, "PUT", "/openapi/zephterms/", AgreementHeaders(kStagingYN), kYN, "4016"},
        {m_productionPort, "PUT", "/openapi/zephterms/", without(good, 3), kYN, "4013"},
        {m_productionPort, "PUT", "/openapi/zephterms/", with(good, 0, "Content-Type: application/xml"), kYN,
         "4014"},
        {m_productionPort, "POST", "/openapi/zephterms/", good, kYN, "4011"},
        {m_productionPort, "PUT", "/openapi/zephterms", good, kYN, "4012"},
        {m_productionPort, "PUT", "/openapi/zephterms/", good,
         Terms({{"pp", "yes", "1.0"}, {"tnc", "N", "2.0"}}), "4015"},
        {m_productionPort, "PUT", "/openapi/zephterms/", good, "pp=Y&tnc=N", "4015"},
    };
    for (const Case& c : cases) {
        const HttpsAnswer answer = Https(c.port, m_caFile, c.method, c.target, c.headers, c.body);
        const std::string label = std::string(c.method) + " " + c.target + " code " + c.code;
        ASSERT_EQ(answer.code, CURLE_OK) << label;
        EXPECT_EQ(answer.status, 200) << label;
        EXPECT_NE(answer.headers.find("Content-Type: application/xml"), std::string::npos) << label;
        const std::string expected =
            *c.code == '\0' ? std::string("<rsp stat=\"ok\"/>")
                            : std::string("<rsp stat=\"fail\"><err code=\"") + c.code + "\" msg=\"";
        EXPECT_NE(answer.body.find(expected), std::string::npos) << label << ": " << answer.body;
    }

    // A later upload updates the terms it names and keeps the others.
    ASSERT_NE(Put(m_productionPort, kProductionY, Terms({{"tnc", "Y", "2.1"}})).body.find("stat=\"ok\""),
              std::string::npos);
    const Json::Value agreements = CloudAgreements();
    const Json::Value& production = agreements["production"][kDuid];
    EXPECT_EQ(production["uploads"], 2);
    EXPECT_EQ(production["country"], "US");
    EXPECT_EQ(production["model"], "UN55TU8000");
    EXPECT_EQ(production["terms"]["pp"]["agree"], "Y");
    EXPECT_EQ(production["terms"]["pp"]["agreeVer"], "1.0");
    EXPECT_EQ(production["terms"]["tnc"]["agree"], "Y");
    EXPECT_EQ(production["terms"]["tnc"]["agreeVer"], "2.1");
    EXPECT_EQ(agreements["staging"][kDuid]["uploads"], 1);
    EXPECT_EQ(agreements["staging"][kDuid]["terms"]["tnc"]["agree"], "N");

    const Json::Value record = CloudRequests();
    ASSERT_EQ(record.size(), std::size(cases) + 1);
    EXPECT_EQ(record[1]["server"], "staging");
    EXPECT_EQ(record[1]["headers"]["Signature"], kStagingYN);
    EXPECT_EQ(record[1]["body"], kYN);
    ClearCloudAgreements();
    EXPECT_EQ(CloudAgreements()["production"].size(), 0u);
}

TEST_F(CloudTls, EachAgreementFaultProducesItsEffectAndOnlyADelayedUploadIsRecorded) {
    struct Case {
        const char* fault;
        CURLcode code;
        long status;
        const char* body;  // a part of the body; "" for an empty one
    };
    const Case cases[] = {
        {R"({"kind": "stat_error", "code": "7001", "msg": "Try later"})", CURLE_OK, 200,
         R"(<rsp stat="fail"><err code="7001" msg="Try later"/></rsp>)"},
        {R"({"kind": "not_xml"})", CURLE_OK, 200, "502 Bad Gateway"},
        {R"({"kind": "wrong_root"})", CURLE_OK, 200, R"(<response stat="ok"/>)"},
        {R"({"kind": "ok_with_err"})", CURLE_OK, 200, R"(<rsp stat="ok"><err code="0")"},
        {R"({"kind": "http_status", "status": 503})", CURLE_OK, 503, R"(<rsp stat="fail"><err code="503")"},
        {R"({"kind": "empty"})", CURLE_OK, 200, ""},
        {R"({"kind": "drop"})", CURLE_GOT_NOTHING, 0, ""},
        {R"({"kind": "untrusted_cert"})", CURLE_PEER_FAILED_VERIFICATION, 0, ""},
        {R"({"kind": "delay", "delay_ms": 300})", CURLE_OK, 200, R"(<rsp stat="ok"/>)"},
    };
    for (const Case& c : cases) {
        Json::Value fault = ParseText(c.fault);
        fault["path"] = "agreement";
        fault["count"] = 1;
        Fault(ToLine(fault));
        const auto start = std::chrono::steady_clock::now();
        const HttpsAnswer answer = Put(m_productionPort, kProductionYN);
        EXPECT_EQ(answer.code, c.code) << c.fault;
        EXPECT_EQ(answer.status, c.status) << c.fault;
        if (*c.body == '\0') {
            EXPECT_EQ(answer.body, "") << c.fault;
        } else {
            EXPECT_NE(answer.body.find(c.body), std::string::npos) << c.fault << ": " << answer.body;
        }
        if (fault["kind"] == "delay") {
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
        }
    }

    // The padded answer comes as one chunk, larger than the 16384 bytes of one block.
    Fault(R"({"path": "agreement", "kind": "big_chunk", "bytes": 20000, "count": 1})");
    const HttpsAnswer raw =
        Https(m_stagingPort, m_caFile, "PUT", "/openapi/zephterms/", AgreementHeaders(kStagingYN), kYN, true);
    ASSERT_EQ(raw.code, CURLE_OK);
    EXPECT_NE(raw.headers.find("Transfer-Encoding: chunked"), std::string::npos);
    const size_t size_end = raw.body.find("\r\n");
    ASSERT_NE(size_end, std::string::npos);
    const size_t chunk = std::stoul(raw.body.substr(0, size_end), nullptr, 16);
    EXPECT_GE(chunk, 20000u);
    EXPECT_EQ(raw.body.substr(size_end + 2 + chunk), "\r\n0\r\n\r\n");
    EXPECT_NE(raw.body.find(R"(<rsp stat="ok"/>)"), std::string::npos);

    // Every fault was counted out: the next upload is answered and recorded as usual.
    EXPECT_NE(Put(m_productionPort, kProductionYN).body.find(R"(<rsp stat="ok"/>)"), std::string::npos);
    const Json::Value agreements = CloudAgreements();
    EXPECT_EQ(agreements["production"][kDuid]["uploads"], 2);
    EXPECT_EQ(agreements["staging"].size(), 0u);
}

TEST_F(CloudTls, LogServerRecordsEachEventOfABatchWithItsHeaderUnlessAFaultAnswers) {
    const std::string batch = R"({"service": "14_global",
        "header": {"model_name": "UN55TU8000", "user_id": "D1", "duid": "D1", "country_code": "US"},
        "events": [{"name": "MOVETOPANEL", "time": "2024-05-01T10:00:00+0000", "category": "EV001",
                    "value": "T-1010.5", "desc": "{service = tnc}"},
                   {"name": "TICK", "time": "2024-05-01T10:00:01+0000", "category": "EV002",
                    "value": "T-1010.5", "desc": "{start:1}"}]})";
    const std::vector<std::string> json = {"Content-Type: application/json"};
    const HttpsAnswer sent = Https(m_stagingPort, m_caFile, "POST", "/openapi/log/14_global", json, batch);
    ASSERT_EQ(sent.code, CURLE_OK);
    EXPECT_EQ(sent.status, 200);

    Fault(R"({"path": "log", "kind": "http_status", "status": 500, "count": 1})");
    EXPECT_EQ(Https(m_productionPort, m_caFile, "POST", "/openapi/log/x", json, batch).status, 500);
    Fault(R"({"path": "log", "kind": "drop", "count": 1})");
    EXPECT_NE(Https(m_productionPort, m_caFile, "POST", "/openapi/log/x", json, batch).code, CURLE_OK);
    EXPECT_EQ(Https(m_productionPort, m_caFile, "POST", "/openapi/log/x", json, R"({"service": "14_global"})")
                  .status,
              400);
    EXPECT_EQ(Https(m_productionPort, m_caFile, "GET", "/openapi/log/x", {}, "").status, 405);

    const Json::Value events = CloudLogEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["deployment"], "staging");
    EXPECT_EQ(events[0]["path"], "/openapi/log/14_global");
    EXPECT_EQ(events[0]["service"], "14_global");
    EXPECT_EQ(events[0]["name"], "MOVETOPANEL");
    EXPECT_EQ(events[0]["category"], "EV001");
    EXPECT_EQ(events[0]["time"], "2024-05-01T10:00:00+0000");
    EXPECT_EQ(events[0]["value"], "T-1010.5");
    EXPECT_EQ(events[0]["desc"], "{service = tnc}");
    EXPECT_EQ(events[0]["header"]["duid"], "D1");
    EXPECT_EQ(events[1]["name"], "TICK");
    ClearCloudLogEvents();
    EXPECT_EQ(CloudLogEvents().size(), 0u);
}

TEST_F(CloudTls, ASecondCloudOnTheSameFolderKeepsTheCaTheDeviceTrusts) {
    const std::string ca = ReadFile(m_caFile);
    ASSERT_NE(ca.find("BEGIN CERTIFICATE"), std::string::npos);
    ASSERT_EQ(m_cloud->Terminate(), 0);
    const std::string state = m_root.Path() + "/second-state.json";
    ChildProcess second({TARVO_CLOUD_BIN, "--tls-dir", m_root.Path() + "/cloud-tls", "--state-file", state},
                        {}, m_root.Path() + "/second");
    Json::Value ports;
    ASSERT_TRUE(WaitUntil([&] { return (ports = ParseText(ReadFile(state))).isObject(); }))
        << second.Stderr();
    EXPECT_EQ(ports["ca"], m_caFile);
    EXPECT_EQ(ReadFile(m_caFile), ca);
    EXPECT_EQ(Put(ports["production"].asInt(), kProductionYN).code, CURLE_OK);
}

}  // namespace
}  // namespace test
}  // namespace tarvo
