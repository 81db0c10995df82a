// Base library of the television: events, messages, locks and alarms.
// TCMutex is recursive. TCAlarm posts its callback as a job to the worker it was
// created with, so the callback is serialised with that worker's events.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Sedge {

// Something that runs posted functions one at a time on a thread of its own.
class TCEventIO {
  public:
    virtual ~TCEventIO() = default;
    virtual bool PostFunction(std::function<void()> fn) = 0;
};

class TCData {
  public:
    TCData() = default;
    ~TCData() = default;
    Json::Value json;
    // One machine word: an integer or a C-string pointer, as the event number decides.
    intptr_t param = 0;
};

class TCEvent {
  public:
    TCEvent() = default;
    TCEvent(const TCEvent& other) = default;
    TCEvent& operator=(const TCEvent& other) = default;
    virtual ~TCEvent() = default;

    TCEventIO* target = nullptr;
    int32_t type = 0;
    bool flag = false;
    TCData data;
};

class TCMessage {
  public:
    TCMessage() = default;
    TCMessage(const TCMessage& other) = default;
    TCMessage& operator=(const TCMessage& other) = default;
    ~TCMessage() = default;

    Json::Value json;
    std::string type;
};

class TCSemaphore {
  public:
    TCSemaphore();
    ~TCSemaphore();
    bool Create(int initial = 0);
    bool Destroy();
    bool Post();
    bool Wait();
    // False when the time-out passed without a post.
    bool TimedWait(unsigned long ms);

  private:
    struct State;
    std::unique_ptr<State> m_state;
};

// Recursive: the holder may lock again; each Lock needs its Unlock.
class TCMutex {
  public:
    TCMutex();
    ~TCMutex();
    bool Create();
    bool Destroy();
    bool Lock();
    bool Unlock();

  private:
    struct State;
    std::unique_ptr<State> m_state;
    TCSemaphore m_semaphore;
};

// Holds a TCMutex for one scope, so an exception never leaves it held.
class TCMutexGuard {
  public:
    explicit TCMutexGuard(TCMutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~TCMutexGuard() { m_mutex.Unlock(); }
    TCMutexGuard(const TCMutexGuard&) = delete;
    TCMutexGuard& operator=(const TCMutexGuard&) = delete;

  private:
    TCMutex& m_mutex;
};

// One-shot alarm. Intervals are scaled by TARVO_ALARM_SCALE (default 1). A callback
// whose arming was replaced by Reset or Destroy before it ran does nothing.
class TCAlarm {
  public:
    TCAlarm();
    ~TCAlarm();
    bool Create(TCEventIO* io, unsigned long ms, unsigned long flag);
    void SetAlarmCallback(bool (*fn)(void*), void* arg);
    // Reset(ms, 1) arms once for ms milliseconds; Reset(0, 0) disarms.
    bool Reset(unsigned long ms, unsigned long flag);
    bool Destroy();
    static unsigned long GetTickCount();

    bool m_bCreated = false;

  private:
    struct State;
    std::shared_ptr<State> m_state;
};

}  // namespace Sedge
