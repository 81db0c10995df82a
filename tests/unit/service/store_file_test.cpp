// The store's file: first start, restart, reset flag, version check, foreign rows, failed reset,
// and its clone copies, also against a clone folder prepared on a USB stick: a link in the file's
// or the folder's place, or a FIFO, is a failed copy that leaves the link's target as it was.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <iterator>

#include "store_fixture.h"

using namespace store_test;
namespace fs = std::filesystem;

namespace {
using StoreFile = StoreFixture;
const char* const kVersionQuery = "SELECT value FROM table_tarvo_data_control_info WHERE key=2";
bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
}  // namespace

TEST_F(StoreFile, FirstStartMakesTheFileAndClearsTheResetFlagAndARestartKeepsItUnlessTheFlagIsOne) {
    vconf_set_int(kResetFlagKey, 2);
    ASSERT_TRUE(store->Initialize());
    EXPECT_EQ(0, VconfNumber(kResetFlagKey));
    EXPECT_EQ("", store->GetDisclaimerOSDLanguge());
    EXPECT_EQ((std::vector<std::string>{"table_tarvo_data_control_info", "table_tarvo_data_disclaimer_info"}),
              Db("SELECT name FROM sqlite_master WHERE type='table' ORDER BY name"));
    // The first read of key 1 made its row with empty text.
    EXPECT_EQ((std::vector<std::string>{"1=", "2=1.0"}),
              Db("SELECT key, value FROM table_tarvo_data_control_info ORDER BY key"));

    Put(Record("tnc"));
    store->SetDisclaimerOSDLanguge("fra");
    store->SetDisclaimerXMLData("{\"rsp\":{}}");
    ASSERT_TRUE(Restart());
    EXPECT_TRUE(store->IsDisclaimerExist("tnc"));
    EXPECT_EQ("fra", store->GetDisclaimerOSDLanguge());
    EXPECT_EQ("{\"rsp\":{}}", store->GetDisclaimerXMLData());

    vconf_set_int(kResetFlagKey, 1);
    ASSERT_TRUE(Restart());
    EXPECT_FALSE(store->IsDisclaimerExist("tnc"));
    EXPECT_EQ("", store->GetDisclaimerOSDLanguge());
    EXPECT_EQ(0, VconfNumber(kResetFlagKey));
}

TEST_F(StoreFile, WrongEmptyNullOrMissingVersionThrowsTheContentAwayAndTwoRowsOfOneIdLeaveTheLater) {
    ASSERT_TRUE(store->Initialize());
    for (const char* damage : {"UPDATE table_tarvo_data_control_info SET value='0.9' WHERE key=2",
                               "UPDATE table_tarvo_data_control_info SET value='' WHERE key=2",
                               "UPDATE table_tarvo_data_control_info SET value=NULL WHERE key=2",
                               "DELETE FROM table_tarvo_data_control_info WHERE key=2"}) {
        Put(Record("tnc"));
        Stop();
        Change(damage);
        ASSERT_TRUE(store->Initialize()) << damage;
        EXPECT_FALSE(store->IsDisclaimerExist("tnc")) << damage;
        EXPECT_EQ("1.0", DbOne(kVersionQuery));
    }

    // Two rows of one id in a foreign file leave the later one and free the other.
    Put(Record("tnc"));
    Stop();
    // The same table without its primary key, holding the record twice.
    Change(
        "CREATE TABLE copied AS SELECT * FROM table_tarvo_data_disclaimer_info;"
        "DROP TABLE table_tarvo_data_disclaimer_info;"
        "ALTER TABLE copied RENAME TO table_tarvo_data_disclaimer_info;"
        "INSERT INTO table_tarvo_data_disclaimer_info SELECT * FROM table_tarvo_data_disclaimer_info;"
        "UPDATE table_tarvo_data_disclaimer_info SET title = 'later' WHERE rowid = 2");
    // The sanitizer build's leak check sees the earlier record freed.
    ASSERT_TRUE(store->Initialize());
    EXPECT_EQ("later", Snapshot(false)["tnc"].title);
}

