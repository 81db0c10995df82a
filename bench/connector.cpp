// The OpenAPI connector against a loopback server: one update-notice GET and one disclaimers GET,
// compared with the same two transfers on bare libcurl easy handles (the floor).
#include "report.h"
#include "television.h"

#include <TarvoInternalData.h>
#include <TarvoKelvaneConnector.h>
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <httplib.h>
#include <json/json.h>
#include <tarvo/platform.h>
#include <unistd.h>
#include <vconf.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

namespace {

const char kDisclaimerSetId[] = "DS-US-2024";

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string UpdateNoticeJson() {
    Json::Value root;
    root["rsp"]["stat"] = "ok";
    root["rsp"]["disclaimer"]["id"] = kDisclaimerSetId;
    for (int i = 0; i < 21; ++i) {
        Json::Value item;
        item["id"] = "d" + std::to_string(i);
        item["version"] = "3." + std::to_string(i);
        root["rsp"]["disclaimer"]["items"].append(item);
    }
    return Compact(root);
}

// 21 records whose legal text brings the answer to about 400 KB.
std::string DisclaimersJson() {
    std::string paragraph;
    while (paragraph.size() < 18500) {
        paragraph += "By using this television you agree that the provider may process viewing data. ";
    }
    Json::Value root;
    root["rsp"]["stat"] = "ok";
    root["rsp"]["disclaimer"]["id"] = kDisclaimerSetId;
    root["rsp"]["disclaimer"]["reverseOSD"] = "false";
    for (int i = 0; i < 21; ++i) {
        Json::Value item;
        item["id"] = "d" + std::to_string(i);
        item["version"] = "3." + std::to_string(i);
        Json::Value& content = item["content"];
        content["displayWindow"] = i % 2 == 0 ? "main" : "sub";
        content["order"] = std::to_string(i + 1);
        content["title"] = "Terms " + std::to_string(i);
        content["intro"] = "Please read the following terms.";
        content["details"] = paragraph;
        content["button1"] = "Agree";
        content["button2"] = "Disagree";
        content["visible_pnp"] = "yes";
        content["visible_menu"] = "yes";
        root["rsp"]["disclaimer"]["items"].append(item);
    }
    return Compact(root);
}

struct Fixture {
    std::string root;
    httplib::Server server;
    std::thread thread;
    std::string domain;
    std::string noticeUrl;
    std::string disclaimersUrl;
    size_t noticeSize = 0;
    size_t disclaimersSize = 0;
};

Fixture* g_fixture = nullptr;

bool Transfer(ETarvoKelvaneOpenApiType type, size_t expected) {
    const bool ok =
        CTarvoKelvaneConnector::RequestGetXMLData(type) && CTarvoKelvaneConnector::GetDataSize() == expected;
    CTarvoKelvaneConnector::ReleaseConnector();
    return ok;
}

void BM_Connector(benchmark::State& state) {
    CTarvoInternalData::GetInstance()->m_DisclaimerId = kDisclaimerSetId;
    for (auto _ : state) {
        if (!Transfer(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE, g_fixture->noticeSize) ||
            !Transfer(TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER, g_fixture->disclaimersSize)) {
            state.SkipWithError("connector request failed");
            break;
        }
    }
}

size_t Collect(char* data, size_t size, size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

// The same request lines as the connector's, so that both sides move the same bytes.
bool BareGet(const std::string& url, const char* cache, size_t expected) {
    CURL* handle = curl_easy_init();
    if (handle == nullptr) return false;
    std::string body;
    curl_slist* headers = nullptr;
    const std::string host = "Host:" + g_fixture->domain.substr(7);
    const std::string cacheLine = std::string("Cache-Control:") + cache;
    for (const char* line :
         {"Content-Type:application/json; charset=utf-8", "Content-Length:0", "Accept:application/json",
          host.c_str(), cacheLine.c_str(), "Accept-Encoding:gzip, deflate"}) {
        headers = curl_slist_append(headers, line);
    }
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "tarvodatacontrol-service/1.0");
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 90L);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Collect);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
    const CURLcode code = curl_easy_perform(handle);
    curl_easy_cleanup(handle);
    curl_slist_free_all(headers);
    return code == CURLE_OK && body.size() == expected;
}

