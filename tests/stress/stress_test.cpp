// Eight clients calling at once while power, wake-up and network changes arrive, and a crowd of
// silent connections refilling a small server beside callers and a subscriber. Service and server
// run in this process, so ThreadSanitizer sees all their threads; the cloud runs apart.
#include "frames.h"
#include "socket_server.h"
#include "sync_fixture.h"

#include <TarvoDataControlService.h>
#include <TarvoExternalData.h>
#include <TarvoInternalData.h>
#include <TarvoNetworkInfo.h>
#include <bracken/ser.h>
#include <tarvo/platform.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>

#include <unistd.h>

namespace tarvo::test {
namespace {

constexpr auto kRunFor = std::chrono::seconds(10);
constexpr int kClients = 8;
// A reply must come within this, however busy the service is: a call that waits longer is
// taken for a deadlock.
constexpr auto kAnswerBound = std::chrono::seconds(10);

const char* const kCalls[] = {
    R"({"method": "is service available"})",
    R"({"method": "get disclaimer number", "requester": 4})",
    R"({"method": "get disclaimer by order", "requester": 0, "request_index": 1})",
    R"({"method": "get disclaimer by term id", "request_item": "tnc"})",
    R"({"method": "get revised disclaimers"})",
    R"({"method": "get country code list"})",
    R"({"method": "set one agreement", "request_item": "pp", "is_agreed": true})",
    R"({"method": "set one agreement", "request_item": "pp", "is_agreed": false})",
    R"({"method": "set agreements", "agreements": [{"request_item": "tnc", "is_agreed": true},
        {"request_item": "viewing", "is_agreed": true}]})",
    R"({"method": "set all agreement", "is_agreed": false})",
    R"({"method": "request update disclaimers", "request_from": "wizard-terms"})",
    R"({"method": "request update disclaimers", "request_from": "settings"})",
    R"({"method": "request country code list"})",
    R"({"method": "Copy Clone Data TV to USB"})",
    R"({"method": "Copy Clone Data USB to TV"})",
};

class Stress : public Sync {
  protected:
    void SetUp() override {
        PrepareTelevision();
        // Singletons are made without a lock and rely on their first call coming before any other
        // thread's, so make them here, before the worker and the clients can race to make two.
        CTarvoExternalData::GetInstance();
        CTarvoInternalData::GetInstance();
        CTarvoNetworkInfo::GetInstance();
        // Never destroyed: its detached connection threads may outlive the test body.
        m_server =
            new host::SocketServer(host::FrameHandler(g_service_proxy, g_service_name), host::ServerLimits{});
        bracken::ser::SetNotificationSink(
            [server = m_server](const Sedge::TCMessage& m) { server->Broadcast(m); });
        ASSERT_TRUE(g_service->Start());
        std::string error;
        ASSERT_TRUE(m_server->Open(DefaultSocket(m_root), error)) << error;
        m_server->Serve();
        ASSERT_TRUE(m_calls.Connect(DefaultSocket(m_root)));
        ASSERT_TRUE(WaitUntil([&] { return Method("is service available")["result"].asBool(); }));
    }

    // The service has no end: let its queued work and its network monitor settle before the root
    // is removed, so that nothing writes into it afterwards.
    void TearDown() override {
        if (m_server == nullptr) return;
        m_server->Stop();
        platform::SetNetworkDown();
        const std::string log = m_root.At("/var/log/tarvo.log");
        std::uintmax_t size = 0;
        auto changed = std::chrono::steady_clock::now();
        WaitUntil(
            [&] {
                std::error_code ignored;
                const auto now = std::chrono::steady_clock::now();
                if (const auto grown = std::filesystem::file_size(log, ignored); grown != size) {
                    size = grown;
                    changed = now;
                }
                return now - changed > std::chrono::seconds(1);
            },
            std::chrono::seconds(20));
    }

    // One frame's round trip on `client`: the answer must come in time, carry the frame's id
    // and hold a reply (a JSON object, or null for the methods that answer nothing) or "ok".
    void RoundTrip(HostClient& client, Json::Value frame, int id) {
        frame["id"] = id;
        ASSERT_TRUE(client.Send(frame));
        const auto answer = client.ReadFrame(kAnswerBound);
        ASSERT_TRUE(answer) << "no answer within the bound to " << ToLine(frame);
        ASSERT_TRUE(answer->isObject()) << ToLine(*answer);
        EXPECT_EQ((*answer)["id"], id) << ToLine(*answer);
        if (frame.isMember("call")) {
            const Json::Value& reply = (*answer)["reply"];
            EXPECT_TRUE(reply.isObject() || (answer->isMember("reply") && reply.isNull())) << ToLine(*answer);
        } else {
            EXPECT_TRUE((*answer)["ok"].asBool()) << ToLine(*answer);
        }
    }

    host::SocketServer* m_server = nullptr;
};

