// libcurl set-up shared by the HTTP client and the usage-log client: one global
// initialisation, time-out scaling and TLS verification against the profile's CA file.
#pragma once

#include <curl/curl.h>

#include <string>

namespace tarvo {
namespace platform {

// curl_global_init, once per process, from whichever thread comes first.
void EnsureCurlReady();

// `ms` times TARVO_TIMEOUT_SCALE, never below 100 ms; 0 stays 0 (no limit).
long ScaledTimeoutMs(long ms);

// The device profile's curl.write_block, or 16384 when absent or not positive.
size_t ProfileWriteBlock();

// The device profile's curl.max_body, the largest answer body taken, or 8 MiB when absent or
// not positive.
curl_off_t ProfileMaxBody();

struct CurlResult {
    CURLcode code = CURLE_OK;
    std::string detail;  // why, when the platform itself refused
};

// Verifies peer and host name against the profile's "ca_file", or the system store
// without one. An unreadable ca_file gives CURLE_SSL_CACERT_BADFILE.
CurlResult ApplyTlsVerification(CURL* handle);

// True while the device profile says the network is down ("network": {"up": false}).
bool NetworkDown();

// The failure libcurl gives for `url` on a set without a route to any server: connection
// refused at once with CURLE_COULDNT_CONNECT, no byte sent.
CurlResult NoRouteTo(const std::string& url);

// The tag of the one line each transfer's outcome gets at info level; the terminal shows these
// beside the warnings.
#define TARVO_HTTP_TAG "TarvoHttp"

// libcurl's text for `code`, followed by `detail` when there is one.
std::string DescribeCurlError(CURLcode code, const std::string& detail);

}  // namespace platform
}  // namespace tarvo
