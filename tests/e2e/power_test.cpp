// The real service through tarvo-service-host under the television's power controls, and
// the revised-terms flag that each start brings in step with the store.
#include "seeded_service.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tarvo {
namespace test {
namespace {

constexpr const char* kRevisedKey = "db/tarvodatacontrol/disclaimer_revised";

using PowerControl = SeededService;

TEST_F(PowerControl, PowerOffWithBit30KeepsTheStoreOpenAndWithoutItClosesIt) {
    for (int state : {0x40000000, 0x7FFFFFFF, 0x40000001}) {
        const auto ok = m_client.Control("power-off", state);
        ASSERT_TRUE(ok && (*ok)["ok"].asBool()) << state;
        EXPECT_EQ(Number(0)["number"], 3) << state;
    }
    EXPECT_EQ(LogCount("m_PowerOffCallback BEGIN 1073741824"), 1u);
    EXPECT_EQ(LogCount("m_PowerOffCallback END"), 3u);
    EXPECT_EQ(LogCount("close database"), 0u);

    // Every bit but bit 30.
    const auto closed = m_client.Control("power-off", ~0x40000000);
    ASSERT_TRUE(closed && (*closed)["ok"].asBool());
    EXPECT_EQ(LogCount("close database"), 1u);
    for (int requester = 0; requester <= 4; ++requester) EXPECT_EQ(Number(requester)["number"], 0);
    EXPECT_EQ(Ordered(4, 0)["result"], false);
    EXPECT_EQ(ById("pp")["result"], false);
    EXPECT_FALSE(Ask("get revised disclaimers").isMember("disclaimers"));
    EXPECT_EQ(Agree("tnc", true)["result"], true);
    ExpectNoNotification();
    // Closing drops the model only; the rows stay in the file for the next start.
    EXPECT_EQ(QueryStore(m_root, "SELECT count(*) FROM table_tarvo_data_disclaimer_info"),
              std::vector<std::string>{"6"});

    const auto again = m_client.Control("power-off", 0);
    ASSERT_TRUE(again && (*again)["ok"].asBool());
    EXPECT_EQ(LogCount("close database"), 2u);
    // A wake-up does not reopen the store.
    const auto woken = m_client.Control("wakeup", 0);
    ASSERT_TRUE(woken && (*woken)["ok"].asBool());
    EXPECT_EQ(Number(4)["number"], 0);
}

TEST_F(PowerControl, WakeupChecksTheNetworkAndStartsWorkOnlyWhenItIsUp) {
    const size_t failures = LogCount("network connect fail!");
    const auto down = m_client.Control("wakeup", 5);
    ASSERT_TRUE(down && (*down)["ok"].asBool());
    EXPECT_EQ(LogCount("m_WakeupCallback BEGIN 5"), 1u);
    EXPECT_EQ(LogCount("network connect fail!"), failures + 1);
    EXPECT_EQ(LogCount("NETWORK is connectd "), 0u);

    m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = true; });
    const auto up = m_client.Control("wakeup", 6);
    ASSERT_TRUE(up && (*up)["ok"].asBool());
    EXPECT_EQ(LogCount("NETWORK is connectd "), 1u);
    EXPECT_TRUE(WaitForLog("t_OnEvent... 256"));
    EXPECT_EQ(Number(0)["number"], 3);
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
}  // namespace test
}  // namespace tarvo
