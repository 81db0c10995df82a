// The store's file: first start, restart, reset flag, version check, damaged files, failed reset.
#include <unistd.h>

#include <filesystem>

#include "store_fixture.h"

using namespace store_test;

namespace {
class StoreFile : public StoreFixture {};
const char* const kVersionQuery = "SELECT value FROM table_tarvo_data_control_info WHERE key=2";
}  // namespace

TEST_F(StoreFile, FirstStartCreatesFolderFileAndSchemaAndClearsTheResetFlag) {
    vconf_set_int(kResetFlagKey, 2);
    ASSERT_TRUE(store->Initialize());
    EXPECT_TRUE(log.Contains("try to create a new database!")) << "no folder at first";
    EXPECT_EQ(0, VconfInt(kResetFlagKey));
    EXPECT_EQ("", store->GetDisclaimerOSDLanguge());

    Rows schema = Db("SELECT name, sql FROM sqlite_master WHERE type='table' ORDER BY name");
    ASSERT_EQ(2u, schema.size());
    EXPECT_EQ(
        "CREATE TABLE table_tarvo_data_control_info ( \t\tkey int not null  primary key, \t\tvalue text\t\t)",
        schema[0][1]);
    EXPECT_EQ("table_tarvo_data_disclaimer_info", schema[1][0]);
    EXPECT_NE(std::string::npos, schema[1][1].find("\t\t\tsubLink text,\t\t\tisForOstrel)"));
    // The first read of key 1 made its row with empty text.
    EXPECT_EQ((Rows{{"1", ""}, {"2", "1.0"}}),
              Db("SELECT key, value FROM table_tarvo_data_control_info ORDER BY key"));
}

TEST_F(StoreFile, RestartKeepsRowsAndInfoValuesUnlessTheResetFlagIsOne) {
    ASSERT_TRUE(store->Initialize());
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
    EXPECT_EQ(0, VconfInt(kResetFlagKey));
}

TEST_F(StoreFile, WrongEmptyNullOrMissingVersionThrowsTheContentAway) {
    ASSERT_TRUE(store->Initialize());
    for (const char* damage : {"UPDATE table_tarvo_data_control_info SET value='0.9' WHERE key=2",
                               "UPDATE table_tarvo_data_control_info SET value='' WHERE key=2",
                               "UPDATE table_tarvo_data_control_info SET value=NULL WHERE key=2",
                               "DELETE FROM table_tarvo_data_control_info WHERE key=2"}) {
        Put(Record("tnc"));
        Stop();
        Db(damage);
        ASSERT_TRUE(store->Initialize()) << damage;
        EXPECT_FALSE(store->IsDisclaimerExist("tnc")) << damage;
        EXPECT_EQ("1.0", DbOne(kVersionQuery));
    }
}

TEST_F(StoreFile, FileThatIsNoDatabaseFailsInitializeAndIsGoneAtTheNextStart) {
    tarvo::test::WriteFile(root.At(kDataBase), std::string(4096, 'x'));
    EXPECT_FALSE(store->Initialize());
    EXPECT_TRUE(log.Contains("create info table fail!"));
    EXPECT_NE(0, access(root.At(kDataBase).c_str(), F_OK));

    ASSERT_TRUE(Restart());
    EXPECT_EQ("1.0", DbOne(kVersionQuery));
}

TEST_F(StoreFile, ResetWhoseReopenFailsEndsTheProcessAfterItsLogLine) {
    ASSERT_TRUE(store->Initialize());
    // A folder in the file's place can be neither removed as a file nor opened.
    ASSERT_EQ(0, unlink(root.At(kDataBase).c_str()));
    std::filesystem::create_directory(root.At(kDataBase));

    EXPECT_DEATH(store->ResetDataBase(), "Assertion `0 == liRet' failed");
    EXPECT_NE(std::string::npos,
              tarvo::test::ReadFile(root.At("/var/log/tarvo.log")).find("exit process with assert!!!"));
}
