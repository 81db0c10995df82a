// tarvo-cloud as a process: the two OpenAPI answers from the bundled sets, the request
// record, every fault kind, publishing at run time, bad admin input and a clean stop.
#include "process.h"
#include "tarvo_test.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <optional>
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

std::optional<Json::Value> Parse(const std::string& text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (text.empty() || !reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
        return std::nullopt;
    }
    return value;
}

Json::Value DataFile(const std::string& country) {
    return Parse(ReadFile(std::string(TARVO_SOURCE_DIR) + "/data/openapi/" + country + ".json"))
        .value_or(Json::Value());
}

// The disclaimer `id` of a bundled data file.
Json::Value DataDisclaimer(const Json::Value& set, const std::string& id) {
    for (const auto& disclaimer : set["disclaimers"]) {
        if (disclaimer["id"] == id) return disclaimer;
    }
    return Json::Value();
}

const Json::Value* FindItem(const Json::Value& answer, const std::string& id) {
    for (const auto& item : answer["rsp"]["disclaimer"]["items"]) {
        if (item["id"] == id) return &item;
    }
    return nullptr;
}

std::string VersionIn(const Json::Value& answer, const std::string& id) {
    const Json::Value* item = FindItem(answer, id);
    return item == nullptr ? "<absent>" : (*item)["version"].asString();
}

// Every leaf is a string, but for "details" of "pp", whose leaves are strings too.
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
            ssize_t got = 0;
            while ((got = recv(fd, buffer, sizeof(buffer), 0)) > 0) received.append(buffer, got);
        }
    }
    close(fd);
    return received;
}

class Cloud : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string state = m_root.Path() + "/cloud-state.json";
        m_cloud = std::make_unique<ChildProcess>(
            std::vector<std::string>{TARVO_CLOUD_BIN, "--openapi-port", "0", "--admin-port", "0",
                                     "--state-file", state},
            std::map<std::string, std::string>{}, m_root.Path() + "/cloud");
        ASSERT_TRUE(m_cloud->Started());
        std::optional<Json::Value> ports;
        ASSERT_TRUE(WaitUntil([&] { return (ports = Parse(ReadFile(state))).has_value(); }))
            << m_cloud->Stderr();
        m_openapiPort = (*ports)["openapi"].asInt();
        m_adminPort = (*ports)["admin"].asInt();
        ASSERT_GT(m_openapiPort, 0);
        ASSERT_GT(m_adminPort, 0);
        EXPECT_EQ(Parse(m_cloud->Stdout()), ports);
        m_openapi = std::make_unique<httplib::Client>("127.0.0.1", m_openapiPort);
        m_admin = std::make_unique<httplib::Client>("127.0.0.1", m_adminPort);
        m_openapi->set_read_timeout(10, 0);
        m_admin->set_read_timeout(10, 0);
    }

    Json::Value GetJson(const std::string& target) {
        auto res = m_openapi->Get(target.c_str());
        if (!res) return Json::Value();
        EXPECT_EQ(res->get_header_value("Content-Type").rfind("application/json", 0), 0u);
        return Parse(res->body).value_or(Json::Value());
    }

    // The admin's status and JSON answer to a POST of `body`.
    std::pair<int, Json::Value> Post(const std::string& path, const std::string& body) {
        auto res = m_admin->Post(path.c_str(), body, "application/json");
        if (!res) return {0, Json::Value()};
        return {res->status, Parse(res->body).value_or(Json::Value())};
    }

    TempRoot m_root;
    std::unique_ptr<ChildProcess> m_cloud;
    int m_openapiPort = 0;
    int m_adminPort = 0;
    std::unique_ptr<httplib::Client> m_openapi;
    std::unique_ptr<httplib::Client> m_admin;
};

