// tarvo-cloud as a process, for what the television's own tests cannot see: each OpenAPI route
// and fault as it goes on the wire, publishing at run time and bad admin input; the agreement
// server's checks and faults and the log server over HTTPS with the CA the cloud made, as a
// television reaches them; the CA kept for a second cloud.
#include "sync_fixture.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <memory>
#include <string>
#include <vector>

namespace tarvo {
namespace test {
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

struct Answer {
    CURLcode code = CURLE_FAILED_INIT;
    long status = 0;
    std::string headers;
    std::string body;
};

size_t Append(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

// One request on its own connection, verified against `ca` (when given) as the television's
// client does; `raw` keeps the chunked framing in the body.
Answer Send(const std::string& url, const std::string& ca, const std::string& method,
            const std::vector<std::string>& headers, const std::string& body, bool raw = false,
            long timeout_ms = 10000) {
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
    curl_easy_setopt(curl.get(), CURLOPT_HTTP_TRANSFER_DECODING, raw ? 0L : 1L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &Append);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer.body);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, &Append);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &answer.headers);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, timeout_ms);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    answer.code = curl_easy_perform(curl.get());
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
    return answer;
}

// The data of a raw body that came as exactly one chunk; "" otherwise.
std::string SingleChunk(const std::string& raw) {
    const size_t size_end = raw.find("\r\n");
    if (size_end == kNone || size_end == 0) return "";
    const size_t size = std::stoul(raw.substr(0, size_end), nullptr, 16);
    if (raw.size() < size_end + 2 + size || raw.substr(size_end + 2 + size) != "\r\n0\r\n\r\n") return "";
    return raw.substr(size_end + 2, size);
}

constexpr const char* kDuid = "DUID-CLOUD-1";
constexpr const char* kAgreementPath = "/openapi/zephterms/";
// SHA-1 of "DUID-CLOUD-1+US+TRV55Q9+++" + letters + "+" + the deployment's key.
constexpr const char* kProductionYN = "bbca14e11638d84a499f8611a791117b1d36eea1";
constexpr const char* kStagingYN = "1966dcc3672cc2be3b73b4af8588172a61f2d38a";
constexpr const char* kProductionY = "f28a074c3d281aea946c035ec86a306b05515695";

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
            "ModelID: TRV55Q9", "Signature: " + signature};
}

// The cloud alone, without a television.
class Cloud : public Sync {
  protected:
    void SetUp() override { PrepareTelevision(); }

    Answer Get(const std::string& target, const std::vector<std::string>& headers = {}, bool raw = false,
               long timeout_ms = 10000) {
        return Send("http://127.0.0.1:" + std::to_string(m_openapiPort) + target, "", "GET", headers, "", raw,
                    timeout_ms);
    }

    Json::Value GetJson(const std::string& target, const std::vector<std::string>& headers = {}) {
        const Answer answer = Get(target, headers);
        EXPECT_NE(answer.headers.find("Content-Type: application/json"), kNone) << target;
        return ParseText(answer.body);
    }

    Answer Tls(int port, const std::string& method, const std::string& target,
               const std::vector<std::string>& headers, const std::string& body, bool raw = false) {
        return Send("https://127.0.0.1:" + std::to_string(port) + target, m_caFile, method, headers, body,
                    raw);
    }

    Answer Put(int port, const std::string& signature, const std::string& body = kYN) {
        return Tls(port, "PUT", kAgreementPath, AgreementHeaders(signature), body);
    }
};

