#include <bracken/ser.h>
#include <tarvo/log_capture.h>

#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using tarvo::test::WaitUntil;

class Runtime : public ::testing::Test {
  protected:
    tarvo::test::TempRoot root;
};

TEST_F(Runtime, SameNameGivesOneWorkerThatRunsJobsInOrderOnOneThread) {
    auto worker = bracken::ser::WorkerFactory::Get()->GetWorker("ordered");
    EXPECT_EQ(worker, bracken::ser::WorkerFactory::Get()->GetWorker("ordered"));
    EXPECT_NE(worker, bracken::ser::WorkerFactory::Get()->GetWorker("other"));

    std::mutex mutex;
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    for (int i = 0; i < 100; ++i) {
        bracken::ser::Job* job = new bracken::ser::Job([&, i] {
            std::lock_guard<std::mutex> lock(mutex);
            order.push_back(i);
            threads.push_back(std::this_thread::get_id());
        });
        ASSERT_TRUE(worker->Do(job));
        EXPECT_EQ(job, nullptr);
    }
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return order.size() == 100;
    }));
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
    for (const auto& id : threads) EXPECT_EQ(id, threads.front());
}

TEST_F(Runtime, AThrowingJobIsLoggedAndTheNextJobStillRuns) {
    tarvo::platform::LogCapture log;
    auto worker = bracken::ser::WorkerFactory::Get()->GetWorker("throwing");
    std::atomic<bool> next_ran{false};
    worker->PostFunction([] { throw std::runtime_error("disk on fire"); });
    worker->PostFunction([] { throw 42; });
    worker->PostFunction([&] { next_ran = true; });
    ASSERT_TRUE(WaitUntil([&] { return next_ran.load(); }));
    EXPECT_TRUE(log.Contains("job threw: disk on fire"));
    EXPECT_EQ(log.Count("job threw:"), 2u);
}

TEST_F(Runtime, TheMutexIsRecursiveAndHeldUntilEveryLockIsReleased) {
    Sedge::TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    ASSERT_TRUE(mutex.Lock());
    ASSERT_TRUE(mutex.Lock());
    std::atomic<bool> other_has_it{false};
    std::thread other([&] {
        Sedge::TCMutexGuard guard(mutex);
        other_has_it = true;
    });
    ASSERT_TRUE(mutex.Unlock());
    EXPECT_FALSE(WaitUntil([&] { return other_has_it.load(); }, std::chrono::milliseconds(100)));
    ASSERT_TRUE(mutex.Unlock());
    EXPECT_TRUE(WaitUntil([&] { return other_has_it.load(); }));
    other.join();
}

class EchoProxy : public bracken::ser::ServiceProxy {
  public:
    EchoProxy() : ServiceProxy("echo") {}
    Sedge::TCMessage OnCallAPI(Sedge::TCMessage& message) override {
        message.json["seen"] = true;
        return message;
    }
};

TEST_F(Runtime, TheProxyCallsWithACopyAndSendsNotificationsOnlyToASink) {
    EchoProxy proxy;
    Sedge::TCMessage request;
    request.json["method"] = "ping";
    EXPECT_TRUE(proxy.CallAPI(request).json["seen"].asBool());
    EXPECT_FALSE(request.json.isMember("seen"));

    proxy.SendNotification(request);  // no sink yet: dropped
    std::atomic<int> delivered{0};
    bracken::ser::SetNotificationSink([&](const Sedge::TCMessage&) { ++delivered; });
    std::thread([&] { proxy.SendNotification(request); }).join();
    bracken::ser::SetNotificationSink(nullptr);
    proxy.SendNotification(request);
    EXPECT_EQ(delivered.load(), 1);
}

}  // namespace