TEST_F(StoreFile, ResetWhoseReopenFailsEndsTheProcessAfterItsLogLine) {
    ASSERT_TRUE(store->Initialize());
    // A folder in the file's place can be neither removed as a file nor opened.
    ASSERT_EQ(0, unlink(root.At(kDataBase).c_str()));
    fs::create_directory(root.At(kDataBase));

    EXPECT_DEATH(store->ResetDataBase(), "Assertion `0 == liRet' failed");
    EXPECT_NE(std::string::npos,
              tarvo::test::ReadFile(root.At("/var/log/tarvo.log")).find("exit process with assert!!!"));
}

class CloneCopies : public StartedStore {
  protected:
    void SetUp() override {
        StartedStore::SetUp();
        Put(Record("tnc"));
    }
    std::string WaitingClone() { return root.At(kDataBase) + "_clone"; }
    std::string CloneFolder() { return fs::path(root.At(kCloneDataBase)).parent_path(); }
};

TEST_F(CloneCopies, CopyFromUsbWaitsBesideTheFileUntilTheNextStartOrFactoryItem273) {
    EXPECT_FALSE(store->CopyCloneDataUSBtoTV()) << "no clone yet";
    ASSERT_TRUE(store->CopyCloneDataTVtoUSB());
    EXPECT_EQ(tarvo::test::ReadFile(root.At(kDataBase)), tarvo::test::ReadFile(root.At(kCloneDataBase)));
    Put(Record("pp"));
    ASSERT_TRUE(store->CopyCloneDataTVtoUSB()) << "a second copy replaces the first";
    store->ClearDisclaimerItems();
    ASSERT_TRUE(store->CopyCloneDataUSBtoTV());
    EXPECT_TRUE(Exists(WaitingClone()));
    EXPECT_FALSE(store->IsDisclaimerExist("tnc"));

    ASSERT_TRUE(Restart());
    EXPECT_EQ("pp tnc ", SnapshotIds(false));
    EXPECT_FALSE(Exists(WaitingClone()));

    // Item 273 fetches the clone within the start itself.
    store->ClearDisclaimerItems();
    root.EditProfile([](Json::Value& p) { p["factory_data"]["273"] = 1; });
    ASSERT_TRUE(Restart());
    EXPECT_TRUE(store->IsDisclaimerExist("tnc"));
    // A regular file where the clone folder must be.
    fs::remove_all(CloneFolder());
    tarvo::test::WriteFile(CloneFolder(), "not a folder");
    EXPECT_FALSE(store->CopyCloneDataTVtoUSB());
}

TEST_F(CloneCopies, CodeStoredInACloneNeverRuns) {
    // Each trigger would turn the user's "disagree" back into "agreed": one when the record's row
    // changes, one at the start itself, when the store writes its version.
    const std::pair<const char*, bool> cases[] = {
        {"CREATE TRIGGER keep_agreed AFTER UPDATE ON table_tarvo_data_disclaimer_info "
         "BEGIN UPDATE table_tarvo_data_disclaimer_info SET isAgreed = 1; END",
         true},
        {"CREATE TRIGGER agree_at_start AFTER UPDATE ON table_tarvo_data_control_info "
         "BEGIN UPDATE table_tarvo_data_disclaimer_info SET isAgreed = 1; END",
         false},
    };
    for (const auto& [trigger, agreedInClone] : cases) {
        std::string changes;
        store->SetAgreement("tnc", agreedInClone, changes);
        ASSERT_TRUE(store->CopyCloneDataTVtoUSB());
        ASSERT_TRUE(tarvo::test::ExecFile(root.At(kCloneDataBase), trigger));
        ASSERT_TRUE(store->CopyCloneDataUSBtoTV());
        ASSERT_TRUE(Restart());

        store->SetAgreement("tnc", false, changes);
        ASSERT_TRUE(Restart());
        EXPECT_FALSE(store->IsDisclaimerAgreed("tnc")) << trigger;
        EXPECT_EQ("0", DbOne("SELECT isAgreed FROM table_tarvo_data_disclaimer_info WHERE id='tnc'"))
            << trigger;
    }
}

