// The span of one client call on its thread. Its log lines are held and written together when it
// ends (see LogBatch), and each device file it reads (the profile, a vconf key) is checked once:
// every record of one answer is judged on the same profile, and an unchanged file costs one check
// per call instead of one per record. A change finished before a call starts is always seen by it.
// Scopes nest; the outermost one counts.
#pragma once

#include <tarvo/log_batch.h>

#include <cstdint>

namespace tarvo {
namespace platform {

class CallScope {
  public:
    CallScope();
    ~CallScope();
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

    // The calling thread's current call: 0 outside any, a number no other call had inside one.
    static uint64_t Current();

  private:
    LogBatch m_batch;
};

}  // namespace platform
}  // namespace tarvo
