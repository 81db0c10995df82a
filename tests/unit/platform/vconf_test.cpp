#include <tarvo/call_scope.h>
#include <vconf.h>

#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using tarvo::test::TempRoot;
using tarvo::test::WaitUntil;

TEST(VconfStore, WrongTypesAndPathsFailNoTempFileStaysBehindAndAReaderSeesOneWholeValue) {
    TempRoot root;
    ASSERT_EQ(vconf_set_int("db/test/count", 3), 0);
    ASSERT_EQ(vconf_set_dbl("db/test/ratio", 0.1), 0);
    int count = 0;
    EXPECT_EQ(vconf_get_bool("db/test/count", &count), -1);
    EXPECT_EQ(vconf_get_int("db/test/ratio", &count), -1);
    EXPECT_EQ(vconf_get_str("db/test/count"), nullptr);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(vconf_set_int("other/test", 1), -1);
    EXPECT_EQ(vconf_set_int("db/../escape", 1), -1);
    for (const auto& entry : std::filesystem::directory_iterator(root.At("/var/vconf/db/test"))) {
        EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();
    }

    // A reader racing a writer sees one whole value or the other.
    const std::string first(64 * 1024, 'a');
    const std::string second = std::string(32 * 1024, 'b') + std::string(16 * 1024, 'c');
    ASSERT_EQ(vconf_set_str("db/test/long", first.c_str()), 0);
    std::atomic<bool> writing{true};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) vconf_set_str("db/test/long", (i % 2 == 0 ? second : first).c_str());
        writing = false;
    });
    int reads = 0;
    int torn = 0;
    while (writing || reads < 100) {
        char* value = vconf_get_str("db/test/long");
        if (value == nullptr || (value != first && value != second)) ++torn;
        std::free(value);
        ++reads;
    }
    writer.join();
    EXPECT_EQ(torn, 0) << "of " << reads << " reads";
}

// Each change is seen by the very next read, though all come within the second of the read
// before, when an in-place edit of the same size may leave the file's times as they were.
TEST(VconfStore, EveryChangeOfAKeyFileShowsAtTheNextReadWhileOtherKeysOfItsFolderChange) {
    TempRoot root;
    const std::string file = root.At("/var/vconf/db/test/mode");
    const auto mode = [] {
        std::unique_ptr<char, decltype(&std::free)> value(vconf_get_str("db/test/mode"), &std::free);
        return std::string(value != nullptr ? value.get() : "(none)");
    };
    const auto key = [](const std::string& value) { return R"({"type":"string","value":")" + value + "\"}"; };
    ASSERT_EQ(vconf_set_str("db/test/mode", "amber"), 0);
    EXPECT_EQ(mode(), "amber");
    EXPECT_EQ(mode(), "amber");
    tarvo::test::WriteFile(file, key("coral"));
    EXPECT_EQ(mode(), "coral");
    tarvo::test::WriteFile(file + ".new", key("ivory"));
    std::filesystem::rename(file + ".new", file);
    EXPECT_EQ(mode(), "ivory");
    std::filesystem::remove(file);
    EXPECT_EQ(mode(), "(none)");
    tarvo::test::WriteFile(file, key("olive"));
    EXPECT_EQ(mode(), "olive");

    ASSERT_EQ(vconf_set_int("db/test/count", 0), 0);
    std::thread writer([] {
        for (int i = 1; i <= 300; ++i) vconf_set_int("db/test/count", i);
    });
    int wrong = 0;
    for (int i = 0, last = 0, count = -1; i < 300; ++i, last = count) {
        wrong += mode() != "olive" || vconf_get_int("db/test/count", &count) != 0 || count < last;
    }
    writer.join();
    int count = -1;
    EXPECT_EQ(vconf_get_int("db/test/count", &count), 0);
    EXPECT_EQ(count, 300);
    EXPECT_EQ(wrong, 0);

    // Inside a client call a key is looked at once, yet a set by this process shows at once.
    {
        tarvo::platform::CallScope call;
        EXPECT_EQ(mode(), "olive");
        tarvo::test::WriteFile(file, key("amber"));  // another process's write
        EXPECT_EQ(mode(), "olive");
        ASSERT_EQ(vconf_set_str("db/test/mode", "coral"), 0);
        EXPECT_EQ(mode(), "coral");
    }
    tarvo::test::WriteFile(file, key("ivory"));
    EXPECT_EQ(mode(), "ivory");

    // A folder put in place of one further up shows too, if not at once.
    std::filesystem::rename(root.At("/var/vconf/db"), root.At("/var/vconf/old"));
    tarvo::test::WriteFile(file, key("slate"));
    EXPECT_TRUE(WaitUntil([&] { return mode() == "slate"; }, std::chrono::seconds(3)));
}

