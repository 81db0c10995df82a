// What the cloud's servers share: the disclaimer sets, the faults, the request record, what
// the agreement and log servers accepted, and the stop signal. Made once by main before any
// listener starts; each part locks itself, and ca_file is set before any listener starts.
#pragma once

#include "data_sets.h"
#include "faults.h"
#include "received.h"
#include "record.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace tarvo {
namespace cloud {

// Lets handlers that wait (a delay fault) end early when the process stops.
class StopSignal {
  public:
    // Waits up to `duration`; false when the stop came first.
    bool WaitFor(std::chrono::milliseconds duration) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return !m_cv.wait_for(lock, duration, [this] { return m_stopped; });
    }
    void Stop() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopped = true;
        }
        m_cv.notify_all();
    }

  private:
    std::mutex m_mutex;  // guards m_stopped
    std::condition_variable m_cv;
    bool m_stopped = false;
};

struct CloudContext {
    DataSets data;
    FaultTable faults;
    RequestRecord record;
    AgreementBook agreements;
    LogBook log_events;
    StopSignal stop;
    std::string ca_file;  // absolute path of the CA that signs the TLS servers' certificate
};

}  // namespace cloud
}  // namespace tarvo
