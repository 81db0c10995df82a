#include <Sedge/Sedge.h>
#include <bracken/ser.h>

#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

namespace {

using tarvo::test::WaitUntil;

bool CountFiring(void* arg) {
    ++*static_cast<std::atomic<int>*>(arg);
    return true;
}

class Alarm : public ::testing::Test {
  protected:
    void SetUp() override { setenv("TARVO_ALARM_SCALE", "0.01", 1); }

    // Holds the worker until the returned promise is set, so an expiry queues behind it.
    std::promise<void> BlockWorker() {
        std::promise<void> gate;
        auto opened = std::make_shared<std::shared_future<void>>(gate.get_future());
        worker->PostFunction([opened] { opened->wait_for(std::chrono::seconds(20)); });
        return gate;
    }
    // True once every job posted so far has run.
    bool Drained() {
        auto done = std::make_shared<std::promise<void>>();
        auto reached = done->get_future();
        worker->PostFunction([done] { done->set_value(); });
        return reached.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    }
    void WaitPast(unsigned long ms) {
        const unsigned long start = Sedge::TCAlarm::GetTickCount();
        ASSERT_TRUE(WaitUntil([&] { return Sedge::TCAlarm::GetTickCount() - start > ms; }));
    }

    tarvo::test::TempRoot root;
    std::shared_ptr<bracken::ser::Worker> worker = bracken::ser::WorkerFactory::Get()->GetWorker("alarm");
    std::atomic<int> fired{0};
};

TEST_F(Alarm, FiresOnceAfterTheScaledIntervalAndARearmReplacesTheLastArming) {
    Sedge::TCAlarm alarm;
    EXPECT_FALSE(alarm.Reset(1000, 1)) << "not created yet";
    ASSERT_TRUE(alarm.Create(worker.get(), 90000, 0));
    alarm.SetAlarmCallback(&CountFiring, &fired);

    const unsigned long armed_at = Sedge::TCAlarm::GetTickCount();
    ASSERT_TRUE(alarm.Reset(5000, 1));  // 50 ms at this scale
    ASSERT_TRUE(WaitUntil([&] { return fired.load() == 1; }));
    EXPECT_GE(Sedge::TCAlarm::GetTickCount() - armed_at, 50u);

    ASSERT_TRUE(alarm.Reset(3000, 1));
    ASSERT_TRUE(alarm.Reset(1000, 1));
    ASSERT_TRUE(WaitUntil([&] { return fired.load() == 2; }));
    WaitPast(100);
    ASSERT_TRUE(Drained());
    EXPECT_EQ(fired.load(), 2);
}

TEST_F(Alarm, NoCallbackArrivesAfterDisarmOrDestructionEvenWhenTheExpiryIsQueued) {
    Sedge::TCAlarm alarm;
    ASSERT_TRUE(alarm.Create(worker.get(), 90000, 0));
    alarm.SetAlarmCallback(&CountFiring, &fired);
    auto gate = BlockWorker();
    ASSERT_TRUE(alarm.Reset(100, 1));  // 1 ms: expires while the worker is held
    WaitPast(50);
    ASSERT_TRUE(alarm.Reset(0, 0));

    auto doomed = std::make_unique<Sedge::TCAlarm>();
    ASSERT_TRUE(doomed->Create(worker.get(), 90000, 0));
    doomed->SetAlarmCallback(&CountFiring, &fired);
    ASSERT_TRUE(doomed->Reset(100, 1));
    WaitPast(50);
    doomed.reset();
    gate.set_value();
    ASSERT_TRUE(Drained());
    EXPECT_EQ(fired.load(), 0);

    // The same race many times, disarming from the worker itself as the service does.
    for (int i = 0; i < 50; ++i) {
        worker->PostFunction([&] {
            alarm.Reset(100, 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            alarm.Reset(0, 0);
        });
    }
    ASSERT_TRUE(Drained());
    ASSERT_TRUE(Drained());  // the expiries queued by those jobs
    EXPECT_EQ(fired.load(), 0);
}

}  // namespace
