// While a LogBatch lives, the log lines its thread writes are held and then written to the log
// file with one write(2) when it ends: a client call's twenty lines cost one system call, not
// twenty. Batches nest (the outermost one writes). A crash signal (SIGSEGV, SIGBUS, SIGILL,
// SIGFPE, SIGABRT) or exit() writes every held line first, so a crash of the process loses none;
// only SIGKILL in the middle of a call can take that call's lines with it.
#pragma once

namespace tarvo {
namespace platform {

class LogBatch {
  public:
    LogBatch();
    ~LogBatch();
    LogBatch(const LogBatch&) = delete;
    LogBatch& operator=(const LogBatch&) = delete;
};

}  // namespace platform
}  // namespace tarvo