TEST_F(Cloud, AnswersEachGetFromTheCountrysSetInTheAskedLanguageWithEnglishAsFallback) {
    const Json::Value us = DataFile("US");
    const Json::Value us_tnc = DataDisclaimer(us, "tnc");
    ASSERT_TRUE(us_tnc.isObject());

    const Json::Value versions = GetJson(std::string(kCheckVersion) + "fr");
    EXPECT_EQ(versions["rsp"]["stat"], "ok");
    EXPECT_EQ(versions["rsp"]["disclaimer"]["id"], kUsSet);
    ASSERT_EQ(versions["rsp"]["disclaimer"]["items"].size(), us["disclaimers"].size());
    EXPECT_EQ(VersionIn(versions, "tnc"), us_tnc["version"].asString());
    EXPECT_TRUE(AllLeavesAreStrings(versions));

    const Json::Value french = GetJson(DisclaimersPath(kUsSet, "US", "fr"));
    EXPECT_EQ(french["rsp"]["stat"], "ok");
    EXPECT_EQ(french["rsp"]["disclaimer"]["reverseOSD"], "false");
    const Json::Value* tnc = FindItem(french, "tnc");
    ASSERT_NE(tnc, nullptr);
    EXPECT_EQ((*tnc)["content"]["title"], us_tnc["texts"]["fr"]["title"]);
    EXPECT_EQ((*tnc)["content"]["displayWindow"], "main");
    EXPECT_EQ((*tnc)["content"]["order"], "1");
    EXPECT_TRUE(AllLeavesAreStrings(french));
    const Json::Value* pp = FindItem(french, "pp");
    ASSERT_NE(pp, nullptr);
    EXPECT_TRUE((*pp)["content"]["details"].isArray());

    // A language the set lacks, and a doubled slash after the domain.
    const Json::Value unknown = GetJson("/" + DisclaimersPath(kUsSet, "US", "xx"));
    ASSERT_NE(FindItem(unknown, "tnc"), nullptr);
    EXPECT_EQ((*FindItem(unknown, "tnc"))["content"]["title"], us_tnc["texts"]["en"]["title"]);

    const Json::Value korean = GetJson(DisclaimersPath("TVTERMS-KR-2024-02", "KR", "ko"));
    ASSERT_NE(FindItem(korean, "tnc"), nullptr);
    EXPECT_EQ((*FindItem(korean, "tnc"))["content"]["title"], "이용약관");
    const Json::Value german = GetJson(DisclaimersPath("TVTERMS-DE-2024-04", "DE", "de"));
    ASSERT_NE(FindItem(german, "pp"), nullptr);
    EXPECT_TRUE((*FindItem(german, "pp"))["content"]["details"]["detail"].isArray());
}

TEST_F(Cloud, RefusesAnUnknownCountryOrSetWithTheStatErrorForm) {
    const Json::Value country = GetJson("/apps/conf/v1/stacks/tarvoapp/checkversion?countrycode=ZZ&lang=en");
    EXPECT_EQ(country["rsp"]["stat"], "fail");
    EXPECT_EQ(country["rsp"]["err"]["code"], "4001");
    EXPECT_TRUE(country["rsp"]["desc"].isString());

    const Json::Value set = GetJson(DisclaimersPath("TVTERMS-FR-2024-03", "US", "en"));
    EXPECT_EQ(set["rsp"]["stat"], "fail");
    EXPECT_EQ(set["rsp"]["err"]["code"], "4002");
}

TEST_F(Cloud, CompressesOnlyWhenTheRequestAcceptsGzip) {
    m_openapi->set_decompress(false);
    auto plain =
        m_openapi->Get((std::string(kCheckVersion) + "en").c_str(), {{"Accept-Encoding", "identity"}});
    ASSERT_TRUE(plain);
    EXPECT_FALSE(plain->has_header("Content-Encoding"));
    EXPECT_TRUE(Parse(plain->body).has_value());

    auto gzip =
        m_openapi->Get((std::string(kCheckVersion) + "en").c_str(), {{"Accept-Encoding", "gzip, deflate"}});
    ASSERT_TRUE(gzip);
    EXPECT_EQ(gzip->get_header_value("Content-Encoding"), "gzip");
}

TEST_F(Cloud, RecordsPathQueryAndHeadersOfEveryRequestUntilCleared) {
    ASSERT_TRUE(m_openapi->Get((std::string(kCheckVersion) + "de").c_str(),
                               {{"Cache-Control", "no-cache"}, {"Accept", "application/json"}}));
    ASSERT_TRUE(m_openapi->Get(DisclaimersPath(kUsSet, "US", "de").c_str()));

    auto listed = m_admin->Get("/admin/requests");
    ASSERT_TRUE(listed);
    const Json::Value record = Parse(listed->body).value_or(Json::Value());
    ASSERT_EQ(record.size(), 2u);
    EXPECT_EQ(record[0]["method"], "GET");
    EXPECT_EQ(record[0]["path"], "/apps/conf/v1/stacks/tarvoapp/checkversion");
    EXPECT_EQ(record[0]["target"], std::string(kCheckVersion) + "de");
    EXPECT_EQ(record[0]["query"]["countrycode"], "US");
    EXPECT_EQ(record[0]["query"]["timestamp"], "1700000000");
    EXPECT_EQ(record[0]["headers"]["Cache-Control"], "no-cache");
    EXPECT_EQ(record[0]["headers"]["Accept"], "application/json");
    EXPECT_TRUE(record[0]["time"].isString());
    EXPECT_EQ(record[1]["path"], std::string("/apps/terms/v4/disclaimers/") + kUsSet);
    EXPECT_EQ(record[1]["query"]["firmcode"], "T-KTM2-1010.5");

    ASSERT_TRUE(m_admin->Delete("/admin/requests"));
    auto cleared = m_admin->Get("/admin/requests");
    ASSERT_TRUE(cleared);
    EXPECT_EQ(Parse(cleared->body).value_or(Json::Value()).size(), 0u);
}