TEST_F(Cloud, EachRouteAnswersFromTheCountrysSetInTheAskedLanguageAndFollowsWhatIsPublished) {
    const Json::Value us_tnc = DataDisclaimer("US", "tnc");
    const Json::Value versions = GetJson(std::string(kCheckVersion) + "fr", {"Cache-Control: no-cache"});
    EXPECT_EQ(versions["rsp"]["disclaimer"]["id"], kUsSet);
    EXPECT_EQ(versions["rsp"]["disclaimer"]["items"].size(), DataSet("US")["disclaimers"].size());
    EXPECT_TRUE(AllLeavesAreStrings(versions));
    const Json::Value recorded = CloudRequests()[0];
    EXPECT_EQ(recorded["target"], std::string(kCheckVersion) + "fr");
    EXPECT_EQ(recorded["headers"]["Cache-Control"], "no-cache");
    EXPECT_TRUE(recorded["time"].isString());

    // A language the set lacks falls back to English (here after a doubled slash); an unknown
    // country or the set of another country fails with its code.
    struct Route {
        std::string target, title, error;
    };
    const Route routes[] = {
        {DisclaimersPath(kUsSet, "US", "fr"), us_tnc["texts"]["fr"]["title"].asString(), ""},
        {"/" + DisclaimersPath(kUsSet, "US", "xx"), us_tnc["texts"]["en"]["title"].asString(), ""},
        {DisclaimersPath("TVTERMS-KR-2024-02", "KR", "ko"), "이용약관", ""},
        {"/apps/conf/v1/stacks/tarvoapp/checkversion?countrycode=ZZ&lang=en", "", "4001"},
        {DisclaimersPath("TVTERMS-FR-2024-03", "US", "en"), "", "4002"},
    };
    for (const Route& r : routes) {
        const Json::Value answer = GetJson(r.target);
        EXPECT_EQ(answer["rsp"]["stat"], r.error.empty() ? "ok" : "fail") << r.target;
        EXPECT_EQ(answer["rsp"]["err"]["code"].asString(), r.error) << r.target;
        EXPECT_EQ(FindItem(answer, "tnc")["content"]["title"].asString(), r.title) << r.target;
        EXPECT_TRUE(r.error.empty() ? AllLeavesAreStrings(answer) : answer["rsp"]["desc"].isString())
            << r.target;
    }
    const Json::Value french = GetJson(DisclaimersPath(kUsSet, "US", "fr"));
    EXPECT_EQ(french["rsp"]["disclaimer"]["reverseOSD"], "false");
    EXPECT_EQ(FindItem(french, "tnc")["content"]["displayWindow"], "main");
    EXPECT_EQ(FindItem(french, "tnc")["content"]["order"], "1");
    EXPECT_TRUE(FindItem(french, "pp")["content"]["details"].isArray());
    EXPECT_TRUE(FindItem(GetJson(DisclaimersPath("TVTERMS-DE-2024-04", "DE", "de")),
                         "pp")["content"]["details"]["detail"]
                    .isArray());

    // Compressed only when the request accepts gzip.
    const std::string english = std::string(kCheckVersion) + "en";
    EXPECT_EQ(Get(english, {"Accept-Encoding: identity"}).headers.find("Content-Encoding"), kNone);
    EXPECT_NE(Get(english, {"Accept-Encoding: gzip, deflate"}).headers.find("Content-Encoding: gzip"), kNone);

    Publish(R"({"country": "US", "lang": "en", "id": "tnc", "version": "9.0"})");
    EXPECT_EQ(VersionIn(GetJson(english), "tnc"), "9.0");
    EXPECT_EQ(VersionIn(GetJson(DisclaimersPath(kUsSet, "US", "en")), "tnc"), "9.0");
    EXPECT_EQ(VersionIn(GetJson(std::string(kCheckVersion) + "fr"), "tnc"), us_tnc["version"].asString());
    Publish(R"({"withdraw": "billing"})");
    EXPECT_EQ(VersionIn(GetJson(english), "billing"), "<absent>");
    Publish(R"({"country": "US", "disclaimer": {"id": "partner_news", "version": "1.0",
        "content": {"displayWindow": "sub", "order": "7"},
        "texts": {"en": {"title": "Partner News", "intro": "News from a partner.", "details": "Short text."}}}})");
    const Json::Value added = FindItem(GetJson(DisclaimersPath(kUsSet, "US", "ko")), "partner_news");
    EXPECT_EQ(added["content"]["title"], "Partner News");
    EXPECT_EQ(added["content"]["order"], "7");
}