void BM_Floor(benchmark::State& state) {
    for (auto _ : state) {
        if (!BareGet(g_fixture->noticeUrl, "no-cache", g_fixture->noticeSize) ||
            !BareGet(g_fixture->disclaimersUrl, "cache", g_fixture->disclaimersSize)) {
            state.SkipWithError("bare libcurl request failed");
            break;
        }
    }
}

bool SetUp(Fixture& f) {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarvo-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return false;
    f.root = pattern;
    setenv("TARVO_ROOT", f.root.c_str(), 1);
    if (!tarvo::platform::PrepareRoot(f.root)) return false;
    Json::Value profile = tarvo::platform::LoadDeviceProfile().value_or(Json::Value(Json::objectValue));
    profile["firm_code"] = "T-TRV2-1010.5";
    profile["curl"]["write_block"] = 16384;
    if (!tarvo::platform::SaveDeviceProfile(profile)) return false;

    const std::string notice = UpdateNoticeJson();
    const std::string disclaimers = DisclaimersJson();
    f.noticeSize = notice.size();
    f.disclaimersSize = disclaimers.size();
    f.server.Get("/apps/conf/v1/stacks/tarvoapp/checkversion",
                 [notice](const httplib::Request&, httplib::Response& res) {
                     res.set_content(notice, "application/json");
                 });
    f.server.Get(std::string("/apps/terms/v4/disclaimers/") + kDisclaimerSetId,
                 [disclaimers](const httplib::Request&, httplib::Response& res) {
                     res.set_content(disclaimers, "application/json");
                 });
    const int port = f.server.bind_to_any_port("127.0.0.1");
    if (port <= 0) return false;
    f.thread = std::thread([&f] { f.server.listen_after_bind(); });
    for (int i = 0; i < 500 && !f.server.is_running(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!f.server.is_running()) return false;

    f.domain = "http://127.0.0.1:" + std::to_string(port);
    const std::string query = "countrycode=US&modelid=TRV55&timestamp=0&lang=en&firmcode=T-TRV2-1010.5";
    f.noticeUrl = f.domain + "/apps/conf/v1/stacks/tarvoapp/checkversion?items=disclaimer&" + query;
    f.disclaimersUrl = f.domain + "/apps/terms/v4/disclaimers/" + kDisclaimerSetId + "?" + query;
    return vconf_set_str("db/nimbra/gpmurl/apps", f.domain.c_str()) == 0 &&
           vconf_set_str("db/nimbra/countrycode", "US") == 0 &&
           vconf_set_str("db/nimbra/modelid", "TRV55") == 0 &&
           vconf_set_str("db/menu_widget/language", "en_US.utf8") == 0;
}

void TearDown(Fixture& f) {
    f.server.stop();
    if (f.thread.joinable()) f.thread.join();
    std::error_code ignored;
    if (!f.root.empty()) std::filesystem::remove_all(f.root, ignored);
}

}  // namespace

BENCHMARK(BM_Connector)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Floor)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    const tarvo::bench::Options options = tarvo::bench::ParseOptions(argc, argv);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    Fixture fixture;
    g_fixture = &fixture;
    if (!SetUp(fixture)) {
        fprintf(stderr, "bench_connector: cannot set up the temporary root and the loopback server\n");
        TearDown(fixture);
        return 1;
    }
    tarvo::bench::LetFilesSettle();
    auto seconds = tarvo::bench::RunBenchmarks(argc, argv, options);
    TearDown(fixture);
    if (seconds["BM_Connector"] > 0 && seconds["BM_Floor"] > 0) {
        tarvo::bench::Figure figure;
        figure.road = "Connector";
        figure.name = "update notice + disclaimers GETs";
        figure.unit = "us";
        figure.value = seconds["BM_Connector"] * 1e6;
        figure.floor = seconds["BM_Floor"] * 1e6;
        tarvo::bench::Emit(options, figure);
    }
    return 0;
}