TEST_F(Cloud, DropClosesTheConnectionWithoutAnswerForAsManyRequestsAsCounted) {
    ASSERT_EQ(Post("/admin/fault", R"({"path": "any", "kind": "drop", "count": 1})").first, 200);
    auto dropped = m_openapi->Get((std::string(kCheckVersion) + "en").c_str());
    EXPECT_FALSE(dropped);

    const Json::Value after = GetJson(std::string(kCheckVersion) + "en");
    EXPECT_EQ(after["rsp"]["stat"], "ok");
}

TEST_F(Cloud, BigChunkSendsThePaddedAnswerAsOneSingleChunk) {
    ASSERT_EQ(Post("/admin/fault", R"({"path": "disclaimers", "kind": "big_chunk", "bytes": 70000})").first,
              200);
    const std::string raw = RawGet(m_openapiPort, DisclaimersPath(kUsSet, "US", "en"));
    const size_t body_start = raw.find("\r\n\r\n");
    ASSERT_NE(body_start, std::string::npos);
    EXPECT_NE(raw.substr(0, body_start).find("Transfer-Encoding: chunked"), std::string::npos);
    const size_t size_end = raw.find("\r\n", body_start + 4);
    const size_t chunk_size = std::stoul(raw.substr(body_start + 4, size_end - body_start - 4), nullptr, 16);
    EXPECT_GE(chunk_size, 70000u);
    // The whole body is that one chunk, then the last (empty) chunk.
    EXPECT_EQ(raw.substr(size_end + 2 + chunk_size), "\r\n0\r\n\r\n");
    const auto padded = Parse(raw.substr(size_end + 2, chunk_size));
    ASSERT_TRUE(padded);
    EXPECT_EQ((*padded)["rsp"]["stat"], "ok");

    // The fault is the disclaimers' alone.
    EXPECT_EQ(GetJson(std::string(kCheckVersion) + "en")["rsp"]["stat"], "ok");
}

TEST_F(Cloud, ErrorFaultsAnswerWhatTheyNameUntilCleared) {
    const std::string target = std::string(kCheckVersion) + "en";
    ASSERT_EQ(Post("/admin/fault", R"({"path": "checkversion", "kind": "stat_error", "code": "7001"})").first,
              200);
    const Json::Value stat = GetJson(target);
    EXPECT_EQ(stat["rsp"]["stat"], "fail");
    EXPECT_EQ(stat["rsp"]["err"]["code"], "7001");

    ASSERT_EQ(Post("/admin/fault", R"({"path": "checkversion", "kind": "not_json"})").first, 200);
    auto not_json = m_openapi->Get(target.c_str());
    ASSERT_TRUE(not_json);
    EXPECT_FALSE(not_json->body.empty());
    EXPECT_FALSE(Parse(not_json->body));

    ASSERT_EQ(Post("/admin/fault", R"({"path": "checkversion", "kind": "http_status", "status": 503})").first,
              200);
    auto status = m_openapi->Get(target.c_str());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 503);
    EXPECT_EQ(Parse(status->body).value_or(Json::Value())["rsp"]["stat"], "fail");

    ASSERT_EQ(Post("/admin/fault", R"({"path": "checkversion", "kind": "empty"})").first, 200);
    auto empty = m_openapi->Get(target.c_str());
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->status, 200);
    EXPECT_TRUE(empty->body.empty());

    ASSERT_TRUE(m_admin->Delete("/admin/fault"));
    EXPECT_EQ(GetJson(target)["rsp"]["stat"], "ok");
}

TEST_F(Cloud, DelayHoldsTheAnswerBackAndThenGivesItWhole) {
    ASSERT_EQ(Post("/admin/fault", R"({"path": "any", "kind": "delay", "delay_ms": 2000, "count": 2})").first,
              200);
    httplib::Client impatient("127.0.0.1", m_openapiPort);
    impatient.set_read_timeout(0, 200000);
    EXPECT_FALSE(impatient.Get((std::string(kCheckVersion) + "en").c_str()));

    EXPECT_EQ(GetJson(std::string(kCheckVersion) + "en")["rsp"]["stat"], "ok");
}