TEST_F(CloneCopies, ALinkOrFifoInTheCloneFolderIsAFailedCopyThatTouchesNothing) {
    const std::string victim = root.At("/victim");
    const std::string victimFolder = root.At("/victim_folder");
    const std::string untouched = "the victim's own bytes";
    enum Direction { kToUsb, kFromUsb };
    const auto link_file = [&] { fs::create_symlink(victim, root.At(kCloneDataBase)); };
    const auto link_folder = [&] {
        fs::remove_all(CloneFolder());
        fs::create_symlink(victimFolder, CloneFolder());
    };
    const struct {
        const char* name;
        Direction direction;
        std::function<void()> plant;
        const char* logLine;
    } cases[] = {
        {"clone file links to a file", kToUsb, link_file, "fail open 2:"},
        {"clone file links to nothing yet", kToUsb,
         [&] {
             fs::remove(victim);
             link_file();
         },
         "fail open 2:"},
        {"clone folder links to a folder", kToUsb, link_folder, "fail open 2:"},
        {"clone file links to a file", kFromUsb, link_file, "fail open 1:"},
        {"clone folder links to a folder", kFromUsb, link_folder, "fail open 1:"},
        {"clone file is a FIFO", kFromUsb,
         [&] { ASSERT_EQ(0, mkfifo(root.At(kCloneDataBase).c_str(), 0644)); }, "fail open 1:"},
        {"waiting clone file links to a file", kFromUsb,
         [&] {
             ASSERT_TRUE(store->CopyCloneDataTVtoUSB());
             fs::create_symlink(victim, WaitingClone());
         },
         "fail open 2:"},
    };
    for (const auto& c : cases) {
        const std::string what = std::string(c.direction == kToUsb ? "to USB: " : "from USB: ") + c.name;
        fs::remove_all(CloneFolder());
        fs::create_directory(CloneFolder());
        fs::remove(WaitingClone());
        fs::remove_all(victimFolder);
        fs::create_directory(victimFolder);
        tarvo::test::WriteFile(victim, untouched);
        tarvo::test::WriteFile(victimFolder + "/data.db", untouched);
        c.plant();
        const std::string before = fs::exists(victim) ? tarvo::test::ReadFile(victim) : "<none>";
        const size_t failures = log.Count(c.logLine);

        EXPECT_FALSE(c.direction == kToUsb ? store->CopyCloneDataTVtoUSB() : store->CopyCloneDataUSBtoTV())
            << what;
        EXPECT_EQ(log.Count(c.logLine), failures + 1) << what;
        EXPECT_EQ(fs::exists(victim) ? tarvo::test::ReadFile(victim) : "<none>", before) << what;
        EXPECT_EQ(tarvo::test::ReadFile(victimFolder + "/data.db"), untouched) << what;
        EXPECT_EQ(std::distance(fs::directory_iterator(victimFolder), fs::directory_iterator()), 1) << what;
        if (c.direction == kFromUsb) {
            // Nothing waits to replace the store at the next start but the planted link itself.
            EXPECT_TRUE(!fs::exists(fs::symlink_status(WaitingClone())) || fs::is_symlink(WaitingClone()))
                << what;
        }
    }

    // Plain files still go both ways.
    fs::remove_all(CloneFolder());
    fs::remove(WaitingClone());
    ASSERT_TRUE(store->CopyCloneDataTVtoUSB());
    ASSERT_TRUE(store->CopyCloneDataUSBtoTV());
    EXPECT_EQ(tarvo::test::ReadFile(root.At(kDataBase)), tarvo::test::ReadFile(WaitingClone()));
}
