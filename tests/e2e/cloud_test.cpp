// tarvo-cloud as a process: the two OpenAPI answers from the bundled sets, the request
// record, every fault kind, publishing at run time, bad admin input and a clean stop.
#include "sync_fixture.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

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

}  // namespace
}  // namespace test
}  // namespace tarvo
