#include "power_cut_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "disclaimer_rows.h"

#ifdef TARVO_COVERAGE
extern "C" void __gcov_dump(void);
#endif

namespace fs = std::filesystem;

namespace tarvo::test {

namespace {

uint64_t BaseSeed() {
    if (const char* seed = std::getenv("TARVO_POWERCUT_SEED")) return std::strtoull(seed, nullptr, 10);
    return (static_cast<uint64_t>(std::random_device()()) << 32) | std::random_device()();
}

}  // namespace

void Reporter::Line(const std::string& text) {
    const std::string line = text + "\n";
    (void)!write(m_fd, line.data(), line.size());
}

void Reporter::Fail(const std::string& why) {
    Line("fail " + why);
    Exit(3);
}

void Reporter::Exit(int code) {
#ifdef TARVO_COVERAGE
    __gcov_dump();
#endif
    _exit(code);
}

void PowerCut::SetUp() {
    // The service's alarms and time-outs run short, as in the other server tests.
    setenv("TARVO_ALARM_SCALE", "0.05", 1);
    setenv("TARVO_TIMEOUT_SCALE", "0.2", 1);
}

void PowerCut::TearDown() {
    if (m_cloud) m_cloud->Terminate();
}

void PowerCut::StartCloud() {
    Json::Value ports;
    m_cloud = test::StartCloud(m_template, "DUID-POWER-CUT", ports);
    ASSERT_NE(m_cloud, nullptr);
}

int PowerCut::Cuts(int fallback) {
    const char* cuts = std::getenv("TARVO_POWERCUT_CUTS");
    return cuts != nullptr ? std::atoi(cuts) : fallback;
}

PowerCut::Child PowerCut::RunChild(const std::string& root, const ChildWork& work, const CutPlan* plan,
                                   uint64_t seed) {
    Child child;
    int fds[2];
    if (pipe(fds) != 0) {
        ADD_FAILURE() << "pipe failed";
        return child;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        setenv("TARVO_ROOT", root.c_str(), 1);
        Reporter report(fds[1]);
        if (plan != nullptr && !InstallCutVfs(*plan)) report.Fail("the cut VFS was refused");
        work(report, seed);
        report.Line("ops " + std::to_string(CutVfsOperations()));
        if (plan != nullptr) CutVfsLoseUnsynced();
        Reporter::Exit(0);
    }
    close(fds[1]);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    std::string text;
    // Until the child's end closes the pipe.
    const bool ended = WaitUntil(
        [&] {
            char buffer[4096];
            ssize_t got = 0;
            while ((got = read(fds[0], buffer, sizeof buffer)) > 0) text.append(buffer, got);
            return got == 0 || (errno != EAGAIN && errno != EINTR);
        },
        std::chrono::seconds(90));
    close(fds[0]);
    if (!ended) kill(pid, SIGKILL);
    waitpid(pid, &child.status, 0);
    child.lines = Lines(text);
    if (!ended) child.lines.push_back("fail the child did not end within 90 s");
    return child;
}

std::string PowerCut::Verify(const std::string& root, const Child& work, const Child& restart, bool cut) {
    std::ostringstream why;
    for (const Child* child : {&work, &restart}) {
        for (const std::string& line : child->lines) {
            if (line.rfind("fail ", 0) == 0) why << (child == &work ? "work: " : "restart: ") << line << "; ";
        }
    }
    const bool killed = WIFSIGNALED(work.status) && WTERMSIG(work.status) == SIGKILL;
    if (!(WIFEXITED(work.status) && WEXITSTATUS(work.status) == 0) && !(cut && killed)) {
        why << "the work ended with status " << work.status << "; ";
    }
    if (!WIFEXITED(restart.status) || WEXITSTATUS(restart.status) != 0) {
        why << "the restart ended with status " << restart.status << "; ";
    }
    if (!why.str().empty()) return why.str();

    // What the acknowledged calls allow for each id; a call cut short allows its new value too.
    std::map<std::string, std::set<std::string>> allowed;
    for (const auto& entry : m_initial) allowed[entry.first] = {entry.second};
    std::map<std::string, std::string> pending;
    bool reset_called = false;
    bool reset_done = false;
    for (const std::string& line : work.lines) {
        std::istringstream words(line);
        std::string word;
        words >> word;
        if (word == "call") {
            pending.clear();
            for (std::string item; words >> item;)
                pending[item.substr(0, item.find('='))] = item.substr(item.find('=') + 1);
        } else if (word == "ack") {
            // Also while a server merge runs: it keeps an answer given meanwhile.
            for (const auto& entry : pending) allowed[entry.first] = {entry.second};
            pending.clear();
        } else if (word == "call-reset") {
            reset_called = true;
        } else if (word == "reset") {
            reset_done = true;
        }
    }
    // An id never acknowledged may hold anything the server or the template gave it.
    for (const auto& entry : pending) {
        if (allowed.count(entry.first) != 0) allowed[entry.first].insert(entry.second);
    }

    std::string error;
    const auto check = QueryFile(StoreFile(root), "PRAGMA integrity_check", &error);
    const auto rows =
        QueryFile(StoreFile(root), "SELECT id, isAgreed FROM table_tarvo_data_disclaimer_info", &error);
    if (!error.empty()) return "the store cannot be read: " + error;
    if (check != std::vector<std::string>{"ok"}) return "the store is damaged: " + check.front();
    std::map<std::string, std::string> stored;
    for (const std::string& row : rows) stored[row.substr(0, row.find('='))] = row.substr(row.find('=') + 1);

    if (reset_done && !stored.empty()) why << "a finished reset left " << stored.size() << " records; ";
    for (const auto& entry : allowed) {
        const auto found = stored.find(entry.first);
        if (found == stored.end()) {
            if (!reset_called) why << entry.first << " is gone; ";
        } else if (entry.second.count(found->second) == 0) {
            why << entry.first << " holds " << found->second << " where " << *entry.second.begin()
                << " was acknowledged; ";
        }
    }

    std::string mirror_text;
    std::string default_status;
    for (const std::string& line : restart.lines) {
        if (line.rfind("mirror ", 0) == 0) mirror_text = line.substr(7);
        if (line.rfind("default ", 0) == 0) default_status = line.substr(8);
    }
    const Json::Value mirror = mirror_text.empty() ? Json::Value(Json::objectValue) : ParseText(mirror_text);
    if (!mirror.isObject()) return why.str() + "the mirror is no object: " + mirror_text;
    for (const std::string& id : mirror.getMemberNames()) {
        const auto found = stored.find(id);
        const std::string value = found == stored.end() ? "" : (found->second == "1" ? "true" : "false");
        if (mirror[id].asString() != value) {
            why << "the mirror holds " << id << " " << mirror[id].asString() << ", the store '" << value
                << "'; ";
        }
    }
    // An id a client could answer is available, so the mirror lists it.
    for (const auto& entry : allowed) {
        if (stored.count(entry.first) != 0 && !mirror.isMember(entry.first)) {
            why << "the mirror lacks " << entry.first << "; ";
        }
    }
    const bool both = stored["tnc"] == "1" && stored["pp"] == "1";
    // Unset until both were first agreed.
    if (both ? default_status != "1" : default_status != "0" && default_status != "-99") {
        why << "the default agreement key is " << default_status << " with tnc and pp "
            << (both ? "" : "not ") << "agreed; ";
    }
    return why.str();
}

void PowerCut::RunCuts(const ChildWork& work, const ChildWork& restart, int cuts) {
    const uint64_t base = BaseSeed();
    if (fs::exists(StoreFile(m_template))) {
        for (const std::string& row :
             QueryStore(m_template, "SELECT id, isAgreed FROM table_tarvo_data_disclaimer_info"))
            m_initial[row.substr(0, row.find('='))] = row.substr(row.find('=') + 1);
    }
    const auto once = [&](const CutPlan* plan, uint64_t seed, uint64_t* operations) {
        std::string root = (fs::temp_directory_path() / "tarvo-cut-XXXXXX").string();
        if (mkdtemp(root.data()) == nullptr) return std::string("mkdtemp failed");
        fs::copy(m_template.Path(), root, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        const Child worked = RunChild(root, work, plan, seed);
        const Child restarted = RunChild(root, restart, nullptr, seed);
        std::string why = Verify(root, worked, restarted, plan->cutAt != 0);
        for (const std::string& line : worked.lines) {
            if (operations != nullptr && line.rfind("ops ", 0) == 0)
                *operations = std::stoull(line.substr(4));
        }
        if (why.empty()) {
            std::error_code ignored;
            fs::remove_all(root, ignored);
        } else {
            why += " (files kept in " + root + ")";
        }
        return why;
    };
    // A run without a cut counts the operations that the cuts then choose from.
    uint64_t operations = 0;
    const CutPlan never;
    const std::string clean = once(&never, base, &operations);
    ASSERT_EQ(clean, "") << "without a cut, seed " << base;
    ASSERT_GT(operations, 0u);
    // A replay takes the count of the run it replays: a server's timing may change it a little.
    if (const char* replayed = std::getenv("TARVO_POWERCUT_OPERATIONS"))
        operations = std::strtoull(replayed, nullptr, 10);
    int failures = 0;
    for (int i = 0; i < cuts && failures < 3; ++i) {
        const uint64_t seed = base + i;
        std::mt19937_64 random(seed);
        CutPlan plan;
        plan.cutAt = 1 + random() % (operations + operations / 10);
        plan.torn = random() % 2 == 0;
        plan.seed = random();
        const std::string why = once(&plan, seed, nullptr);
        if (!why.empty()) {
            ++failures;
            ADD_FAILURE() << "cut at operation " << plan.cutAt << " of about " << operations
                          << (plan.torn ? ", torn" : "") << ": " << why
                          << "\nreplay with TARVO_POWERCUT_SEED=" << seed
                          << " TARVO_POWERCUT_CUTS=1 TARVO_POWERCUT_OPERATIONS=" << operations;
        }
    }
    std::printf("%d cuts over about %llu operations, first seed %llu\n", cuts,
                static_cast<unsigned long long>(operations), static_cast<unsigned long long>(base));
}

}  // namespace tarvo::test
