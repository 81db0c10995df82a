// libcurl set-up shared by the HTTP client and the usage-log client.
#include "curl_support.h"

#include "device_profile.h"
#include "runtime_support.h"

#include <tarvo/platform.h>

#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <mutex>

namespace tarvo {
namespace platform {

namespace {
constexpr size_t kDefaultWriteBlock = 16384;
constexpr Json::LargestInt kDefaultMaxBody = 8 * 1024 * 1024;
constexpr long kShortestTimeoutMs = 100;
}  // namespace

void EnsureCurlReady() {
    static std::once_flag once;
    std::call_once(once, [] {
        const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
        if (code != CURLE_OK) {
            TARVO_PLATFORM_LOG(DLOG_ERROR, "curl_global_init failed: %s", curl_easy_strerror(code));
        }
    });
}

long ScaledTimeoutMs(long ms) {
    if (ms <= 0) return 0;
    const double scaled = std::ceil(static_cast<double>(ms) * ScaleFromEnv("TARVO_TIMEOUT_SCALE"));
    if (scaled < kShortestTimeoutMs) return kShortestTimeoutMs;
    return static_cast<long>(scaled);
}

namespace {
// profile.curl[key] when it is a positive integer; `fallback` otherwise, also when "curl" is no
// object.
Json::LargestInt PositiveCurlSetting(const char* key, Json::LargestInt fallback) {
    const auto member = detail::ProfileMember("curl", key);
    if (!member || !member->isInt64()) return fallback;
    const Json::LargestInt value = member->asLargestInt();
    return value > 0 ? value : fallback;
}
}  // namespace

size_t ProfileWriteBlock() {
    return static_cast<size_t>(
        PositiveCurlSetting("write_block", static_cast<Json::LargestInt>(kDefaultWriteBlock)));
}

curl_off_t ProfileMaxBody() {
    return static_cast<curl_off_t>(PositiveCurlSetting("max_body", kDefaultMaxBody));
}

CurlResult ApplyTlsVerification(CURL* handle) {
    CurlResult result;
    std::string ca_file;
    if (const auto profile = LoadDeviceProfile()) {
        const Json::Value& ca = (*profile)["ca_file"];
        if (ca.isString()) ca_file = ca.asString();
    }
    if (!ca_file.empty()) {
        struct stat info {};
        FILE* probe = nullptr;
        if (stat(ca_file.c_str(), &info) != 0 || !S_ISREG(info.st_mode) ||
            (probe = std::fopen(ca_file.c_str(), "rb")) == nullptr) {
            TARVO_PLATFORM_LOG(DLOG_ERROR, "ca_file %s cannot be read", ca_file.c_str());
            result.code = CURLE_SSL_CACERT_BADFILE;
            result.detail = "ca_file " + ca_file + " cannot be read";
            return result;
        }
        std::fclose(probe);
    }
    result.code = curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    if (result.code == CURLE_OK) result.code = curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    if (result.code == CURLE_OK && !ca_file.empty()) {
        result.code = curl_easy_setopt(handle, CURLOPT_CAINFO, ca_file.c_str());
    }
    return result;
}

bool NetworkDown() {
    const auto up = detail::ProfileMember("network", "up");
    return up && up->isBool() && !up->asBool();
}

CurlResult NoRouteTo(const std::string& url) {
    // The host and port as libcurl names them in its own message.
    std::string host = "the server";
    std::string port;
    if (CURLU* parsed = curl_url()) {
        if (curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
            char* part = nullptr;
            if (curl_url_get(parsed, CURLUPART_HOST, &part, 0) == CURLUE_OK) host = part;
            curl_free(part);
            part = nullptr;
            if (curl_url_get(parsed, CURLUPART_PORT, &part, CURLU_DEFAULT_PORT) == CURLUE_OK) port = part;
            curl_free(part);
        }
        curl_url_cleanup(parsed);
    }
    CurlResult result;
    result.code = CURLE_COULDNT_CONNECT;
    result.detail = "Failed to connect to " + host + (port.empty() ? "" : " port " + port) +
                    " after 0 ms: Network is unreachable (the network is down)";
    return result;
}

std::string DescribeCurlError(CURLcode code, const std::string& detail) {
    std::string text = curl_easy_strerror(code);
    if (!detail.empty()) text += ": " + detail;
    return text;
}

}  // namespace platform
}  // namespace tarvo
