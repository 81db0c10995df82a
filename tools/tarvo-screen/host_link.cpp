#include "host_link.h"

#include <exception>
#include <iostream>

namespace tarvoscreen {

namespace {

// How often a missing host is looked for, and how long one read of the subscription waits
// before it looks at the stop flag again.
constexpr std::chrono::milliseconds kReconnectDelay{300};
constexpr std::chrono::milliseconds kReadSlice{500};

}  // namespace

HostLink::HostLink(std::string socket_path, EventHub& hub)
    : m_socketPath(std::move(socket_path)), m_hub(hub) {}

HostLink::~HostLink() { Stop(); }

void HostLink::Start() {
    m_subscriber = std::thread([this] { m_Subscribe(); });
}

void HostLink::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_stopMutex);
        m_stopping = true;
    }
    m_stopChanged.notify_all();
    if (m_subscriber.joinable()) m_subscriber.join();
}

CallOutcome HostLink::Call(const Json::Value& request) {
    std::lock_guard<std::mutex> lock(m_callMutex);
    const uint64_t generation = m_hostGeneration.load();
    if (!m_callClient || m_callClient->Closed() || m_callGeneration != generation) {
        m_callClient = std::make_unique<tarvoctl::Client>();
        m_callGeneration = generation;
        if (!m_callClient->Connect(m_socketPath)) {
            m_callClient.reset();
            return CallOutcome{CallOutcome::Kind::kNoHost, {}, "no service is running at " + m_socketPath};
        }
    }
    const auto answer = m_callClient->Call(request);
    if (!answer) {
        // A host that went away mid-call may or may not have done the work, so no retry here.
        m_callClient.reset();
        return CallOutcome{
            CallOutcome::Kind::kNoHost, {}, "the service at " + m_socketPath + " did not answer"};
    }
    if (answer->isMember("error")) {
        return CallOutcome{CallOutcome::Kind::kHostError, {}, (*answer)["error"].asString()};
    }
    return CallOutcome{CallOutcome::Kind::kReply, (*answer)["reply"], ""};
}

void HostLink::m_Subscribe() {
    try {
        do {
            tarvoctl::Client client;
            if (!client.Connect(m_socketPath) || !client.Subscribe()) {
                m_hub.SetHostUp(false);
                continue;
            }
            ++m_hostGeneration;
            m_hub.SetHostUp(true);
            while (m_Pause(std::chrono::milliseconds(0))) {
                const auto frame = client.ReadFrame(kReadSlice);
                if (frame && frame->isMember("notification")) {
                    m_hub.PublishNotification((*frame)["notification"]);
                } else if (!frame && client.Closed()) {
                    break;
                }
            }
            m_hub.SetHostUp(false);
        } while (m_Pause(kReconnectDelay));
    } catch (const std::exception& e) {
        std::cerr << "tarvo-screen: the subscription stopped: " << e.what() << std::endl;
        m_hub.SetHostUp(false);
    }
}

bool HostLink::m_Pause(std::chrono::milliseconds delay) {
    std::unique_lock<std::mutex> lock(m_stopMutex);
    m_stopChanged.wait_for(lock, delay, [this] { return m_stopping; });
    return !m_stopping;
}

}  // namespace tarvoscreen
