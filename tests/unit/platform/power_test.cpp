#include <device/power.h>
#include <tarvo/platform.h>

#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

struct Call {
    std::string who;
    int state;
    std::thread::id thread;
};

// Written on the power thread, read after Run returns, which waits for the callbacks.
std::vector<Call> g_calls;

int Record(const char* who, int state) {
    g_calls.push_back({who, state, std::this_thread::get_id()});
    return 1;
}
int First(int state, void*) { return Record("first", state); }
int Second(int state, void*) { return Record("second", state); }
int Waker(int state, void*) { return Record("waker", state); }
int PowerOffAgain(int state, void*) {
    // A callback that runs a power control itself must not deadlock.
    if (state == 1) tarvo::platform::RunWakeup(2);
    return 1;
}

class DevicePower : public ::testing::Test {
  protected:
    tarvo::test::TempRoot root;
};

TEST_F(DevicePower, CallbacksRunInSubscriptionOrderWithTheirStateOnOnePowerThread) {
    ASSERT_EQ(device_power_subscribe_poweroff(&First, nullptr), 0);
    ASSERT_EQ(device_power_subscribe_wakeup(&Waker, nullptr), 0);
    ASSERT_EQ(device_power_subscribe_poweroff(&Second, nullptr), 0);
    EXPECT_NE(device_power_subscribe_poweroff(nullptr, nullptr), 0);

    ASSERT_TRUE(tarvo::platform::RunPowerOff(1 << 30));
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_EQ(g_calls[0].who, "first");
    EXPECT_EQ(g_calls[1].who, "second");
    EXPECT_EQ(g_calls[1].state, 1 << 30);

    ASSERT_TRUE(tarvo::platform::RunWakeup(7));
    ASSERT_EQ(g_calls.size(), 3u);
    EXPECT_EQ(g_calls[2].who, "waker");
    EXPECT_EQ(g_calls[2].state, 7);
    EXPECT_NE(g_calls[0].thread, std::this_thread::get_id());
    EXPECT_EQ(g_calls[2].thread, g_calls[0].thread);

    ASSERT_EQ(device_power_subscribe_poweroff(&PowerOffAgain, nullptr), 0);
    g_calls.clear();
    ASSERT_TRUE(tarvo::platform::RunPowerOff(1));
    ASSERT_EQ(g_calls.size(), 3u);
    EXPECT_EQ(g_calls[2].who, "waker");
    EXPECT_EQ(g_calls[2].state, 2);
}

}  // namespace
