// Disclaimer records: their row form, reading odd rows, availability on this device, and the
// requesters' filters and orders.
#include "store_fixture.h"

using namespace store_test;

namespace {
class StoreRecords : public StartedStore {};
}  // namespace

TEST_F(StoreRecords, RecordWithEveryFieldSurvivesTheTableAndARestart) {
    TarvoDisclaimerDataItem item;
    int n = 0;
    for (std::string* text :
         {&item.version, &item.title, &item.intro, &item.button1, &item.button2, &item.button3, &item.button4,
          &item.button5, &item.button6, &item.button7, &item.button8, &item.button9, &item.button10,
          &item.countryCode, &item.agreeDependency}) {
        *text = "text " + std::to_string(++n) + " 'quoted' \"é\"";
    }
    item.id = "voice_new";
    item.disorder = -7;
    item.displayWindow = TARVO_DISCLAIMER_WINDOW_SUB;
    item.details = std::string(70000, 'd');
    item.subLink = "tnc//pp";
    item.isOnlyNotice = item.isVisibleAtMenu = item.isCheckVoiceRec = item.isCheckUHD = item.isReverse = true;
    item.hasRevised = item.isForOstrel = true;
    Put(item);
    EXPECT_EQ((Rows{{"Sub", "1", "integer", "70000"}}),
              Db("SELECT displayWindow, isForOstrel, typeof(isForOstrel), length(details) "
                 "FROM table_tarvo_data_disclaimer_info"));

    ASSERT_TRUE(Restart());
    EXPECT_EQ(Dump(item), Dump(Snapshot(false)["voice_new"]));
}

TEST_F(StoreRecords, NullColumnsOddTypesAndUnknownWindowNamesReadAsFarAsTheyGo) {
    Stop();
    Db("INSERT INTO table_tarvo_data_disclaimer_info (id, disorder, displayWindow, version) VALUES "
       "('tnc', 3, 'main', '2'), ('pp', 4, 'Menu', '2')");
    Db("INSERT INTO table_tarvo_data_disclaimer_info (id, disorder, displayWindow, version, title, details, "
       "isAgreed, isForOstrel) VALUES ('rm', 'abc', 1, 3.5, 42, x'41420043', 'yes', 2.5)");
    ASSERT_TRUE(store->Initialize());

    auto all = Snapshot(false);
    TarvoDisclaimerDataItem tnc;
    tnc.id = "tnc";
    tnc.disorder = 3;
    tnc.version = "2";
    EXPECT_EQ(Dump(tnc), Dump(all["tnc"]));
    EXPECT_EQ(TARVO_DISCLAIMER_WINDOW_MENU, all["pp"].displayWindow);
    TarvoDisclaimerDataItem rm;
    rm.id = "rm";
    rm.version = "3.5";
    rm.title = "42";
    rm.details = "AB";
    rm.isForOstrel = true;
    EXPECT_EQ(Dump(rm), Dump(all["rm"]));

    rm.displayWindow = TARVO_DISCLAIMER_WINDOW_MAIN;
    Put(rm);
    EXPECT_EQ("rm pp ", OrderedIds(4));
}

TEST_F(StoreRecords, AvailabilityFollowsTheDeviceProfileWhileRunning) {
    TarvoDisclaimerDataItem uhd = Record("uhd_video"), uhdrm = Record("rm"), voice = Record("nuance"),
                            notAtHotel = Record("yahoo"),
                            noWindow = Record("viewing", TARVO_DISCLAIMER_WINDOW_UNKNOWN);
    uhd.isCheckUHD = uhdrm.isCheckUHDRM = voice.isCheckVoiceRec = true;
    notAtHotel.isVisibleAtHotel = false;
    for (const auto& item : {uhd, uhdrm, voice, notAtHotel, noWindow, Record("main_common"), Record("tnc")})
        Put(item);

    // The default device: UHD and voice, no UHD-RM, not a hotel set.
    EXPECT_EQ("nuance tnc uhd_video yahoo ", SnapshotIds(true));
    root.EditProfile([](Json::Value& p) {
        p["system_info"]["13"] = false;
        p["system_info"]["282"] = true;
        p["system_info"].removeMember("61");
        p["factory_data"]["112"] = 1;
    });
    EXPECT_EQ("rm tnc ", SnapshotIds(true));
    EXPECT_EQ("main_common nuance rm tnc uhd_video viewing yahoo ", SnapshotIds(false));
    EXPECT_TRUE(store->IsDisclaimerExist("viewing"));
}

TEST_F(StoreRecords, RequestersSeeTheirOwnFilterAndOrder) {
    TarvoDisclaimerDataItem pnpOnly = Record("rm", TARVO_DISCLAIMER_WINDOW_SUB, 1);
    pnpOnly.isVisibleAtMenu = false;
    TarvoDisclaimerDataItem menuOnly = Record("yahoo", TARVO_DISCLAIMER_WINDOW_MAIN, 5);
    menuOnly.isVisibleAtPnP = false;
    for (const auto& item :
         {Record("pp", TARVO_DISCLAIMER_WINDOW_MENU, 1), pnpOnly, menuOnly,
          Record("tnc", TARVO_DISCLAIMER_WINDOW_MAIN, 2), Record("billing", TARVO_DISCLAIMER_WINDOW_MAIN, 2),
          Record("main_common"), Record("viewing", TARVO_DISCLAIMER_WINDOW_UNKNOWN)}) {
        Put(item);
    }
    // Window first, then order; equal keys stay in id order.
    EXPECT_EQ("billing tnc yahoo pp ", OrderedIds(0));
    EXPECT_EQ("billing tnc yahoo pp ", OrderedIds(1));
    EXPECT_EQ("main_common billing tnc rm pp ", OrderedIds(2));
    // Order alone, whatever the window.
    EXPECT_EQ("pp rm billing tnc yahoo ", OrderedIds(4));
    for (int none : {3, 5, -1}) EXPECT_EQ("", OrderedIds(none)) << none;
}

TEST_F(StoreRecords, SettingAKnownIdReplacesTheWholeRecordAndClearingForgetsAll) {
    TarvoDisclaimerDataItem tnc = Record("tnc");
    tnc.isAgreed = true;
    Put(tnc);
    tnc = Record("tnc");
    tnc.version = "2.0";
    Put(tnc);
    EXPECT_FALSE(store->IsDisclaimerAgreed("tnc"));
    EXPECT_EQ((Rows{{"2.0", "0"}}), Db("SELECT version, isAgreed FROM table_tarvo_data_disclaimer_info"));

    store->ClearDisclaimerItems();
    EXPECT_EQ("", SnapshotIds(false));
    EXPECT_EQ("", VconfStr(kAgreementsKey));
    EXPECT_EQ("0", DbOne("SELECT count(*) FROM table_tarvo_data_disclaimer_info"));
}