TEST_F(Stress, EightClientsUnderPowerAndNetworkChangesAreEachAnsweredInTimeWithJson) {
    const auto deadline = std::chrono::steady_clock::now() + kRunFor;
    std::atomic<long> notifications{0};
    std::thread listener([&] {
        HostClient client;
        ASSERT_TRUE(client.Subscribe(DefaultSocket(m_root)));
        while (std::chrono::steady_clock::now() < deadline) {
            const auto frame = client.ReadFrame(std::chrono::milliseconds(200));
            if (!frame || !frame->isMember("notification")) continue;
            EXPECT_TRUE((*frame)["notification"].isObject()) << ToLine(*frame);
            ++notifications;
        }
    });
    std::vector<std::thread> clients;
    for (int k = 0; k < kClients; ++k) {
        clients.emplace_back([&, k] {
            HostClient client;
            ASSERT_TRUE(client.Connect(DefaultSocket(m_root)));
            std::mt19937 random(k);
            for (int id = 1; std::chrono::steady_clock::now() < deadline; ++id) {
                Json::Value frame(Json::objectValue);
                // One client also plays the power button; bit 30 keeps the store open.
                if (k == 0 && id % 7 == 0) {
                    frame["control"] = id % 14 == 0 ? "wakeup" : "power-off";
                    frame["state"] = id % 14 == 0 ? 0 : 1073741824;
                } else {
                    frame["call"] = ParseText(kCalls[random() % std::size(kCalls)]);
                }
                RoundTrip(client, frame, id);
                if (::testing::Test::HasFatalFailure()) return;
            }
        });
    }
    // The network manager: up and down, each change watched by the service's network monitor.
    for (int i = 0; std::chrono::steady_clock::now() < deadline; ++i) {
        EXPECT_TRUE(i % 2 == 0 ? platform::SetNetworkUp("ethernet") : platform::SetNetworkDown());
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    for (auto& client : clients) client.join();
    listener.join();

    EXPECT_TRUE(Method("is service available")["result"].asBool());
    EXPECT_GT(notifications.load(), 0);
}

TEST_F(Stress, ACrowdOfSilentConnectionsRacesWithCallersAndNotificationsAndTheSubscriberStays) {
    // A second server with room for 12, so that the crowd fills it again and again.
    host::ServerLimits limits;
    limits.maxConnections = 12;
    limits.maxSubscribers = 8;
    // Never destroyed, as the fixture's own: its detached threads may outlive the test body.
    auto* server = new host::SocketServer(host::FrameHandler(g_service_proxy, g_service_name), limits);
    const std::string socket = m_root.At("/run/crowded.sock");
    std::string error;
    ASSERT_TRUE(server->Open(socket, error)) << error;
    server->Serve();

    const auto deadline = std::chrono::steady_clock::now() + kRunFor / 2;
    HostClient subscriber;
    ASSERT_TRUE(subscriber.Subscribe(socket));

    std::atomic<bool> done{false};
    std::atomic<long> answered{0};
    std::vector<std::thread> threads;
    // Notifications from a thread of their own, while answers are written straight from readers.
    threads.emplace_back([&] {
        Sedge::TCMessage message;
        message.type = "tarvodatacontrol";
        for (int n = 0; !done; ++n) {
            message.json["n"] = n;
            server->Broadcast(message);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    // The crowd: bursts of silent connections, more than the server takes.
    threads.emplace_back([&] {
        while (!done) {
            std::vector<std::unique_ptr<HostClient>> crowd;
            for (int i = 0; i < 16 && !done; ++i) {
                crowd.push_back(std::make_unique<HostClient>());
                crowd.back()->Connect(socket);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    // Callers, each opening again a connection the crowd pushed out while it waited idle.
    for (int k = 0; k < 3; ++k) {
        threads.emplace_back([&, k] {
            std::mt19937 random(100 + k);
            auto client = std::make_unique<HostClient>();
            client->Connect(socket);
            for (int id = 1; !done; ++id) {
                Json::Value frame(Json::objectValue);
                frame["id"] = id;
                frame["call"] = ParseText(kCalls[random() % 6]);
                const auto answer = client->Send(frame) ? client->ReadFrame(kAnswerBound) : std::nullopt;
                if (!answer || (*answer)["id"].isNull()) {
                    client = std::make_unique<HostClient>();
                    client->Connect(socket);
                    continue;
                }
                EXPECT_EQ((*answer)["id"], id) << ToLine(*answer);
                ++answered;
            }
        });
    }
    // The subscriber reads every notification, in the order they were sent, and is never closed.
    long last = -1;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto frame = subscriber.ReadFrame(kAnswerBound);
        ASSERT_TRUE(frame) << "the subscriber was closed or starved";
        ASSERT_TRUE(frame->isMember("notification")) << ToLine(*frame);
        const long n = (*frame)["notification"]["n"].asInt();
        if (last >= 0) {
            EXPECT_EQ(n, last + 1);
        }
        last = n;
    }
    done = true;
    for (auto& thread : threads) thread.join();
    EXPECT_GT(answered.load(), 0);
    EXPECT_GT(last, 0);
    server->Stop();
}

}  // namespace
}  // namespace tarvo::test

#ifdef TARVO_COVERAGE
extern "C" void __gcov_dump(void);
#endif

// The service has no orderly end: like the host, leave without running the libraries' destructors
// under its threads (ThreadSanitizer still fails a run that raced).
int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    std::fflush(stdout);
    std::fflush(stderr);
#ifdef TARVO_COVERAGE
    __gcov_dump();  // _exit would drop a coverage build's counters
#endif
    _exit(result);
}
