#include "event_hub.h"

#include "client.h"

namespace tarvoscreen {

void EventHub::PublishNotification(const Json::Value& notification) {
    m_Publish("notification", tarvoctl::CompactJson(notification));
}

void EventHub::SetHostUp(bool up) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_hostUp == up) return;
        m_hostUp = up;
    }
    Json::Value state(Json::objectValue);
    state["up"] = up;
    m_Publish("host", tarvoctl::CompactJson(state));
}

void EventHub::SetStore(const Json::Value& store) {
    const std::string data = tarvoctl::CompactJson(store);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_store == data) return;
        m_store = data;
    }
    m_Publish("store", data);
}

HubPosition EventHub::Position() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return HubPosition{m_hostUp, m_store, m_nextSeq - 1};
}

WaitResult EventHub::Wait(uint64_t after, std::chrono::milliseconds timeout,
                          std::vector<HubEvent>& out) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool woken = m_changed.wait_for(lock, timeout, [&] { return m_closed || m_nextSeq - 1 > after; });
    if (m_closed) return WaitResult::kClosed;
    if (!woken) return WaitResult::kTimeOut;
    if (m_events.empty() || m_events.front().seq > after + 1) return WaitResult::kFellBehind;
    for (const auto& event : m_events) {
        if (event.seq > after) out.push_back(event);
    }
    return WaitResult::kEvents;
}

void EventHub::Close() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_changed.notify_all();
}

void EventHub::m_Publish(const std::string& name, const std::string& data) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(HubEvent{m_nextSeq++, name, data});
        if (m_events.size() > kKeptEvents) m_events.pop_front();
    }
    m_changed.notify_all();
}

std::string SseFrame(const HubEvent& event) {
    return "id: " + std::to_string(event.seq) + "\nevent: " + event.name + "\ndata: " + event.data + "\n\n";
}

}  // namespace tarvoscreen
