// The screen's two connections to tarvo-service-host. Calls share one connection under
// m_callMutex; the subscription lives on a thread of its own, hands each notification to the
// EventHub and reports the host leaving and returning. Both reconnect when the host returns.
#pragma once

#include "client.h"
#include "event_hub.h"
#include "version_book.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace tarvoscreen {

struct CallOutcome {
    enum class Kind { kReply, kHostError, kNoHost };
    Kind kind = Kind::kNoHost;
    Json::Value reply;  // kReply: the service's reply, null when it was empty
    std::string error;  // otherwise: why there is no reply
};

class HostLink {
  public:
    HostLink(std::string socket_path, EventHub& hub);
    ~HostLink();
    HostLink(const HostLink&) = delete;
    HostLink& operator=(const HostLink&) = delete;

    void Start();
    void Stop();
    CallOutcome Call(const Json::Value& request);
    // What the screen has seen of each disclaimer's versions (VersionBook).
    Json::Value Versions() const { return m_book.Snapshot(); }

  private:
    void m_Subscribe();
    // Reads every disclaimer the service lists into the version book.
    void m_ReadVersions();
    // Waits `delay` unless Stop comes first; false once stopping.
    bool m_Pause(std::chrono::milliseconds delay);

    const std::string m_socketPath;
    EventHub& m_hub;
    VersionBook m_book;
    // Bumped by the subscription thread at each new connection: a call connection made
    // before it belongs to a host that has gone.
    std::atomic<uint64_t> m_hostGeneration{0};

    std::mutex m_callMutex;  // guards m_callClient, m_callGeneration
    std::unique_ptr<tarvoctl::Client> m_callClient;
    uint64_t m_callGeneration = 0;

    std::mutex m_stopMutex;  // guards m_stopping
    std::condition_variable m_stopChanged;
    bool m_stopping = false;
    std::thread m_subscriber;
};

}  // namespace tarvoscreen