TEST_F(Cloud, PublishChangesVersionsAndRecordsAtRunTime) {
    EXPECT_EQ(
        Post("/admin/publish", R"({"country": "US", "lang": "en", "id": "tnc", "version": "9.0"})").first,
        200);
    EXPECT_EQ(VersionIn(GetJson(std::string(kCheckVersion) + "en"), "tnc"), "9.0");
    EXPECT_EQ(VersionIn(GetJson(std::string(kCheckVersion) + "fr"), "tnc"),
              DataDisclaimer(DataFile("US"), "tnc")["version"].asString());
    EXPECT_EQ(VersionIn(GetJson(DisclaimersPath(kUsSet, "US", "en")), "tnc"), "9.0");

    EXPECT_EQ(Post("/admin/publish", R"({"country": "US", "id": "tnc", "version": "10.0"})").first, 200);
    EXPECT_EQ(VersionIn(GetJson(std::string(kCheckVersion) + "fr"), "tnc"), "10.0");
    EXPECT_EQ(VersionIn(GetJson(std::string(kCheckVersion) + "en"), "tnc"), "10.0");

    EXPECT_EQ(Post("/admin/publish", R"({"withdraw": "billing"})").first, 200);
    EXPECT_EQ(VersionIn(GetJson(std::string(kCheckVersion) + "en"), "billing"), "<absent>");

    const auto added =
        Post("/admin/publish", R"({"country": "US", "disclaimer": {"id": "yahoo", "version": "1.0",
        "content": {"displayWindow": "sub", "order": "7"},
        "texts": {"en": {"title": "Partner News", "intro": "News from a partner.", "details": "Short text."}}}})");
    EXPECT_EQ(added.first, 200);
    const Json::Value answer = GetJson(DisclaimersPath(kUsSet, "US", "ko"));
    ASSERT_NE(FindItem(answer, "yahoo"), nullptr);
    EXPECT_EQ((*FindItem(answer, "yahoo"))["content"]["title"], "Partner News");
    EXPECT_EQ((*FindItem(answer, "yahoo"))["content"]["order"], "7");

    auto data = m_admin->Get("/admin/data");
    ASSERT_TRUE(data);
    const Json::Value sets = Parse(data->body).value_or(Json::Value());
    EXPECT_EQ(DataDisclaimer(sets["US"], "tnc")["version"], "10.0");
    EXPECT_TRUE(sets["FR"].isObject());
}

TEST_F(Cloud, BadAdminInputAnswers400AndChangesNothing) {
    const char* const bad_faults[] = {"{not json",
                                      "[1, 2]",
                                      R"({"path": "checkversion", "kind": "explode"})",
                                      R"({"path": "elsewhere", "kind": "drop"})",
                                      R"({"path": "any", "kind": "delay", "delay_ms": "soon"})",
                                      R"({"path": "any", "kind": "drop", "count": 0})"};
    for (const char* body : bad_faults) {
        const auto [status, answer] = Post("/admin/fault", body);
        EXPECT_EQ(status, 400) << body;
        EXPECT_TRUE(answer["error"].isString()) << body;
    }
    const char* const bad_publishes[] = {
        "",
        R"({"country": "US"})",
        R"({"country": "ZZ", "id": "tnc", "version": "2"})",
        R"({"country": "US", "id": "nothing", "version": "2"})",
        R"({"id": "tnc", "version": 2})",
        R"({"withdraw": "nothing"})",
        R"({"country": "US", "disclaimer": {"id": "tnc", "version": "1"}})",
        R"({"country_set": {"country": "XX", "set_id": "a b", "disclaimers": []}})"};
    for (const char* body : bad_publishes) {
        const auto [status, answer] = Post("/admin/publish", body);
        EXPECT_EQ(status, 400) << body;
        EXPECT_TRUE(answer["error"].isString()) << body;
    }
    auto faults = m_admin->Get("/admin/fault");
    ASSERT_TRUE(faults);
    EXPECT_EQ(Parse(faults->body).value_or(Json::Value()).size(), 0u);
    EXPECT_EQ(VersionIn(GetJson(std::string(kCheckVersion) + "en"), "tnc"),
              DataDisclaimer(DataFile("US"), "tnc")["version"].asString());
}

TEST_F(Cloud, StopsCleanlyOnSigterm) { EXPECT_EQ(m_cloud->Terminate(), 0); }

}  // namespace
}  // namespace test
}  // namespace tarvo
