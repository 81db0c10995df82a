// The platform's runtime: the log, workers, alarms on a worker and power callbacks.
#include <Sedge/Sedge.h>
#include <bracken/ser.h>
#include <device/power.h>
#include <dlog.h>
#include <tarvo/log_batch.h>
#include <tarvo/log_capture.h>
#include <tarvo/platform.h>

#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using tarvo::platform::LogCapture;
using tarvo::test::TempRoot;
using tarvo::test::WaitUntil;

// Colour codes are for a terminal: the file gets the line without them, a test's capture as written.
TEST(PlatformLog, EachCallAppendsOneLineWithTimePriorityTagAndPidWithoutColourCodes) {
    TempRoot root;
    LogCapture capture;
    std::filesystem::remove_all(root.At("/var/log"));
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, "TarvoDataControl", "%s: \033[31m [%s:%d]%s\033[0m\n", "a.cpp", "Fn",
                 12, " text");
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "Other", "plain %d \033[1;33mbold\033[m \033]0;title", 5);
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "Other", "e");
    // Longer than the line buffer a thread starts with.
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "Long", "%s", std::string(9000, 'z').c_str());

    const std::string pid = std::to_string(getpid());
    const std::regex stamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})");
    std::istringstream file(tarvo::test::ReadFile(root.At("/var/log/tarvo.log")));
    std::vector<std::string> rest;
    for (std::string line; std::getline(file, line);) {
        EXPECT_TRUE(std::regex_match(line.substr(0, 23), stamp)) << line;
        rest.push_back(line.substr(std::min<size_t>(23, line.size())));
    }
    EXPECT_EQ(rest, (std::vector<std::string>{" W/TarvoDataControl(" + pid + "): a.cpp:  [Fn:12] text",
                                              " D/Other(" + pid + "): plain 5 bold \033]0;title",
                                              " E/Other(" + pid + "): e",
                                              " I/Long(" + pid + "): " + std::string(9000, 'z')}));
    EXPECT_EQ(capture.Lines().at(0), "a.cpp: \033[31m [Fn:12] text\033[0m");
}

// The log holds the device id, the signing input and server answers: the owner's only, whatever
// the umask and whatever mode an older file had. It turns over as a ring of files of a set size.
TEST(PlatformLog, TheFileIsTheOwnersOnlyAndTurnsOverAsARingOfBoundedFiles) {
    setenv("TARVO_LOG_MAX_BYTES", "1000", 1);
    setenv("TARVO_LOG_FILES", "3", 1);
    const mode_t umask_before = umask(0);
    TempRoot root;
    const std::string log = root.At("/var/log/tarvo.log");
    const auto mode = [](const std::string& path) {
        struct stat st {};
        EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
        return st.st_mode & 07777;
    };
    tarvo::test::WriteFile(log, "");
    chmod(log.c_str(), 0644);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "Ring", "first");
    EXPECT_EQ(mode(log), 0600u);
    std::filesystem::remove(log);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "Ring", "first again");
    EXPECT_EQ(mode(log), 0600u);

    std::vector<std::string> written;
    for (int i = 0; i < 80; ++i) {
        written.push_back("line " + std::to_string(i) + " " + std::string(50, 'x'));
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "Ring", "%s", written.back().c_str());
    }
    umask(umask_before);
    EXPECT_FALSE(std::filesystem::exists(log + ".3"));
    std::vector<std::string> kept;
    for (const std::string& path : {log + ".2", log + ".1", log}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(mode(path), 0600u);
        const std::string text = tarvo::test::ReadFile(path);
        EXPECT_LE(text.size(), 1000u);
        if (path != log) {
            EXPECT_GT(text.size(), 850u) << "a file turns over only when the next line does not fit";
        }
        for (const std::string& line : tarvo::test::Lines(text))
            kept.push_back(line.substr(line.find("): ") + 3));
    }
    ASSERT_GT(kept.size(), 20u);
    ASSERT_LE(kept.size(), written.size());
    // The newest lines, in order, none lost between the files.
    EXPECT_EQ(kept, std::vector<std::string>(written.end() - static_cast<long>(kept.size()), written.end()));
}

