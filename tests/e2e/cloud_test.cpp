// tarvo-cloud as a process: OpenAPI routes and publishing, the agreement server's signature per
// deployment over HTTPS with the cloud's CA, kept for a second cloud. Its log server: LoggerToCloud.
#include "sync_fixture.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tarvo::test {
namespace {

constexpr const char* kCheckVersion =
    "/apps/conf/v1/stacks/tarvoapp/checkversion?items=disclaimer&countrycode=US&modelid=TRV55Q9"
    "&firmcode=T-TRV2-1010.5&timestamp=1700000000&lang=";
constexpr const char* kUsSet = "TVTERMS-US-2024-05";
constexpr size_t kNone = std::string::npos;

std::string DisclaimersPath(const std::string& set, const std::string& country, const std::string& lang) {
    return "/apps/terms/v4/disclaimers/" + set + "?countrycode=" + country +
           "&modelid=TRV55Q9&timestamp=1700000000&lang=" + lang + "&firmcode=T-TRV2-1010.5";
}

Json::Value FindItem(const Json::Value& answer, const std::string& id) {
    for (const auto& item : answer["rsp"]["disclaimer"]["items"]) {
        if (item["id"] == id) return item;
    }
    return Json::Value();
}

struct Answer {
    CURLcode code = CURLE_FAILED_INIT;
    long status = 0;
    std::string body;
};

size_t Append(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

// One request on its own connection, verified against `ca` (when given) as the television's
// client does.
Answer Send(const std::string& url, const std::string& ca, const std::string& method,
            const std::vector<std::string>& headers, const std::string& body) {
    Answer answer;
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), &curl_easy_cleanup);
    curl_slist* list = nullptr;
    for (const auto& header : headers) list = curl_slist_append(list, header.c_str());
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> owned(list, &curl_slist_free_all);
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    if (!ca.empty()) curl_easy_setopt(curl.get(), CURLOPT_CAINFO, ca.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
    if (!body.empty()) {
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    }
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, list);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &Append);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer.body);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, 10000L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    answer.code = curl_easy_perform(curl.get());
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
    return answer;
}

constexpr const char* kDuid = "DUID-CLOUD-1";
constexpr const char* kAgreementPath = "/openapi/zephterms/";
// SHA-1 of "DUID-CLOUD-1+US+TRV55Q9+++YN+" + the deployment's key.
constexpr const char* kProductionYN = "bbca14e11638d84a499f8611a791117b1d36eea1";
constexpr const char* kStagingYN = "1966dcc3672cc2be3b73b4af8588172a61f2d38a";
constexpr const char* kYN =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<AgreeTerms>\n"
    "  <term>\n    <id>pp</id>\n    <agree>Y</agree>\n    <agreeVer>1.0</agreeVer>\n  </term>\n"
    "  <term>\n    <id>tnc</id>\n    <agree>N</agree>\n    <agreeVer>2.0</agreeVer>\n  </term>\n"
    "</AgreeTerms>\n";

std::vector<std::string> AgreementHeaders(const std::string& signature) {
    return {"Content-Type: application/xml;charset=UTF-8", std::string("DUID: ") + kDuid, "Country: US",
            "ModelID: TRV55Q9", "Signature: " + signature};
}

// The cloud alone, without a television.
class Cloud : public Sync {
  protected:
    void SetUp() override { PrepareTelevision(); }

    Json::Value GetJson(const std::string& target) {
        return ParseText(
            Send("http://127.0.0.1:" + std::to_string(m_openapiPort) + target, "", "GET", {}, "").body);
    }

    Answer Tls(int port, const std::string& method, const std::string& target,
               const std::vector<std::string>& headers, const std::string& body) {
        return Send("https://127.0.0.1:" + std::to_string(port) + target, m_caFile, method, headers, body);
    }
};

