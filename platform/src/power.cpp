// Device power: subscriptions in order and the one power thread that runs them.
// The registry is made on first use and never destroyed.
#include <device/power.h>
#include <tarvo/platform.h>

#include "file_util.h"

#include <dlog.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using tarvo::platform::detail::kPlatformTag;

enum class PowerEvent { kPowerOff, kWakeup };

struct Subscription {
    PowerEvent event;
    device_power_cb cb;
    void* user_data;
};

class PowerRegistry {
  public:
    static PowerRegistry* Get() {
        static PowerRegistry* registry = new PowerRegistry();
        return registry;
    }

    int Subscribe(PowerEvent event, device_power_cb cb, void* user_data) {
        if (cb == nullptr) return -22;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_subscriptions.push_back(Subscription{event, cb, user_data});
        return 0;
    }

    // Returns once every callback of `event` has returned; false when one threw.
    bool Run(PowerEvent event, int state) {
        if (std::this_thread::get_id() == m_thread_id) {
            return RunCallbacks(event, state);  // a callback that triggers power itself
        }
        std::packaged_task<bool()> task([this, event, state] { return RunCallbacks(event, state); });
        std::future<bool> done = task.get_future();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_jobs.push_back(std::move(task));
        }
        m_wake.notify_one();
        return done.get();
    }

  private:
    PowerRegistry() {
        std::thread worker([this] { Loop(); });
        m_thread_id = worker.get_id();
        worker.detach();
    }

    void Loop() {
        while (true) {
            std::packaged_task<bool()> job;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_wake.wait(lock, [this] { return !m_jobs.empty(); });
                job = std::move(m_jobs.front());
                m_jobs.pop_front();
            }
            job();
        }
    }

    // Every subscriber runs even when an earlier one throws.
    bool RunCallbacks(PowerEvent event, int state) {
        std::vector<Subscription> subscriptions;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            subscriptions = m_subscriptions;
        }
        bool all_returned = true;
        for (const Subscription& s : subscriptions) {
            if (s.event != event) continue;
            try {
                s.cb(state, s.user_data);
            } catch (const std::exception& e) {
                __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "power callback threw: %s", e.what());
                all_returned = false;
            } catch (...) {
                __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "power callback threw");
                all_returned = false;
            }
        }
        return all_returned;
    }

    std::mutex m_mutex;  // guards m_subscriptions, m_jobs
    std::condition_variable m_wake;
    std::vector<Subscription> m_subscriptions;
    std::deque<std::packaged_task<bool()>> m_jobs;
    std::thread::id m_thread_id;  // written once before any job is queued
};

}  // namespace

extern "C" int device_power_subscribe_poweroff(device_power_cb cb, void* user_data) {
    return PowerRegistry::Get()->Subscribe(PowerEvent::kPowerOff, cb, user_data);
}

extern "C" int device_power_subscribe_wakeup(device_power_cb cb, void* user_data) {
    return PowerRegistry::Get()->Subscribe(PowerEvent::kWakeup, cb, user_data);
}

namespace tarvo {
namespace platform {

bool RunPowerOff(int state) { return PowerRegistry::Get()->Run(PowerEvent::kPowerOff, state); }

bool RunWakeup(int state) { return PowerRegistry::Get()->Run(PowerEvent::kWakeup, state); }

}  // namespace platform
}  // namespace tarvo
