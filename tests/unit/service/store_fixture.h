// Shared set-up of the disclaimer store tests: a fresh root, a started store, and plain views of
// its file (through a second SQLite connection), its vconf mirrors and its snapshots.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <tarvo/log_capture.h>
#include <vconf.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "TarvoInternalData.h"
#include "disclaimer_rows.h"
#include "tarvo_test.h"

namespace store_test {

inline const char* const kDataBase = "/opt/usr/apps/org.mirlo.tarvodatacontrol-service/data/data.db";
inline const char* const kCloneDataBase =
    "/opt/usr/apps/org.mirlo.cloning/data/Clone/org.mirlo.tarvodatacontrol-service/data.db";
inline const char* const kAgreementsKey = "db/tarvodatacontrol/disclaimeragrees";
inline const char* const kDefaultAgreeKey = "db/menu/ostrel/tarvodatacontrol/defaultdisclaimeragree";
inline const char* const kAutoUpdateKey = "db/menu/support/softwareupdate/autoupdate";
inline const char* const kResetFlagKey = "db/tarvodatacontrol/data_db_reset";

// An available record: visible everywhere, no device checks.
inline TarvoDisclaimerDataItem Record(const std::string& id,
                                      ETarvoDisclaimerWindow window = TARVO_DISCLAIMER_WINDOW_MAIN,
                                      int order = 0) {
    TarvoDisclaimerDataItem item;
    item.id = id;
    item.displayWindow = window;
    item.disorder = order;
    item.version = "1.0";
    item.isVisibleAtMenu = item.isVisibleAtPnP = item.isVisibleAtHotel = true;
    return item;
}

// Every stored field in one line, so that two records compare with a readable difference.
inline std::string Dump(const TarvoDisclaimerDataItem& r) {
    std::ostringstream out;
    out << r.id << '|' << r.disorder << '|' << r.displayWindow << '|' << r.version << '|' << r.title << '|'
        << r.intro << '|' << r.details << '|' << r.button1 << '|' << r.button2 << '|' << r.button3 << '|'
        << r.button4 << '|' << r.button5 << '|' << r.button6 << '|' << r.button7 << '|' << r.button8 << '|'
        << r.button9 << '|' << r.button10 << '|' << r.isAgreed << r.isAgreementPut << '|' << r.countryCode
        << '|' << r.isOnlyNotice << r.isVisibleAtPnP << r.isVisibleAtMenu << r.isVisibleAtHotel << '|'
        << r.agreeDependency << '|' << r.isCheckVoiceRec << r.isCheckUHDRM << r.isCheckUHD << r.isPPused
        << r.isReverse << r.hasRevised << '|' << r.subLink << '|' << r.isForOstrel;
    return out.str();
}

using tarvo::test::VconfNumber;
using tarvo::test::VconfText;

class StoreFixture : public ::testing::Test {
  protected:
    void SetUp() override { store = CTarvoInternalData::GetInstance(); }
    void TearDown() override {
        store->Finalize();
        CTarvoInternalData::Destroy();
    }

    // A new process's view: a new object over the same file.
    bool Restart() {
        Stop();
        return store->Initialize();
    }
    // Closes the store so that a test may change the file as another program would.
    void Stop() {
        store->Finalize();
        CTarvoInternalData::Destroy();
        store = CTarvoInternalData::GetInstance();
    }

    std::map<std::string, TarvoDisclaimerDataItem> Snapshot(bool onlyAvailable) {
        std::map<std::string, TarvoDisclaimerDataItem*>* copies = store->CopyDisclaimerItems(onlyAvailable);
        std::map<std::string, TarvoDisclaimerDataItem> result;
        for (const auto& entry : *copies) result[entry.first] = *entry.second;
        store->DeleteCopyMap(copies);
        return result;
    }
    std::string SnapshotIds(bool onlyAvailable) {
        std::string ids;
        for (const auto& entry : Snapshot(onlyAvailable)) ids += entry.first + " ";
        return ids;
    }
    std::string OrderedIds(int requester) {
        std::vector<TarvoDisclaimerDataItem*>* ordered =
            store->GetOrderedDisclaimerItems(static_cast<ETarvoDisclaimerRequester>(requester));
        std::string ids;
        for (TarvoDisclaimerDataItem* item : *ordered) {
            ids += item->id + " ";
            delete item;
        }
        delete ordered;
        return ids;
    }
    void Put(const TarvoDisclaimerDataItem& item) { store->SetDisclaimerItem(&item); }
    // The file through a connection of its own, as another program would: the rows of a query,
    // their columns joined by "=", or a change.
    std::vector<std::string> Db(const std::string& sql) {
        return tarvo::test::QueryFile(root.At(kDataBase), sql);
    }
    std::string DbOne(const std::string& sql) { return Db(sql).at(0); }
    void Change(const std::string& sql) { EXPECT_TRUE(tarvo::test::ExecFile(root.At(kDataBase), sql)); }

    // Constructed first: every platform call below sees the fresh root.
    tarvo::test::TempRoot root;
    tarvo::platform::LogCapture log;
    CTarvoInternalData* store = nullptr;
};

// The same, with the store started on a fresh file.
class StartedStore : public StoreFixture {
  protected:
    void SetUp() override {
        StoreFixture::SetUp();
        ASSERT_TRUE(store->Initialize());
    }
};

}  // namespace store_test
