// Counting semaphore, recursive mutex and the millisecond tick of the base library.
#include <Sedge/Sedge.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Sedge {

struct TCSemaphore::State {
    std::mutex mutex;  // guards count
    std::condition_variable posted;
    long count = 0;
};

TCSemaphore::TCSemaphore() : m_state(std::make_unique<State>()) {}
TCSemaphore::~TCSemaphore() = default;

bool TCSemaphore::Create(int initial) {
    if (initial < 0) return false;
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->count = initial;
    return true;
}

bool TCSemaphore::Destroy() { return true; }

bool TCSemaphore::Post() {
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        ++m_state->count;
    }
    m_state->posted.notify_one();
    return true;
}

bool TCSemaphore::Wait() {
    std::unique_lock<std::mutex> lock(m_state->mutex);
    m_state->posted.wait(lock, [this] { return m_state->count > 0; });
    --m_state->count;
    return true;
}

bool TCSemaphore::TimedWait(unsigned long ms) {
    std::unique_lock<std::mutex> lock(m_state->mutex);
    if (!m_state->posted.wait_for(lock, std::chrono::milliseconds(ms),
                                  [this] { return m_state->count > 0; })) {
        return false;
    }
    --m_state->count;
    return true;
}

struct TCMutex::State {
    std::recursive_mutex mutex;  // guards whatever the TCMutex's owner puts under it
};

TCMutex::TCMutex() : m_state(std::make_unique<State>()) {}
TCMutex::~TCMutex() = default;

bool TCMutex::Create() { return true; }
bool TCMutex::Destroy() { return true; }

bool TCMutex::Lock() {
    m_state->mutex.lock();
    return true;
}

bool TCMutex::Unlock() {
    m_state->mutex.unlock();
    return true;
}

unsigned long TCAlarm::GetTickCount() {
    const auto since_boot = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<unsigned long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(since_boot).count());
}

}  // namespace Sedge