TEST_F(Cloud, EachFaultAnswersWhatItNamesUntilClearedOrCountedOutAndBadAdminInputChangesNothing) {
    struct Case {
        const char* fault;
        CURLcode code;     // within the impatient client's second
        long status;       // 0: no answer
        const char* stat;  // "": the body is no JSON
        bool empty;
    };
    const Case cases[] = {
        {R"({"path": "any", "kind": "drop", "count": 1})", CURLE_GOT_NOTHING, 0, "", true},
        {R"({"path": "any", "kind": "delay", "delay_ms": 3000, "count": 2})", CURLE_OPERATION_TIMEDOUT, 0, "",
         true},
        {R"({"path": "checkversion", "kind": "stat_error", "code": "7001"})", CURLE_OK, 200, "fail", false},
        {R"({"path": "checkversion", "kind": "not_json"})", CURLE_OK, 200, "", false},
        {R"({"path": "checkversion", "kind": "http_status", "status": 503})", CURLE_OK, 503, "fail", false},
        {R"({"path": "checkversion", "kind": "empty"})", CURLE_OK, 200, "", true},
    };
    const std::string target = std::string(kCheckVersion) + "en";
    for (const Case& c : cases) {
        Fault(c.fault);
        const Answer answer = Get(target, {}, false, 1000);
        EXPECT_EQ(answer.code, c.code) << c.fault;
        EXPECT_EQ(answer.status, c.status) << c.fault;
        EXPECT_EQ(ParseText(answer.body)["rsp"]["stat"].asString(), c.stat) << c.fault;
        EXPECT_EQ(answer.body.empty(), c.empty) << c.fault;
        if (std::string(c.fault).find("count") == kNone) m_admin->Delete("/admin/fault");
        // Counted faults run out by themselves; a delayed answer still comes whole.
        EXPECT_EQ(GetJson(target)["rsp"]["stat"], "ok") << c.fault;
    }
    // A padded answer as one single chunk, for the disclaimers alone.
    Fault(R"({"path": "disclaimers", "kind": "big_chunk", "bytes": 70000})");
    const Answer raw = Get(DisclaimersPath(kUsSet, "US", "en"), {}, true);
    EXPECT_NE(raw.headers.find("Transfer-Encoding: chunked"), kNone);
    EXPECT_GE(SingleChunk(raw.body).size(), 70000u);
    EXPECT_EQ(ParseText(SingleChunk(raw.body))["rsp"]["stat"], "ok");
    EXPECT_EQ(GetJson(target)["rsp"]["stat"], "ok");
    m_admin->Delete("/admin/fault");

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
    const auto faults = m_admin->Get("/admin/fault");
    ASSERT_TRUE(faults);
    EXPECT_EQ(ParseText(faults->body).size(), 0u);
    EXPECT_EQ(VersionIn(GetJson(target), "tnc"), DataDisclaimer("US", "tnc")["version"].asString());
}

