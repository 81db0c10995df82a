// Disclaimer records: their row form, availability on this device, the requesters' filters and
// orders, the store under a lost table and several threads at once, and the user's answers:
// sub-link records and the default agreement status.
#include <atomic>
#include <thread>

#include "store_fixture.h"

using namespace store_test;

namespace {
using StoreRecords = StartedStore;

class AgreementState : public StartedStore {
  protected:
    std::string Set(const std::string& id, bool agree) {
        std::string changes;
        store->SetAgreement(id, agree, changes);
        return changes;
    }
    std::string RowAnswer(const std::string& id) {
        return DbOne(
            "SELECT isAgreed || isAgreementPut || hasRevised FROM table_tarvo_data_disclaimer_info "
            "WHERE id='" +
            id + "'");
    }
};
}  // namespace

TEST_F(StoreRecords, RecordWithEveryFieldSurvivesTheTableAndARestartAndIsReplacedWhole) {
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
    EXPECT_EQ(std::vector<std::string>{"Sub=1=integer=70000"},
              Db("SELECT displayWindow, isForOstrel, typeof(isForOstrel), length(details) "
                 "FROM table_tarvo_data_disclaimer_info"));

    ASSERT_TRUE(Restart());
    EXPECT_EQ(Dump(item), Dump(Snapshot(false)["voice_new"]));

    // Setting a known id replaces the whole record.
    Put(Record("voice_new"));
    EXPECT_EQ(Dump(Record("voice_new")), Dump(Snapshot(false)["voice_new"]));
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

TEST_F(StoreRecords, TablesLostUnderTheConnectionLeaveTheStoreServingFromMemory) {
    Put(Record("tnc"));
    store->SetDisclaimerOSDLanguge("eng");
    {
        // Another writer holds the file, so the store's delete fails and it starts a new, empty file.
        sqlite3* other = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(root.At(kDataBase).c_str(), &other));
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr));
        store->ClearDisclaimerItems();
        sqlite3_close(other);
    }
    EXPECT_EQ("0", DbOne("SELECT count(*) FROM sqlite_master"));

    Put(Record("pp"));
    std::string changes;
    store->SetAgreement("pp", true, changes);
    EXPECT_EQ("pp:true;", changes);
    EXPECT_EQ("{\"pp\":\"true\"}\n", VconfText(kAgreementsKey));
    store->SetDisclaimerOSDLanguge("deu");
    EXPECT_EQ("deu", store->GetDisclaimerOSDLanguge());

    // The next start builds the tables again; what lived only in memory is gone.
    ASSERT_TRUE(Restart());
    EXPECT_EQ("", SnapshotIds(false));
    EXPECT_EQ("", store->GetDisclaimerOSDLanguge());
}

TEST_F(StoreRecords, ConcurrentAnswersAndSnapshotsLeaveTheTableEqualToMemory) {
    const std::vector<std::string> ids = {"tnc", "pp", "rm", "nuance", "yahoo", "billing"};
    for (size_t i = 0; i < ids.size(); ++i)
        Put(Record(ids[i], TARVO_DISCLAIMER_WINDOW_MAIN, static_cast<int>(i)));

    std::atomic<bool> snapshotsWhole{true};
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 3; ++writer) {
        threads.emplace_back([&, writer] {
            for (int round = 0; round < 60; ++round) {
                std::string changes;
                store->SetAgreement(ids[(round + writer) % ids.size()], (round / 2 + writer) % 2 == 0,
                                    changes);
                if (round % 20 == writer) store->SetAgreementPut();
            }
        });
    }
    threads.emplace_back([&] {
        for (int round = 0; round < 60; ++round) {
            if (Snapshot(true).size() != ids.size()) snapshotsWhole = false;
            if (OrderedIds(0) != "tnc pp rm nuance yahoo billing ") snapshotsWhole = false;
            store->IsAgreementPut();
        }
    });
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(snapshotsWhole);

    std::vector<std::string> expected;
    Json::Value mirror(Json::objectValue);
    for (const auto& entry : Snapshot(false)) {
        expected.push_back(entry.first + "=" + std::to_string(entry.second.isAgreed) + "=" +
                           std::to_string(entry.second.isAgreementPut));
        mirror[entry.first] = entry.second.isAgreed ? "true" : "false";
    }
    EXPECT_EQ(expected,
              Db("SELECT id, isAgreed, isAgreementPut FROM table_tarvo_data_disclaimer_info ORDER BY id"));
    EXPECT_EQ(Json::FastWriter().write(mirror), VconfText(kAgreementsKey));
}

TEST_F(AgreementState, SubLinkRecordPassesItsAnswerToItsLinks) {
    TarvoDisclaimerDataItem link = Record("pp_sub1");
    link.subLink = "/tnc//pp/";
    TarvoDisclaimerDataItem tnc = Record("tnc");
    tnc.isAgreed = tnc.hasRevised = true;
    for (const auto& item : {link, tnc, Record("pp")}) Put(item);

    EXPECT_EQ("", Set("pp_sub1", false)) << "partly agreed set to false changes nothing";
    EXPECT_TRUE(store->IsDisclaimerAgreed("tnc"));
    EXPECT_EQ("pp:true;", Set("pp_sub1", true));
    EXPECT_TRUE(Snapshot(true)["pp_sub1"].isAgreed);
    EXPECT_FALSE(store->IsDisclaimerAgreed("pp_sub1")) << "its own answer stays";

    // Every linked change is reported as true, whatever the answer.
    EXPECT_EQ("tnc:true;pp:true;", Set("pp_sub1", false));
    EXPECT_EQ("000", RowAnswer("tnc"));
    EXPECT_FALSE(Snapshot(true)["pp_sub1"].isAgreed);

    link.subLink = "tnc/gone";
    Put(link);
    EXPECT_EQ("tnc:true;", Set("pp_sub1", true));
    EXPECT_FALSE(Snapshot(true)["pp_sub1"].isAgreed);
}

TEST_F(AgreementState, DefaultStatusFollowsTncAndPpButNeverOverwritesOtherValues) {
    Put(Record("tnc"));
    Put(Record("pp"));
    Set("tnc", true);
    EXPECT_EQ(-99, VconfNumber(kDefaultAgreeKey)) << "nothing written while pp is open";
    Set("pp", true);
    EXPECT_EQ(1, VconfNumber(kDefaultAgreeKey));
    EXPECT_EQ(2, VconfNumber(kAutoUpdateKey));

    // Someone turned automatic updates off: a later check with status 1 leaves that alone.
    vconf_set_int(kAutoUpdateKey, 0);
    TarvoDisclaimerDataItem tnc = Record("tnc");
    tnc.isAgreed = true;
    Put(tnc);
    EXPECT_EQ(0, VconfNumber(kAutoUpdateKey));
    Set("pp", false);
    EXPECT_EQ(0, VconfNumber(kDefaultAgreeKey));

    vconf_set_int(kDefaultAgreeKey, 2);
    Set("pp", true);
    Set("tnc", false);
    EXPECT_EQ(2, VconfNumber(kDefaultAgreeKey));

    vconf_set_int(kDefaultAgreeKey, 1);
    store->ClearDisclaimerItems();
    EXPECT_EQ(0, VconfNumber(kDefaultAgreeKey));
    EXPECT_EQ(0, VconfNumber(kAutoUpdateKey));
}
