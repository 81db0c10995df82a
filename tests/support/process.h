// A child process for end-to-end tests: started with posix_spawn, its stdout and stderr
// written to files, and ended at destruction (SIGTERM, a bounded wait, then SIGKILL).
// Used from the test's thread only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarvo::test {

class ChildProcess {
  public:
    // Runs argv[0] (a path) with the current environment plus `env`, in a process group of its
    // own when `own_group`; output goes to files named after `log_prefix` (".out", ".err").
    ChildProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                 const std::string& log_prefix, bool own_group = false);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Started() const { return m_pid > 0; }
    pid_t Pid() const { return m_pid; }
    // True while the process has not exited.
    bool Running();
    bool Signal(int signal_number);
    // The exit code (128 + N when killed by signal N), or nullopt if it still runs.
    std::optional<int> Wait(std::chrono::milliseconds timeout);
    // SIGTERM, then SIGKILL after `grace`; the exit code.
    std::optional<int> Terminate(std::chrono::milliseconds grace = std::chrono::seconds(5));

    std::string Stdout() const;
    std::string Stderr() const;

  private:
    bool m_Reap(bool block);

    pid_t m_pid = -1;
    std::optional<int> m_exitCode;
    std::string m_outPath;
    std::string m_errPath;
};

struct RunResult {
    std::optional<int> exit_code;  // nullopt: it did not end in time and was killed
    std::string out;
    std::string err;
};

// Runs a program to its end (killed after `timeout`).
RunResult RunProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                     const std::string& log_prefix,
                     std::chrono::milliseconds timeout = std::chrono::seconds(30));

}  // namespace tarvo::test
