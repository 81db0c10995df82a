#include "host_link.h"

#include "power_marker.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iostream>

namespace tarvoscreen {

namespace {

// How often a missing host is looked for, and how long one read of the subscription waits
// before it looks at the stop flag again.
constexpr std::chrono::milliseconds kReconnectDelay{300};
constexpr std::chrono::milliseconds kReadSlice{250};

// The store's state for the page: open, or closed by a power-off of the host that serves now.
Json::Value StoreState(const std::string& socket) {
    Json::Value state(Json::objectValue);
    const auto mark = tarvoctl::StoreClosedMark(socket);
    state["closed"] = mark.has_value();
    if (mark) {
        state["state"] = (*mark)["state"];
        state["at"] = (*mark)["at"];
    }
    return state;
}

}  // namespace

HostLink::HostLink(std::string socket_path, EventHub& hub)
    : m_socketPath(std::move(socket_path)), m_hub(hub), m_book(m_socketPath) {}

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
            m_hub.SetStore(StoreState(m_socketPath));
            m_ReadVersions();
            m_hub.SetHostUp(true);
            while (m_Pause(std::chrono::milliseconds(0))) {
                // A power-off sends no notification: the mark tarvoctl leaves is looked at instead.
                // A host that is going has removed its socket; its store state stays as it was.
                if (access(m_socketPath.c_str(), F_OK) == 0) m_hub.SetStore(StoreState(m_socketPath));
                const auto frame = client.ReadFrame(kReadSlice);
                if (frame && frame->isMember("notification")) {
                    // The book learns a replaced version before the page hears of it.
                    m_ReadVersions();
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

void HostLink::m_ReadVersions() {
    // Requester 4 lists every available disclaimer.
    constexpr int kEveryRequester = 4;
    Json::Value count(Json::objectValue);
    count["method"] = "get disclaimer number";
    count["requester"] = kEveryRequester;
    const CallOutcome number = Call(count);
    // A host that answers out of shape must not end the subscription, nor keep it asking forever.
    constexpr Json::UInt kMostRecords = 256;
    if (number.kind != CallOutcome::Kind::kReply || !number.reply.isObject() ||
        !number.reply["number"].isUInt())
        return;
    std::vector<Json::Value> records;
    for (Json::UInt i = 0; i < std::min(number.reply["number"].asUInt(), kMostRecords); ++i) {
        Json::Value request(Json::objectValue);
        request["method"] = "get disclaimer by order";
        request["requester"] = kEveryRequester;
        request["request_index"] = i;
        const CallOutcome record = Call(request);
        if (record.kind != CallOutcome::Kind::kReply || !record.reply.isObject() ||
            !record.reply["result"].asBool())
            break;
        records.push_back(record.reply);
    }
    m_book.Update(records);
}

bool HostLink::m_Pause(std::chrono::milliseconds delay) {
    std::unique_lock<std::mutex> lock(m_stopMutex);
    m_stopChanged.wait_for(lock, delay, [this] { return m_stopping; });
    return !m_stopping;
}

}  // namespace tarvoscreen