// Records every delivery with the thread it came on.
struct Recorder {
    struct Delivery {
        std::string name;
        int type, value;
        std::thread::id thread;
    };
    mutable std::mutex mutex;  // guards deliveries
    std::vector<Delivery> deliveries;

    static void Callback(keynode_t* node, void* data) {
        auto* self = static_cast<Recorder*>(data);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->deliveries.push_back({vconf_keynode_get_name(node), vconf_keynode_get_type(node),
                                    vconf_keynode_get_int(node), std::this_thread::get_id()});
    }
    std::vector<Delivery> Seen() const {
        std::lock_guard<std::mutex> lock(mutex);
        return deliveries;
    }
    size_t Count() const { return Seen().size(); }
};

class VconfNotification : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(vconf_notify_key_changed("memory/test/marker", &Recorder::Callback, &marker), 0);
    }
    // Registrations outlive the fixture's recorders when several cases share a process.
    void TearDown() override {
        for (const char* key : {"memory/test/marker", "memory/dnet/status", "db/test/count"}) {
            vconf_ignore_key_changed(key, &Recorder::Callback);
        }
    }
    // Notifications arrive in order, so once the marker's arrives, every earlier one has.
    void SetMarkerAndWait() {
        const size_t before = marker.Count();
        ASSERT_EQ(vconf_set_int("memory/test/marker", 1), 0);
        ASSERT_TRUE(WaitUntil([&] { return marker.Count() > before; }));
    }

    TempRoot root;
    Recorder recorder;
    Recorder marker;
};

TEST_F(VconfNotification, EverySetOfAWatchedKeyFromAnyProcessNotifiesOnAnotherThreadButTempFilesDoNot) {
    // Watched before its folder exists.
    ASSERT_FALSE(std::filesystem::exists(root.At("/run/vconf/memory/dnet")));
    ASSERT_EQ(vconf_notify_key_changed("memory/dnet/status", &Recorder::Callback, &recorder), 0);
    ASSERT_EQ(vconf_set_int("memory/dnet/status", 3), 0);
    ASSERT_EQ(vconf_set_int("memory/dnet/status", 3), 0);
    ASSERT_TRUE(WaitUntil([&] { return recorder.Count() == 2; }));
    // Neither a temp file nor another key of the folder notifies.
    tarvo::test::WriteFile(root.At("/run/vconf/memory/dnet/.status.tmp"), "{}");
    ASSERT_EQ(vconf_set_str("memory/dnet/other", "x"), 0);
    SetMarkerAndWait();

    ASSERT_EQ(recorder.Count(), 2u);
    const Recorder::Delivery first = recorder.Seen()[0];
    EXPECT_EQ(first.name, "memory/dnet/status");
    EXPECT_EQ(first.type, VCONF_TYPE_INT);
    EXPECT_EQ(first.value, 3);
    EXPECT_NE(first.thread, std::this_thread::get_id());
    EXPECT_EQ(marker.Seen()[0].thread, first.thread);

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(vconf_set_int("memory/dnet/status", 9) == 0 ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_TRUE(WaitUntil([&] { return recorder.Count() == 3; }));
    EXPECT_EQ(recorder.Seen()[2].value, 9);
}

void ThrowingCallback(keynode_t*, void*) { throw std::runtime_error("watcher failed"); }

TEST_F(VconfNotification, DoubleRegistrationDeliversOnceIgnoreStopsItAndAThrowingWatcherHarmsNoOther) {
    Recorder other;
    ASSERT_EQ(vconf_notify_key_changed("db/test/count", &ThrowingCallback, nullptr), 0);
    ASSERT_EQ(vconf_notify_key_changed("db/test/count", &Recorder::Callback, &recorder), 0);
    ASSERT_EQ(vconf_notify_key_changed("db/test/count", &Recorder::Callback, &recorder), 0);
    ASSERT_EQ(vconf_notify_key_changed("db/test/count", &Recorder::Callback, &other), 0);
    ASSERT_EQ(vconf_set_int("db/test/count", 1), 0);
    SetMarkerAndWait();
    EXPECT_EQ(recorder.Count(), 1u);
    EXPECT_EQ(other.Count(), 1u);

    EXPECT_EQ(vconf_ignore_key_changed("db/test/count", &Recorder::Callback), 0);
    ASSERT_EQ(vconf_set_int("db/test/count", 2), 0);
    SetMarkerAndWait();
    EXPECT_EQ(recorder.Count() + other.Count(), 2u);
    vconf_ignore_key_changed("db/test/count", &ThrowingCallback);
}

}  // namespace
