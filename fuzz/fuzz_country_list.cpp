// Bytes as the country list the device hands out (the device profile's "country_list" given as a
// string), asked for by a client: the request must always end in its notification.
#include <bracken/ser.h>

#include <condition_variable>
#include <mutex>

#include "service_harness.h"

namespace {

std::mutex g_mutex;  // guards g_told
std::condition_variable g_changed;
int g_told = 0;  // "new_country_list_got" notifications so far

Json::Value Method(const char* name) {
    Json::Value request(Json::objectValue);
    request["method"] = name;
    return request;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    tarvo_fuzz::StartService();
    bracken::ser::SetNotificationSink([](const Sedge::TCMessage& message) {
        if (message.json["name"].asString() != "new_country_list_got") return;
        std::lock_guard<std::mutex> lock(g_mutex);
        ++g_told;
        g_changed.notify_all();
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Json::Value base = tarvo::platform::LoadDeviceProfile().value_or(Json::Value());
    Json::Value profile = base;
    profile["country_list"] = std::string(reinterpret_cast<const char*>(data), size);
    if (!tarvo::platform::SaveDeviceProfile(profile)) abort();

    int before = 0;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        before = g_told;
    }
    tarvo_fuzz::Call(Method("request country code list"));
    std::unique_lock<std::mutex> lock(g_mutex);
    // A request that never tells its outcome leaves its client waiting: that is a finding.
    if (!g_changed.wait_for(lock, std::chrono::seconds(10), [before] { return g_told > before; })) abort();
    lock.unlock();
    tarvo_fuzz::Call(Method("get country code list"));
    return 0;
}
