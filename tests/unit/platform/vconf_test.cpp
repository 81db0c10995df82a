#include <vconf.h>

#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using tarvo::test::TempRoot;
using tarvo::test::WaitUntil;

TEST(VconfStore, WrongTypesAndPathsFailAndNoTempFileStaysBehind) {
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
}

TEST(VconfStore, AReaderRacingAWriterSeesOneWholeValueOrTheOther) {
    TempRoot root;
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
