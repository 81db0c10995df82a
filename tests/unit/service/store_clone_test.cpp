// Clone copies of the store's file to the cloning folder and back, and their take-over at start.
#include <unistd.h>

#include <filesystem>

#include "store_fixture.h"

using namespace store_test;

namespace {
class CloneCopies : public StartedStore {
  protected:
    void SetUp() override {
        StartedStore::SetUp();
        Put(Record("tnc"));
    }
    std::string WaitingClone() { return root.At(kDataBase) + "_clone"; }
};

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
}  // namespace

TEST_F(CloneCopies, CopyFromUsbWaitsBesideTheFileUntilTheNextStartOrFactoryItem273) {
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
}

TEST_F(CloneCopies, MissingFoldersAndEmptyFilesFailWithTheirLogLines) {
    EXPECT_FALSE(store->CopyCloneDataUSBtoTV());
    EXPECT_TRUE(log.Contains("fail open 1:"));
    EXPECT_FALSE(Exists(WaitingClone()));

    std::filesystem::remove_all(root.At("/opt/usr/apps/org.mirlo.cloning/data/Clone"));
    EXPECT_FALSE(store->CopyCloneDataTVtoUSB());
    EXPECT_TRUE(log.Contains("create directory /opt/usr/apps/org.mirlo.cloning/data/Clone/"));

    // An empty clone still lands beside the file, and replaces it at the next start.
    tarvo::test::WriteFile(root.At(kCloneDataBase), "");
    EXPECT_FALSE(store->CopyCloneDataUSBtoTV());
    EXPECT_TRUE(log.Contains("Lengther is under 0:len 0"));
    ASSERT_TRUE(Exists(WaitingClone()));
    ASSERT_TRUE(Restart());
    EXPECT_FALSE(store->IsDisclaimerExist("tnc"));

    Stop();
    tarvo::test::WriteFile(root.At(kDataBase), "");
    EXPECT_FALSE(store->CopyCloneDataTVtoUSB());
}

TEST_F(CloneCopies, CloneThatIsNoDatabaseFailsOneStartAndNeverCrashesTheStore) {
    tarvo::test::WriteFile(root.At(kCloneDataBase), std::string(2048, 'z'));
    ASSERT_TRUE(store->CopyCloneDataUSBtoTV());

    EXPECT_FALSE(Restart());
    EXPECT_TRUE(log.Contains("prepare fail("));
    Put(Record("pp"));
    std::string changes;
    store->SetAgreement("pp", true, changes);
    EXPECT_EQ("pp:true;", changes);
    EXPECT_EQ("pp ", OrderedIds(4));

    ASSERT_TRUE(Restart());
    EXPECT_EQ("", SnapshotIds(false));
}
