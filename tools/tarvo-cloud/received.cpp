#include "received.h"

#include "record.h"

namespace tarvo {
namespace cloud {

void AgreementBook::Add(const AgreementUpload& upload) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Json::Value& device = m_devices[upload.deployment][upload.duid];
    device["country"] = upload.country;
    device["model"] = upload.model;
    device["time"] = NowIso8601Utc();
    device["uploads"] = device["uploads"].asUInt() + 1;
    if (!device["terms"].isObject()) device["terms"] = Json::Value(Json::objectValue);
    for (const AgreementTerm& term : upload.terms) {
        device["terms"][term.id]["agree"] = term.agree;
        device["terms"][term.id]["agreeVer"] = term.version;
    }
}

Json::Value AgreementBook::ToJson() const {
    Json::Value all(Json::objectValue);
    all["production"] = Json::Value(Json::objectValue);
    all["staging"] = Json::Value(Json::objectValue);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& deployment : m_devices.getMemberNames()) all[deployment] = m_devices[deployment];
    return all;
}

size_t AgreementBook::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t count = 0;
    for (const auto& deployment : m_devices) count += deployment.size();
    m_devices = Json::Value();
    return count;
}

LogBook::LogBook(size_t capacity) : m_capacity(capacity == 0 ? 1 : capacity) {}

void LogBook::Add(const std::string& deployment, const std::string& path, const Json::Value& batch) {
    const std::string time = NowIso8601Utc();
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& event : batch["events"]) {
        Json::Value entry(Json::objectValue);
        entry["deployment"] = deployment;
        entry["path"] = path;
        entry["service"] = batch["service"];
        for (const char* key : {"name", "category", "time", "value", "desc"}) entry[key] = event[key];
        entry["header"] = batch["header"];
        entry["received"] = time;
        m_events.push_back(std::move(entry));
    }
    while (m_events.size() > m_capacity) m_events.pop_front();
}

Json::Value LogBook::ToJson() const {
    Json::Value all(Json::arrayValue);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& event : m_events) all.append(event);
    return all;
}

size_t LogBook::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    const size_t count = m_events.size();
    m_events.clear();
    return count;
}

}  // namespace cloud
}  // namespace tarvo
