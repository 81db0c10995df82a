#include "bare_http.h"

#include <curl/curl.h>

#include <cstring>

namespace tarvo {
namespace bench {

namespace {

size_t Collect(char* data, size_t size, size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

struct Upload {
    const std::string* body;
    size_t sent = 0;
};

size_t Feed(char* buffer, size_t size, size_t count, void* user) {
    auto* upload = static_cast<Upload*>(user);
    const size_t n = std::min(size * count, upload->body->size() - upload->sent);
    std::memcpy(buffer, upload->body->data() + upload->sent, n);
    upload->sent += n;
    return n;
}

}  // namespace

bool BareTransfer(const BareRequest& request, std::string& answer) {
    CURL* handle = curl_easy_init();
    if (handle == nullptr) return false;
    curl_slist* headers = nullptr;
    for (const std::string& line : request.headers) headers = curl_slist_append(headers, line.c_str());
    Upload upload{&request.body};
    answer.clear();
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 90L);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Collect);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &answer);
    if (request.method == "PUT") {
        curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(handle, CURLOPT_READFUNCTION, &Feed);
        curl_easy_setopt(handle, CURLOPT_READDATA, &upload);
    }
    if (!request.caFile.empty()) {
        curl_easy_setopt(handle, CURLOPT_CAINFO, request.caFile.c_str());
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    }
    const CURLcode code = curl_easy_perform(handle);
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(handle);
    curl_slist_free_all(headers);
    return code == CURLE_OK && status == 200;
}

}  // namespace bench
}  // namespace tarvo