TEST_F(Cloud, RoutesFollowTheCountryLanguageAndPublishedSetAndUploadsMustBeSignedForTheDeployment) {
    const Json::Value us_tnc = DataDisclaimer("US", "tnc");
    const Json::Value versions = GetJson(std::string(kCheckVersion) + "fr");
    EXPECT_EQ(versions["rsp"]["disclaimer"]["id"], kUsSet);
    EXPECT_EQ(versions["rsp"]["disclaimer"]["items"].size(), DataSet("US")["disclaimers"].size());
    EXPECT_EQ(FindItem(GetJson(DisclaimersPath(kUsSet, "US", "fr")), "tnc")["content"]["title"],
              us_tnc["texts"]["fr"]["title"]);
    // A language the set lacks falls back to English; the set of another country fails.
    EXPECT_EQ(FindItem(GetJson(DisclaimersPath(kUsSet, "US", "xx")), "tnc")["content"]["title"],
              us_tnc["texts"]["en"]["title"]);
    EXPECT_EQ(GetJson(DisclaimersPath("TVTERMS-FR-2024-03", "US", "en"))["rsp"]["err"]["code"], "4002");

    Publish(R"({"country": "US", "lang": "en", "id": "tnc", "version": "9.0"})");
    EXPECT_EQ(FindItem(GetJson(std::string(kCheckVersion) + "en"), "tnc")["version"], "9.0");
    EXPECT_EQ(FindItem(GetJson(std::string(kCheckVersion) + "fr"), "tnc")["version"], us_tnc["version"]);
    Publish(R"({"withdraw": "billing"})");
    EXPECT_TRUE(FindItem(GetJson(std::string(kCheckVersion) + "en"), "billing").isNull());

    // The agreement server takes only uploads signed for its deployment.
    const std::string ok = R"(<rsp stat="ok"/>)";
    const std::string refused = R"(<rsp stat="fail"><err code="4016")";
    struct Check {
        int port;
        const char* signature;
        std::string answer;
    };
    const Check checks[] = {{m_productionPort, kProductionYN, ok},
                            {m_stagingPort, kStagingYN, ok},
                            {m_stagingPort, kProductionYN, refused},
                            {m_productionPort, kStagingYN, refused}};
    for (const Check& c : checks) {
        const Answer answer = Tls(c.port, "PUT", kAgreementPath, AgreementHeaders(c.signature), kYN);
        ASSERT_EQ(answer.code, CURLE_OK) << c.answer;
        EXPECT_NE(answer.body.find(c.answer), kNone) << c.answer << ": " << answer.body;
    }
    const Json::Value agreements = CloudAgreements();
    EXPECT_EQ(agreements["production"][kDuid]["uploads"], 1);
    EXPECT_EQ(agreements["production"][kDuid]["terms"]["tnc"]["agree"], "N");
    EXPECT_EQ(agreements["staging"][kDuid]["terms"]["pp"]["agreeVer"], "1.0");
}

TEST_F(Cloud, ASecondCloudOnTheSameFolderKeepsTheCaTheDeviceTrusts) {
    const std::string ca = ReadFile(m_caFile);
    ASSERT_NE(ca.find("BEGIN CERTIFICATE"), kNone);
    ASSERT_EQ(m_cloud->Terminate(), 0);
    const std::string state = m_root.Path() + "/second-state.json";
    ChildProcess second({TARVO_CLOUD_BIN, "--tls-dir", m_root.Path() + "/cloud-tls", "--state-file", state},
                        {}, m_root.Path() + "/second");
    Json::Value ports;
    ASSERT_TRUE(WaitUntil([&] { return (ports = ParseText(ReadFile(state))).isObject(); }))
        << second.Stderr();
    EXPECT_EQ(ports["ca"], m_caFile);
    EXPECT_EQ(ReadFile(m_caFile), ca);
    EXPECT_EQ(
        Tls(ports["production"].asInt(), "PUT", kAgreementPath, AgreementHeaders(kProductionYN), kYN).code,
        CURLE_OK);
}

}  // namespace
}  // namespace tarvo::test
