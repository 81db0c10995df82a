// Device power: subscriptions in order and the one power thread that runs them.
// The registry is made on first use and never destroyed.
#include <device/power.h>
#include <tarvo/platform.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

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

    // Returns once every callback of `event` has returned.
    bool Run(PowerEvent event, int state) {
        if (std::this_thread::get_id() == m_thread_id) {
            RunCallbacks(event, state);  // a callback that triggers power itself
            return true;
        }
        std::packaged_task<void()> task([this, event, state] { RunCallbacks(event, state); });
        std::future<void> done = task.get_future();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_jobs.push_back(std::move(task));
        }
        m_wake.notify_one();
        done.wait();
        return true;
    }

  private:
    PowerRegistry() {
        std::thread worker([this] { Loop(); });
        m_thread_id = worker.get_id();
        worker.detach();
    }

    void Loop() {
        while (true) {
            std::packaged_task<void()> job;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_wake.wait(lock, [this] { return !m_jobs.empty(); });
                job = std::move(m_jobs.front());
                m_jobs.pop_front();
            }
            job();
        }
    }

    void RunCallbacks(PowerEvent event, int state) {
        std::vector<Subscription> subscriptions;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            subscriptions = m_subscriptions;
        }
        for (const Subscription& s : subscriptions) {
            if (s.event == event) s.cb(state, s.user_data);
        }
    }

    std::mutex m_mutex;  // guards m_subscriptions, m_jobs
    std::condition_variable m_wake;
    std::vector<Subscription> m_subscriptions;
    std::deque<std::packaged_task<void()>> m_jobs;
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
