// One-shot alarms on one process-wide timer thread. At expiry the callback is posted
// as a job to the alarm's TCEventIO; the job runs only if its arming is still current.
#include <Sedge/Sedge.h>

#include "runtime_support.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

namespace Sedge {

namespace {

using Clock = std::chrono::steady_clock;

// The process's one timer thread; leaked on purpose so exit never tears down a running thread.
class AlarmTimer {
  public:
    static AlarmTimer& Get() {
        static AlarmTimer* const timer = new AlarmTimer();
        return *timer;
    }

    uint64_t Schedule(Clock::time_point when, std::function<void()> fire) {
        uint64_t id;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            id = ++m_lastId;
            m_due.emplace(when, id);
            m_entries.emplace(id, Entry{when, std::move(fire)});
        }
        m_wake.notify_one();
        return id;
    }

    void Cancel(uint64_t id) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto found = m_entries.find(id);
        if (found == m_entries.end()) return;
        m_due.erase({found->second.when, id});
        m_entries.erase(found);
    }

  private:
    struct Entry {
        Clock::time_point when;
        std::function<void()> fire;
    };

    AlarmTimer() {
        std::thread([this] { Run(); }).detach();
    }

    void Run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (true) {
            if (m_due.empty()) {
                m_wake.wait(lock);
                continue;
            }
            const auto next = *m_due.begin();
            if (Clock::now() < next.first) {
                m_wake.wait_until(lock, next.first);
                continue;
            }
            m_due.erase(m_due.begin());
            auto found = m_entries.find(next.second);
            std::function<void()> fire = std::move(found->second.fire);
            m_entries.erase(found);
            lock.unlock();
            try {
                fire();
            } catch (const std::exception& e) {
                TARVO_PLATFORM_LOG(DLOG_ERROR, "alarm expiry could not be posted: %s", e.what());
            }
            lock.lock();
        }
    }

    std::mutex m_mutex;  // guards m_lastId, m_due, m_entries
    std::condition_variable m_wake;
    uint64_t m_lastId = 0;
    std::set<std::pair<Clock::time_point, uint64_t>> m_due;
    std::map<uint64_t, Entry> m_entries;
};

}  // namespace

// Shared with the timer entry and posted jobs, so it outlives a TCAlarm destroyed mid-expiry.
struct TCAlarm::State {
    std::mutex mutex;  // guards every member below
    TCEventIO* io = nullptr;
    bool created = false;
    bool (*callback)(void*) = nullptr;
    void* arg = nullptr;
    uint64_t sequence = 0;  // bumped by every Reset and Destroy
    bool armed = false;
    uint64_t timerId = 0;
};

namespace {

// Disarms under the state's lock; the caller holds it.
template <typename State>
void DisarmLocked(State& state) {
    ++state.sequence;
    state.armed = false;
    if (state.timerId != 0) {
        AlarmTimer::Get().Cancel(state.timerId);
        state.timerId = 0;
    }
}

}  // namespace

TCAlarm::TCAlarm() : m_state(std::make_shared<State>()) {}

TCAlarm::~TCAlarm() { Destroy(); }

bool TCAlarm::Create(TCEventIO* io, unsigned long /*ms*/, unsigned long /*flag*/) {
    if (io == nullptr) {
        TARVO_PLATFORM_LOG(DLOG_ERROR, "alarm create: no event io");
        return false;
    }
    std::lock_guard<std::mutex> lock(m_state->mutex);
    DisarmLocked(*m_state);
    m_state->io = io;
    m_state->created = true;
    m_bCreated = true;
    return true;
}

void TCAlarm::SetAlarmCallback(bool (*fn)(void*), void* arg) {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->callback = fn;
    m_state->arg = arg;
}

bool TCAlarm::Reset(unsigned long ms, unsigned long flag) {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    if (!m_state->created) return false;
    DisarmLocked(*m_state);
    if (flag == 0) return true;

    const double scaled =
        std::ceil(static_cast<double>(ms) * tarvo::platform::ScaleFromEnv("TARVO_ALARM_SCALE"));
    const auto when = Clock::now() + std::chrono::milliseconds(static_cast<long long>(scaled));
    const uint64_t sequence = m_state->sequence;
    m_state->armed = true;
    std::weak_ptr<State> weak = m_state;
    m_state->timerId = AlarmTimer::Get().Schedule(when, [weak, sequence] {
        std::shared_ptr<State> state = weak.lock();
        if (!state) return;
        TCEventIO* io;
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            if (state->sequence != sequence || !state->armed) return;
            state->timerId = 0;
            io = state->io;
        }
        io->PostFunction([state, sequence] {
            bool (*callback)(void*);
            void* arg;
            {
                std::lock_guard<std::mutex> lock(state->mutex);
                // A Reset or Destroy since the expiry replaced this arming.
                if (state->sequence != sequence || !state->armed) return;
                state->armed = false;
                callback = state->callback;
                arg = state->arg;
            }
            if (callback != nullptr) callback(arg);
        });
    });
    return true;
}

bool TCAlarm::Destroy() {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    DisarmLocked(*m_state);
    m_state->created = false;
    m_state->io = nullptr;
    m_bCreated = false;
    return true;
}

}  // namespace Sedge
