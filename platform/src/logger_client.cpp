// Usage-log client: keeps the service and event configuration and the event header,
// queues events up to queue_max and POSTs them as one JSON document to the service URL.
// Callable from any thread; one mutex guards the whole client, including its POSTs.
#include <ILogger.h>

#include "curl_support.h"
#include "runtime_support.h"

#include <json/json.h>

#include <map>
#include <mutex>
#include <vector>

namespace {

constexpr long kConnectTimeoutMs = 3000;
constexpr long kTransferTimeoutMs = 10000;

size_t DiscardBody(char*, size_t size, size_t count, void*) { return size * count; }

// POSTs `body` as JSON to `url`; true on a 2xx answer.
bool PostJson(const std::string& url, const std::string& body, size_t events) {
    // A television whose network is down has no route to the log server.
    if (tarvo::platform::NetworkDown()) {
        const auto refused = tarvo::platform::NoRouteTo(url);
        TARVO_PLATFORM_LOG(DLOG_WARN, "log post to %s failed: %s", url.c_str(),
                           tarvo::platform::DescribeCurlError(refused.code, refused.detail).c_str());
        return false;
    }
    tarvo::platform::EnsureCurlReady();
    CURL* handle = curl_easy_init();
    if (handle == nullptr) {
        TARVO_PLATFORM_LOG(DLOG_ERROR, "log post: curl_easy_init failed");
        return false;
    }
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    char error_buffer[CURL_ERROR_SIZE] = {};
    std::string detail;
    CURLcode code = curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error_buffer);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.c_str());
    if (code == CURLE_OK) {
        code = curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    }
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &DiscardBody);
    if (code == CURLE_OK) {
        code = curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS,
                                tarvo::platform::ScaledTimeoutMs(kConnectTimeoutMs));
    }
    if (code == CURLE_OK) {
        code = curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS,
                                tarvo::platform::ScaledTimeoutMs(kTransferTimeoutMs));
    }
    if (code == CURLE_OK) {
        const auto tls = tarvo::platform::ApplyTlsVerification(handle);
        code = tls.code;
        detail = tls.detail;
    }
    long status = 0;
    if (code == CURLE_OK) {
        code = curl_easy_perform(handle);
        detail = error_buffer;
    }
    if (code == CURLE_OK) curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(handle);
    curl_slist_free_all(headers);

    if (code != CURLE_OK) {
        TARVO_PLATFORM_LOG(DLOG_WARN, "log post to %s failed: %s", url.c_str(),
                           tarvo::platform::DescribeCurlError(code, detail).c_str());
        return false;
    }
    if (status < 200 || status > 299) {
        TARVO_PLATFORM_LOG(DLOG_WARN, "log post to %s answered HTTP %ld", url.c_str(), status);
        return false;
    }
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, TARVO_HTTP_TAG, "POST %s -> HTTP %ld, %zu usage events", url.c_str(),
                 status, events);
    return true;
}

struct ServiceConf {
    std::string name;
    std::string url;
    long queueMax = 0;
    long expiration = 0;
    long threshold = 0;
    long level = 0;
};

struct EventConf {
    long queueMax = 0;
    long expiration = 0;
    long threshold = 0;
    long level = 0;
};

struct QueuedEvent {
    std::string name;
    std::string time;
    std::string category;
    std::string value;
    std::string desc;
};

class UsageLogClient : public ILogger {
  public:
    bool SetServiceConfInfo(std::string service_name, long queue_max, long expiration, long threshold,
                            long log_level, std::string url) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (service_name.empty() || url.empty()) {
            TARVO_PLATFORM_LOG(DLOG_WARN, "log client: service name and url are required");
            return false;
        }
        m_service =
            ServiceConf{std::move(service_name), std::move(url), queue_max, expiration, threshold, log_level};
        m_configured = true;
        return true;
    }

    bool AddEventConfInfo(std::string event_name, long queue_max, long expiration, long threshold,
                          long event_level) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (event_name.empty()) return false;
        m_events[event_name] = EventConf{queue_max, expiration, threshold, event_level};
        return true;
    }

    bool SetEventHeader(std::string model_name, std::string user_id, std::string duid,
                        std::string country_code, long, long, long) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_header = Json::Value(Json::objectValue);
        m_header["model_name"] = model_name;
        m_header["user_id"] = user_id;
        m_header["duid"] = duid;
        m_header["country_code"] = country_code;
        return true;
    }

    bool SetEventOption(std::string, long) override { return true; }

    bool AddEventLog(std::string event_name, std::string time, std::string category, std::string value,
                     std::string desc) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_configured || m_finalized) {
            TARVO_PLATFORM_LOG(DLOG_WARN, "log client: event %s before set-up or after finalize",
                               event_name.c_str());
            return false;
        }
        if (m_events.count(event_name) == 0) {
            TARVO_PLATFORM_LOG(DLOG_WARN, "log client: event %s is not configured", event_name.c_str());
            return false;
        }
        m_queue.push_back(QueuedEvent{std::move(event_name), std::move(time), std::move(category),
                                      std::move(value), std::move(desc)});
        const size_t limit = m_service.queueMax > 0 ? static_cast<size_t>(m_service.queueMax) : 1;
        if (m_queue.size() >= limit) return FlushLocked();
        return true;
    }

    bool RemoveEventLog(std::string) override { return true; }

    bool FlushLog() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        return FlushLocked();
    }

    bool ClearLog() override { return true; }

    bool Finalize() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        const bool flushed = FlushLocked();
        m_finalized = true;
        return flushed;
    }

  private:
    // Sends the queue as one document; the batch is dropped either way so the queue stays bounded.
    bool FlushLocked() {
        if (m_queue.empty()) return true;
        if (!m_configured) return false;
        Json::Value document(Json::objectValue);
        document["service"] = m_service.name;
        document["header"] = m_header;
        Json::Value& events = document["events"] = Json::Value(Json::arrayValue);
        for (const QueuedEvent& event : m_queue) {
            Json::Value item(Json::objectValue);
            item["name"] = event.name;
            item["time"] = event.time;
            item["category"] = event.category;
            item["value"] = event.value;
            item["desc"] = event.desc;
            events.append(item);
        }
        const size_t count = m_queue.size();
        m_queue.clear();
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        const bool sent = PostJson(m_service.url, Json::writeString(writer, document), count);
        if (!sent)
            TARVO_PLATFORM_LOG(DLOG_WARN, "log client: %zu events of %s dropped", count,
                               m_service.name.c_str());
        return sent;
    }

    std::mutex m_mutex;  // guards every member below
    bool m_configured = false;
    bool m_finalized = false;
    ServiceConf m_service;
    std::map<std::string, EventConf> m_events;
    Json::Value m_header{Json::objectValue};
    std::vector<QueuedEvent> m_queue;
};

}  // namespace

bool CreateLogger(ILogger** logger) {
    if (logger == nullptr) return false;
    *logger = new UsageLogClient();
    return true;
}
