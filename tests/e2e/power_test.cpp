// The real service through tarvo-service-host under the television's power controls, and
// the revised-terms flag that each start brings in step with the store.
#include "seeded_service.h"
#include "sync_fixture.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace tarvo::test {
namespace {

constexpr const char* kRevisedKey = "db/tarvodatacontrol/disclaimer_revised";

using PowerControl = SeededService;

TEST_F(PowerControl, PowerOffWithBit30KeepsTheStoreOpenAndWithoutItClosesIt) {
    for (int state : {0x40000000, 0x7FFFFFFF, 0x40000001}) {
        const auto ok = m_client.Control("power-off", state);
        ASSERT_TRUE(ok && (*ok)["ok"].asBool()) << state;
        EXPECT_EQ(Number(0)["number"], 3) << state;
    }

    // Every bit but bit 30.
    const auto closed = m_client.Control("power-off", ~0x40000000);
    ASSERT_TRUE(closed && (*closed)["ok"].asBool());
    for (int requester = 0; requester <= 4; ++requester) EXPECT_EQ(Number(requester)["number"], 0);
    EXPECT_EQ(Ordered(4, 0)["result"], false);
    EXPECT_EQ(ById("pp")["result"], false);
    EXPECT_FALSE(Ask("get revised disclaimers").isMember("disclaimers"));
    EXPECT_EQ(Agree("tnc", true)["result"], true);
    ExpectNoNotification();
    // Closing drops the model only; the rows stay in the file for the next start.
    EXPECT_EQ(QueryStore(m_root, "SELECT count(*) FROM table_tarvo_data_disclaimer_info"),
              std::vector<std::string>{"6"});

    // Closing a closed store is harmless, and a wake-up does not reopen it.
    const auto again = m_client.Control("power-off", 0);
    ASSERT_TRUE(again && (*again)["ok"].asBool());
    const auto woken = m_client.Control("wakeup", 0);
    ASSERT_TRUE(woken && (*woken)["ok"].asBool());
    EXPECT_EQ(Number(4)["number"], 0);
}

// The network monitor tells of a connection once; a wake-up that finds the network down makes it
// tell of the next one, which the cloud sees as a new sync.
TEST_F(Sync, AWakeupOfflineMakesTheNextConnectionSyncAgain) {
    BringNetworkUp();
    Notification("new_disclaimer_agree_changed");
    m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = false; });
    ASSERT_EQ(vconf_set_int("memory/dnet/status", 0), 0);
    ClearCloudRequests();
    auto notices = [&] {
        const Json::Value requests = CloudRequests();
        return std::count_if(requests.begin(), requests.end(), [](const Json::Value& r) {
            return r["path"] == "/apps/conf/v1/stacks/tarvoapp/checkversion";
        });
    };
    const auto woken = m_calls.Control("wakeup", 5);
    ASSERT_TRUE(woken && (*woken)["ok"].asBool());
    EXPECT_EQ(notices(), 0);

    BringNetworkUp();
    EXPECT_TRUE(WaitUntil([&] { return notices() == 1; }));
}

class RevisedFlag : public SeededService {
  protected:
    // Starts the service afresh over `rows` with the flag preset (-1: not set).
    void StartWith(const std::vector<DisclaimerRow>& rows, int preset) {
        StopService();
        std::filesystem::remove(StoreFile(m_root));
        ASSERT_TRUE(WriteDisclaimerRows(m_root, rows));
        if (preset < 0) {
            std::filesystem::remove(KeyFile());
        } else {
            ASSERT_EQ(vconf_set_int(kRevisedKey, preset), 0);
        }
        m_presetFile = FileId();
        StartService();
    }

    std::string KeyFile() const { return m_root.At(std::string("/var/vconf/") + kRevisedKey); }

    // Every write replaces the key's file by rename, so a write shows as a new inode.
    ino_t FileId() const {
        struct stat info {};
        return stat(KeyFile().c_str(), &info) == 0 ? info.st_ino : 0;
    }

    ino_t m_presetFile = 0;
};

TEST_F(RevisedFlag, EachStartWritesTheFlagOnlyWhenItChangesBetweenZeroAndOne) {
    std::vector<DisclaimerRow> unrevised = SeedRows();
    for (auto& row : unrevised) row.revised = false;
    std::vector<DisclaimerRow> revisedButUnavailable = unrevised;
    revisedButUnavailable.back().revised = true;  // the record this set cannot show

    StartWith(SeedRows(), -1);
    EXPECT_TRUE(WaitUntil([] { return VconfNumber(kRevisedKey) == 1; }));
    StartWith(unrevised, 1);
    EXPECT_TRUE(WaitUntil([] { return VconfNumber(kRevisedKey) == 0; }));
    StartWith(revisedButUnavailable, 1);
    EXPECT_TRUE(WaitUntil([] { return VconfNumber(kRevisedKey) == 0; }));

    // Values that must stay as they are. The reset runs the check once more on an empty store,
    // after the start's own check, and marks the end of both.
    struct Case {
        bool revised;
        int preset;
        int expected;
    };
    for (const Case& c : {Case{true, 2, 2}, Case{false, 2, 2}, Case{false, 0, 0}, Case{false, -1, -99}}) {
        StartWith(c.revised ? SeedRows() : unrevised, c.preset);
        Reset();
        EXPECT_EQ(VconfNumber(kRevisedKey), c.expected) << c.revised << " " << c.preset;
        EXPECT_EQ(FileId(), m_presetFile) << c.revised << " " << c.preset;
    }
}

}  // namespace
}  // namespace tarvo::test
