// A child process of a benchmark: started with posix_spawn, its stdout and stderr written to files,
// ended at destruction (SIGTERM, a bounded wait, then SIGKILL). Used from one thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarvo {
namespace bench {

class ChildProcess {
  public:
    // Runs argv[0] (a path) with this process's environment plus `env`; output goes to
    // `log_prefix`.out and `log_prefix`.err.
    ChildProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                 const std::string& log_prefix);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Started() const { return m_pid > 0; }
    pid_t Pid() const { return m_pid; }
    bool Running();
    // The exit code (128 + N when killed by signal N), or nullopt if it still runs after `timeout`.
    std::optional<int> Wait(std::chrono::milliseconds timeout);
    // SIGTERM, then SIGKILL after `grace`.
    void Terminate(std::chrono::milliseconds grace = std::chrono::seconds(5));
    std::string Stdout() const;
    std::string Stderr() const;

  private:
    bool m_Reap(bool block);

    pid_t m_pid = -1;
    std::optional<int> m_exitCode;
    std::string m_outPath;
    std::string m_errPath;
};

// Polls `done` every millisecond until it holds or `timeout` passes.
bool WaitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(20));

// The whole file, empty when it cannot be read.
std::string ReadFile(const std::string& path);

}  // namespace bench
}  // namespace tarvo