TEST_F(Cloud, TheAgreementServerTakesOnlyWellFormedUploadsSignedForItsDeploymentUnlessAFaultAnswers) {
    EXPECT_EQ(m_root.Profile()["deployment"]["log_policy_namespace"], "http://127.0.0.1/api/1.0");
    const std::string ok = R"(<rsp stat="ok"/>)";
    auto refused = [](const char* code) {
        return std::string(R"(<rsp stat="fail"><err code=")") + code + "\"";
    };
    auto headers = [](size_t index, const std::string& line) {
        std::vector<std::string> edited = AgreementHeaders(kProductionYN);
        if (line.empty()) {
            edited.erase(edited.begin() + static_cast<long>(index));
        } else {
            edited[index] = line;
        }
        return edited;
    };
    const std::vector<std::string> good = AgreementHeaders(kProductionYN);
    struct Check {
        int port;
        const char* method;
        const char* target;
        std::vector<std::string> headers;
        std::string body, answer;
    };
    const Check checks[] = {
        {m_productionPort, "PUT", kAgreementPath, good, kYN, ok},
        {m_stagingPort, "PUT", kAgreementPath, AgreementHeaders(kStagingYN), kYN, ok},
        {m_stagingPort, "PUT", kAgreementPath, good, kYN, refused("4016")},
        {m_productionPort, "PUT", kAgreementPath, AgreementHeaders(kStagingYN), kYN, refused("4016")},
        {m_productionPort, "PUT", kAgreementPath, headers(3, ""), kYN, refused("4013")},
        {m_productionPort, "PUT", kAgreementPath, headers(0, "Content-Type: application/xml"), kYN,
         refused("4014")},
        {m_productionPort, "POST", kAgreementPath, good, kYN, refused("4011")},
        {m_productionPort, "PUT", "/openapi/zephterms", good, kYN, refused("4012")},
        {m_productionPort, "PUT", kAgreementPath, good, Terms({{"pp", "yes", "1.0"}, {"tnc", "N", "2.0"}}),
         refused("4015")},
        {m_productionPort, "PUT", kAgreementPath, good, "pp=Y&tnc=N", refused("4015")},
    };
    for (const Check& c : checks) {
        const Answer answer = Tls(c.port, c.method, c.target, c.headers, c.body);
        ASSERT_EQ(answer.code, CURLE_OK) << c.answer;
        EXPECT_EQ(answer.status, 200) << c.answer;
        EXPECT_NE(answer.headers.find("Content-Type: application/xml"), kNone) << c.answer;
        EXPECT_NE(answer.body.find(c.answer), kNone) << c.answer << ": " << answer.body;
    }

    // Each fault is counted once; only the delayed upload is taken.
    struct FaultCase {
        const char* fault;
        CURLcode code;
        long status;
        const char* answer;  // a part of the body; "" for an empty one
    };
    const FaultCase faults[] = {
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
    for (const FaultCase& f : faults) {
        Json::Value fault = ParseText(f.fault);
        fault["path"] = "agreement";
        fault["count"] = 1;
        Fault(ToLine(fault));
        const Answer answer = Put(m_productionPort, kProductionYN);
        EXPECT_EQ(answer.code, f.code) << f.fault;
        EXPECT_EQ(answer.status, f.status) << f.fault;
        EXPECT_TRUE(*f.answer == '\0' ? answer.body.empty() : answer.body.find(f.answer) != kNone)
            << f.fault << ": " << answer.body;
    }
    // The padded answer comes as one chunk, larger than the 16384 bytes of one block.
    Fault(R"({"path": "agreement", "kind": "big_chunk", "bytes": 20000, "count": 1})");
    const Answer raw = Tls(m_stagingPort, "PUT", kAgreementPath, AgreementHeaders(kStagingYN), kYN, true);
    EXPECT_NE(raw.headers.find("Transfer-Encoding: chunked"), kNone);
    EXPECT_GE(SingleChunk(raw.body).size(), 20000u);
    EXPECT_NE(SingleChunk(raw.body).find(ok), kNone);

    // A later upload updates the terms it names and keeps the others.
    EXPECT_NE(Put(m_productionPort, kProductionY, Terms({{"tnc", "Y", "2.1"}})).body.find(ok), kNone);
    const Json::Value agreements = CloudAgreements();
    const Json::Value& production = agreements["production"][kDuid];
    EXPECT_EQ(production["uploads"], 3);
    EXPECT_EQ(production["country"], "US");
    EXPECT_EQ(production["model"], "TRV55Q9");
    EXPECT_EQ(production["terms"]["pp"]["agree"], "Y");
    EXPECT_EQ(production["terms"]["pp"]["agreeVer"], "1.0");
    EXPECT_EQ(production["terms"]["tnc"]["agree"], "Y");
    EXPECT_EQ(production["terms"]["tnc"]["agreeVer"], "2.1");
    EXPECT_EQ(agreements["staging"][kDuid]["uploads"], 1);
    EXPECT_EQ(agreements["staging"][kDuid]["terms"]["tnc"]["agree"], "N");
    ClearCloudAgreements();
    EXPECT_EQ(CloudAgreements()["production"].size(), 0u);
}

TEST_F(Cloud, TheLogServerRecordsEachEventOfABatchWithItsHeaderUnlessAFaultAnswers) {
    const std::string batch = R"({"service": "14_global",
        "header": {"model_name": "TRV55Q9", "user_id": "D1", "duid": "D1", "country_code": "US"},
        "events": [{"name": "MOVETOPANEL", "time": "2024-05-01T10:00:00+0000", "category": "EV001",
                    "value": "T-1010.5", "desc": "{service = tnc}"},
                   {"name": "TICK", "time": "2024-05-01T10:00:01+0000", "category": "EV002",
                    "value": "T-1010.5", "desc": "{start:1}"}]})";
    struct Case {
        const char* fault;
        int port;
        const char* method;
        std::string body;
        CURLcode code;
        long status;
    };
    const Case cases[] = {
        {"", m_stagingPort, "POST", batch, CURLE_OK, 200},
        {R"({"path": "log", "kind": "http_status", "status": 500, "count": 1})", m_productionPort, "POST",
         batch, CURLE_OK, 500},
        {R"({"path": "log", "kind": "drop", "count": 1})", m_productionPort, "POST", batch, CURLE_GOT_NOTHING,
         0},
        {"", m_productionPort, "POST", R"({"service": "14_global"})", CURLE_OK, 400},
        {"", m_productionPort, "GET", "", CURLE_OK, 405},
    };
    for (const Case& c : cases) {
        if (*c.fault != '\0') Fault(c.fault);
        const std::string path = c.port == m_stagingPort ? "/openapi/log/14_global" : "/openapi/log/x";
        const Answer answer = Tls(c.port, c.method, path, {"Content-Type: application/json"}, c.body);
        EXPECT_EQ(answer.code, c.code) << c.fault << c.body;
        EXPECT_EQ(answer.status, c.status) << c.fault << c.body;
    }
    const Json::Value events = CloudLogEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["deployment"], "staging");
    EXPECT_EQ(events[0]["path"], "/openapi/log/14_global");
    EXPECT_EQ(events[0]["service"], "14_global");
    EXPECT_EQ(events[0]["name"], "MOVETOPANEL");
    EXPECT_EQ(events[0]["header"]["duid"], "D1");
    EXPECT_EQ(events[1]["name"], "TICK");
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
    EXPECT_EQ(Put(ports["production"].asInt(), kProductionYN).code, CURLE_OK);
}

}  // namespace
}  // namespace test
}  // namespace tarvo