// A client call's lines are held and written together when it ends: in order however many there
// are, and by a process that crashes in the middle of the call as well.
TEST(PlatformLog, ABatchWritesItsLinesWhenItEndsInOrderAndAlsoWhenTheProcessCrashes) {
    TempRoot root;
    const std::string log = root.At("/var/log/tarvo.log");
    const auto lines = [&] {
        std::vector<std::string> messages;
        std::istringstream file(tarvo::test::ReadFile(log));
        for (std::string line; std::getline(file, line);)
            messages.push_back(line.substr(line.find("): ") + 3));
        return messages;
    };
    std::vector<std::string> expected;
    {
        tarvo::platform::LogBatch batch;
        for (int i = 0; i < 400; ++i) {  // about 40 KB: more than one batch holds
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "Batch", "line %d %s", i, std::string(60, 'x').c_str());
            expected.push_back("line " + std::to_string(i) + " " + std::string(60, 'x'));
        }
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "Batch", "%s", std::string(20000, 'y').c_str());
        expected.push_back(std::string(20000, 'y'));
        {
            tarvo::platform::LogBatch inner;
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "Batch", "inner");
        }
        expected.push_back("inner");
        EXPECT_LT(lines().size(), expected.size());  // the last lines are still held
    }
    EXPECT_EQ(lines(), expected);

    // A fault the kernel raises (a trap instruction: illegal on x86-64 and 32-bit ARM, a breakpoint
    // on arm64) and an abort(), which the sanitizers leave to the process.
#if defined(__aarch64__)
    constexpr int kTrapSignal = SIGTRAP;
#else
    constexpr int kTrapSignal = SIGILL;
#endif
    for (const int signal : {kTrapSignal, SIGABRT}) {
        const pid_t child = fork();
        if (child == 0) {
            tarvo::platform::LogBatch batch;
            __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "Batch", "before crash %d", signal);
            if (signal == kTrapSignal) __builtin_trap();
            std::abort();
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
        expected.push_back("before crash " + std::to_string(signal));
        EXPECT_EQ(lines(), expected);
    }
}

TEST(Worker, OneWorkerPerNameRunsJobsInOrderOnOneThreadAndOutlivesThrowingJobs) {
    TempRoot root;
    LogCapture log;
    auto worker = bracken::ser::WorkerFactory::Get()->GetWorker("ordered");
    EXPECT_EQ(worker, bracken::ser::WorkerFactory::Get()->GetWorker("ordered"));
    EXPECT_NE(worker, bracken::ser::WorkerFactory::Get()->GetWorker("other"));

    worker->PostFunction([] { throw std::runtime_error("disk on fire"); });
    worker->PostFunction([] { throw 42; });
    std::mutex mutex;  // guards order and threads
    std::vector<int> order;
    std::set<std::thread::id> threads;
    for (int i = 0; i < 100; ++i) {
        bracken::ser::Job* job = new bracken::ser::Job([&, i] {
            std::lock_guard<std::mutex> lock(mutex);
            order.push_back(i);
            threads.insert(std::this_thread::get_id());
        });
        ASSERT_TRUE(worker->Do(job));
    }
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return order.size() == 100;
    }));
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
    EXPECT_EQ(threads.size(), 1u);
    EXPECT_TRUE(log.Contains("job threw: disk on fire"));
    EXPECT_EQ(log.Count("job threw:"), 2u);
}

bool CountFiring(void* arg) {
    ++*static_cast<std::atomic<int>*>(arg);
    return true;
}

class Alarm : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TARVO_ALARM_SCALE", "0.01", 1);
        ASSERT_TRUE(alarm.Create(worker.get(), 90000, 0));
        alarm.SetAlarmCallback(&CountFiring, &fired);
    }
    // True once every job posted so far has run.
    bool Drained() {
        auto done = std::make_shared<std::atomic<bool>>(false);
        worker->PostFunction([done] { *done = true; });
        return WaitUntil([done] { return done->load(); });
    }
    void WaitPast(unsigned long ms) {
        const unsigned long start = Sedge::TCAlarm::GetTickCount();
        ASSERT_TRUE(WaitUntil([&] { return Sedge::TCAlarm::GetTickCount() - start > ms; }));
    }

    TempRoot root;
    std::shared_ptr<bracken::ser::Worker> worker = bracken::ser::WorkerFactory::Get()->GetWorker("alarm");
    std::atomic<int> fired{0};
    Sedge::TCAlarm alarm;
};

