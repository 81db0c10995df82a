// Test hook: while a LogCapture lives, every platform log line is also kept in memory.
// Lines arrive from any thread; the capture's own mutex guards them, so any thread may read.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace tarvo {
namespace platform {

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> Lines() const;
    bool Contains(const std::string& text) const;
    size_t Count(const std::string& text) const;
    // Waits until a line containing `text` has been logged, up to `timeout`.
    bool WaitFor(const std::string& text, std::chrono::milliseconds timeout) const;

  private:
    struct State;
    std::shared_ptr<State> m_state;
};

}  // namespace platform
}  // namespace tarvo
