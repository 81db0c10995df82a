// The store under a lost table and several threads at once: it logs and keeps serving.
#include <atomic>
#include <thread>

#include "store_fixture.h"

using namespace store_test;

namespace {
class StoreRobustness : public StartedStore {};
}  // namespace

TEST_F(StoreRobustness, TablesLostUnderTheConnectionLeaveTheStoreServingFromMemory) {
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
    EXPECT_TRUE(log.Contains("delete disclaimer items fail!"));
    EXPECT_EQ("0", DbOne("SELECT count(*) FROM sqlite_master"));

    Put(Record("pp"));
    EXPECT_TRUE(log.Contains("prepare fail("));
    std::string changes;
    store->SetAgreement("pp", true, changes);
    EXPECT_EQ("pp:true;", changes);
    EXPECT_EQ("{\"pp\":\"true\"}\n", VconfStr(kAgreementsKey));
    store->SetDisclaimerOSDLanguge("deu");
    EXPECT_EQ("deu", store->GetDisclaimerOSDLanguge());

    // The next start builds the tables again; what lived only in memory is gone.
    ASSERT_TRUE(Restart());
    EXPECT_EQ("", SnapshotIds(false));
    EXPECT_EQ("", store->GetDisclaimerOSDLanguge());
}

TEST_F(StoreRobustness, ConcurrentAnswersAndSnapshotsLeaveTheTableEqualToMemory) {
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

    Rows expected;
    Json::Value mirror(Json::objectValue);
    for (const auto& entry : Snapshot(false)) {
        expected.push_back({entry.first, std::to_string(entry.second.isAgreed),
                            std::to_string(entry.second.isAgreementPut)});
        mirror[entry.first] = entry.second.isAgreed ? "true" : "false";
    }
    EXPECT_EQ(expected,
              Db("SELECT id, isAgreed, isAgreementPut FROM table_tarvo_data_disclaimer_info ORDER BY id"));
    EXPECT_EQ(Json::FastWriter().write(mirror), VconfStr(kAgreementsKey));
}