TEST_F(Alarm, FiresOnceAfterTheScaledIntervalAndARearmReplacesTheLastArming) {
    const unsigned long armed_at = Sedge::TCAlarm::GetTickCount();
    ASSERT_TRUE(alarm.Reset(5000, 1));  // 50 ms at this scale
    ASSERT_TRUE(WaitUntil([&] { return fired.load() == 1; }));
    EXPECT_GE(Sedge::TCAlarm::GetTickCount() - armed_at, 50u);

    ASSERT_TRUE(alarm.Reset(3000, 1));
    ASSERT_TRUE(alarm.Reset(1000, 1));
    ASSERT_TRUE(WaitUntil([&] { return fired.load() == 2; }));
    WaitPast(100);
    ASSERT_TRUE(Drained());
    EXPECT_EQ(fired.load(), 2);
}

TEST_F(Alarm, NoCallbackArrivesAfterDisarmOrDestructionEvenWhenTheExpiryIsQueued) {
    // Hold the worker so that the expiries queue behind this job.
    auto open = std::make_shared<std::atomic<bool>>(false);
    worker->PostFunction([open] { WaitUntil([open] { return open->load(); }, std::chrono::seconds(20)); });
    ASSERT_TRUE(alarm.Reset(100, 1));  // 1 ms: expires while the worker is held
    auto doomed = std::make_unique<Sedge::TCAlarm>();
    ASSERT_TRUE(doomed->Create(worker.get(), 90000, 0));
    doomed->SetAlarmCallback(&CountFiring, &fired);
    ASSERT_TRUE(doomed->Reset(100, 1));
    WaitPast(50);
    ASSERT_TRUE(alarm.Reset(0, 0));
    doomed.reset();
    *open = true;
    ASSERT_TRUE(Drained());
    EXPECT_EQ(fired.load(), 0);

    // The same race many times, disarming from the worker itself as the service does.
    for (int i = 0; i < 50; ++i) {
        worker->PostFunction([&] {
            alarm.Reset(100, 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            alarm.Reset(0, 0);
        });
    }
    ASSERT_TRUE(Drained());
    ASSERT_TRUE(Drained());  // the expiries queued by those jobs
    EXPECT_EQ(fired.load(), 0);
}

// Written on the power thread, read after Run returns, which waits for the callbacks.
std::vector<std::pair<std::string, int>> g_calls;
std::vector<std::thread::id> g_threads;

int Record(const char* who, int state) {
    g_calls.emplace_back(who, state);
    g_threads.push_back(std::this_thread::get_id());
    return 1;
}
int First(int state, void*) { return Record("first", state); }
int Second(int state, void*) { return Record("second", state); }
int Waker(int state, void*) { return Record("waker", state); }
int PowerOffAgain(int state, void*) {
    // A callback that runs a power control itself must not deadlock.
    if (state == 1) tarvo::platform::RunWakeup(2);
    return 1;
}

TEST(DevicePower, CallbacksRunInSubscriptionOrderWithTheirStateOnOnePowerThread) {
    TempRoot root;
    ASSERT_EQ(device_power_subscribe_poweroff(&First, nullptr), 0);
    ASSERT_EQ(device_power_subscribe_wakeup(&Waker, nullptr), 0);
    ASSERT_EQ(device_power_subscribe_poweroff(&Second, nullptr), 0);
    EXPECT_NE(device_power_subscribe_poweroff(nullptr, nullptr), 0);
    ASSERT_TRUE(tarvo::platform::RunPowerOff(1 << 30));
    ASSERT_TRUE(tarvo::platform::RunWakeup(7));
    ASSERT_EQ(device_power_subscribe_poweroff(&PowerOffAgain, nullptr), 0);
    ASSERT_TRUE(tarvo::platform::RunPowerOff(1));

    using Call = std::pair<std::string, int>;
    EXPECT_EQ(g_calls, (std::vector<Call>{{"first", 1 << 30},
                                          {"second", 1 << 30},
                                          {"waker", 7},
                                          {"first", 1},
                                          {"second", 1},
                                          {"waker", 2}}));
    EXPECT_NE(g_threads.front(), std::this_thread::get_id());
    for (const auto& id : g_threads) EXPECT_EQ(id, g_threads.front());
}

}  // namespace
