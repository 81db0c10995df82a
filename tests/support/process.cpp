#include "process.h"

#include "tarvo_test.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace tarvo::test {

namespace {

std::vector<std::string> MergedEnvironment(const std::map<std::string, std::string>& env) {
    std::map<std::string, std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        if (equals != std::string::npos) merged[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const auto& [name, value] : env) merged[name] = value;
    std::vector<std::string> out;
    for (const auto& [name, value] : merged) out.push_back(name + "=" + value);
    return out;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (auto& text : strings) out.push_back(text.data());
    out.push_back(nullptr);
    return out;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::map<std::string, std::string>& env, const std::string& log_prefix,
                           bool own_group)
    : m_outPath(log_prefix + ".out"), m_errPath(log_prefix + ".err") {
    std::vector<std::string> args = argv;
    std::vector<std::string> environment = MergedEnvironment(env);
    std::vector<char*> arg_pointers = Pointers(args);
    std::vector<char*> env_pointers = Pointers(environment);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);

    // The child starts with default signal handling, whatever the test process did.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                              (own_group ? POSIX_SPAWN_SETPGROUP : 0));

    if (posix_spawn(&m_pid, arg_pointers[0], &actions, &attributes, arg_pointers.data(),
                    env_pointers.data()) != 0) {
        m_pid = -1;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
    if (Started()) Terminate();
}

bool ChildProcess::m_Reap(bool block) {
    if (m_exitCode) return true;
    if (!Started()) return false;
    int status = 0;
    pid_t done = 0;
    do {
        done = waitpid(m_pid, &status, block ? 0 : WNOHANG);
    } while (done < 0 && errno == EINTR);
    if (done != m_pid) return false;
    m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
}

bool ChildProcess::Running() { return Started() && !m_Reap(false); }

bool ChildProcess::Signal(int signal_number) { return Running() && kill(m_pid, signal_number) == 0; }

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds timeout) {
    WaitUntil([this] { return m_Reap(false); }, timeout);
    return m_exitCode;
}

std::optional<int> ChildProcess::Terminate(std::chrono::milliseconds grace) {
    if (!Started()) return std::nullopt;
    if (Signal(SIGTERM) && !Wait(grace)) {
        kill(m_pid, SIGKILL);
        m_Reap(true);
    }
    m_Reap(true);
    return m_exitCode;
}

std::string ChildProcess::Stdout() const { return ReadFile(m_outPath); }
std::string ChildProcess::Stderr() const { return ReadFile(m_errPath); }

RunResult RunProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                     const std::string& log_prefix, std::chrono::milliseconds timeout) {
    ChildProcess child(argv, env, log_prefix);
    RunResult result;
    if (!child.Started()) return result;
    result.exit_code = child.Wait(timeout);
    if (!result.exit_code) child.Terminate(std::chrono::milliseconds(500));
    result.out = child.Stdout();
    result.err = child.Stderr();
    return result;
}

}  // namespace tarvo::test
