// Fans the host's notifications and its up/down state out to every open event stream of the
// page. Any thread publishes; each stream's own thread reads with Wait. Recent events stay in a
// bounded ring, so a slow stream costs no memory of its own: one that falls behind is ended
// and the browser reconnects.
#pragma once

#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarvoscreen {

struct HubEvent {
    uint64_t seq = 0;
    std::string name;  // "notification", "host" or "store"
    std::string data;  // compact JSON on one line
};

// Where a new stream starts: the host state known now and the last event it need not see.
struct HubPosition {
    std::optional<bool> host_up;
    std::optional<std::string> store;  // the last "store" event's data
    uint64_t last_seq = 0;
};

enum class WaitResult { kEvents, kTimeOut, kClosed, kFellBehind };

class EventHub {
  public:
    void PublishNotification(const Json::Value& notification);
    // Publishes a "host" event only when the state changes.
    void SetHostUp(bool up);
    // Publishes a "store" event ({"closed": false} or the power-off mark) only when it changes.
    void SetStore(const Json::Value& store);
    HubPosition Position() const;
    // The events after `after` (appended to `out`), waiting up to `timeout` for one to come.
    WaitResult Wait(uint64_t after, std::chrono::milliseconds timeout, std::vector<HubEvent>& out) const;
    // Ends every waiting stream; later waits return kClosed at once.
    void Close();

  private:
    void m_Publish(const std::string& name, const std::string& data);

    static constexpr size_t kKeptEvents = 512;
    mutable std::mutex m_mutex;  // guards m_events, m_nextSeq, m_hostUp, m_store, m_closed
    mutable std::condition_variable m_changed;
    std::deque<HubEvent> m_events;
    uint64_t m_nextSeq = 1;
    std::optional<bool> m_hostUp;
    std::optional<std::string> m_store;
    bool m_closed = false;
};

// "event: NAME\ndata: DATA\n\n", the form an EventSource reads.
std::string SseFrame(const HubEvent& event);

}  // namespace tarvoscreen
