// Fills a root's store file as a television would hold it before any sync: rows written with
// SQLite into ROOT's data.db in the store's own tables, before the service starts. Also reads
// the file back for checks. Used from the test's thread only.
#pragma once

#include "tarvo_test.h"

#include <string>
#include <utility>
#include <vector>

namespace tarvo::test {

// One row of the disclaimer table. Defaults: an available record, visible everywhere.
struct DisclaimerRow {
    explicit DisclaimerRow(std::string row_id, int row_order = 0, std::string row_window = "Main")
        : id(std::move(row_id)), order(row_order), window(std::move(row_window)) {}

    std::string id;
    int order;
    std::string window;  // "Main", "Sub", "Menu" or anything else for none
    std::string version = "1.0";
    std::string title;
    std::string intro;
    std::string details;
    std::vector<std::string> buttons;  // button1 onwards, at most 10
    bool agreed = false;
    bool agreementPut = false;
    std::string countryCode = "US";
    bool onlyNotice = false;
    bool visibleAtPnP = true;
    bool visibleAtMenu = true;
    bool visibleAtHotel = true;
    std::string agreeDependency;
    bool checkVoiceRec = false;
    bool checkUHDRM = false;
    bool checkUHD = false;
    bool ppUsed = false;
    bool reverse = false;
    bool revised = false;
    std::string subLink;
    bool forOstrel = false;
};

// ROOT + the store file's television path.
std::string StoreFile(const std::string& root);
inline std::string StoreFile(const TempRoot& root) { return StoreFile(root.Path()); }

// Creates the store file with its two tables, the current file version and, when not empty,
// the language of the stored set, then the rows. False, with a test failure naming SQLite's
// message, when something cannot be written.
bool WriteDisclaimerRows(const TempRoot& root, const std::vector<DisclaimerRow>& rows,
                         const std::string& osdLanguage = "");

// Each row `sql` gives on the SQLite file at `path`, its columns joined by "=" and NULL read as
// "<null>"; waits out the service's locks. A failure sets `error`, or fails the test without one.
std::vector<std::string> QueryFile(const std::string& path, const std::string& sql,
                                   std::string* error = nullptr);
// Runs `sql`, one statement or several, on the SQLite file at `path` (made with its folders when
// missing); false, with a test failure naming SQLite's message, when SQLite refuses.
bool ExecFile(const std::string& path, const std::string& sql);
inline std::vector<std::string> QueryStore(const TempRoot& root, const std::string& sql) {
    return QueryFile(StoreFile(root), sql);
}

}  // namespace tarvo::test
