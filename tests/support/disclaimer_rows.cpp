#include "disclaimer_rows.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>

namespace tarvo::test {

namespace {

constexpr const char* kStorePath = "/opt/usr/apps/org.mirlo.tarvodatacontrol-service/data/data.db";

// The store's tables, column for column; key 2 of the info table holds the file's version.
constexpr const char* kSchema =
    "CREATE TABLE table_tarvo_data_control_info (key int not null primary key, value text);"
    "INSERT INTO table_tarvo_data_control_info (key, value) VALUES (2, '1.0');"
    "CREATE TABLE table_tarvo_data_disclaimer_info (id text not null primary key, disorder int not null,"
    " displayWindow text not null, version text not null, title text, intro text, details text,"
    " button1 text, button2 text, button3 text, button4 text, button5 text, button6 text, button7 text,"
    " button8 text, button9 text, button10 text, isAgreed int, isAgreementPut int, countryCode text,"
    " isOnlyNotice int, isVisibleAtPnP int, isVisibleAtMenu int, isVisibleAtHotel int,"
    " agreeDependency text, isCheckVoiceRec int, isCheckUHDRM int, isCheckUHD int, isPPused int,"
    " isReverse int, hasRevised int, subLink text, isForOstrel);";

// Key 1 of the info table: the language of the stored disclaimer set.
constexpr const char* kInsertLanguage =
    "INSERT INTO table_tarvo_data_control_info (key, value) VALUES (1, ?1)";

constexpr const char* kInsert =
    "INSERT INTO table_tarvo_data_disclaimer_info VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11,"
    " ?12, ?13, ?14, ?15, ?16, ?17, ?18, ?19, ?20, ?21, ?22, ?23, ?24, ?25, ?26, ?27, ?28, ?29, ?30, ?31,"
    " ?32, ?33)";

void BindRow(sqlite3_stmt* stmt, const DisclaimerRow& row) {
    int index = 1;
    auto text = [&](const std::string& value) {
        sqlite3_bind_text(stmt, index++, value.c_str(), -1, SQLITE_TRANSIENT);
    };
    auto number = [&](int value) { sqlite3_bind_int(stmt, index++, value); };
    text(row.id);
    number(row.order);
    text(row.window);
    text(row.version);
    text(row.title);
    text(row.intro);
    text(row.details);
    for (size_t i = 0; i < 10; ++i) text(i < row.buttons.size() ? row.buttons[i] : std::string());
    number(row.agreed);
    number(row.agreementPut);
    text(row.countryCode);
    for (bool flag : {row.onlyNotice, row.visibleAtPnP, row.visibleAtMenu, row.visibleAtHotel}) number(flag);
    text(row.agreeDependency);
    for (bool flag :
         {row.checkVoiceRec, row.checkUHDRM, row.checkUHD, row.ppUsed, row.reverse, row.revised}) {
        number(flag);
    }
    text(row.subLink);
    number(row.forOstrel);
}

}  // namespace

std::string StoreFile(const std::string& root) { return root + kStorePath; }

bool WriteDisclaimerRows(const TempRoot& root, const std::vector<DisclaimerRow>& rows,
                         const std::string& osdLanguage) {
    const std::string path = StoreFile(root);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    sqlite3* db = nullptr;
    bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
              sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr) == SQLITE_OK;
    if (ok && !osdLanguage.empty()) {
        sqlite3_stmt* language = nullptr;
        ok = sqlite3_prepare_v2(db, kInsertLanguage, -1, &language, nullptr) == SQLITE_OK &&
             sqlite3_bind_text(language, 1, osdLanguage.c_str(), -1, SQLITE_TRANSIENT) == SQLITE_OK &&
             sqlite3_step(language) == SQLITE_DONE;
        sqlite3_finalize(language);
    }
    sqlite3_stmt* insert = nullptr;
    ok = ok && sqlite3_prepare_v2(db, kInsert, -1, &insert, nullptr) == SQLITE_OK;
    for (size_t i = 0; ok && i < rows.size(); ++i) {
        BindRow(insert, rows[i]);
        ok = sqlite3_step(insert) == SQLITE_DONE && sqlite3_reset(insert) == SQLITE_OK;
    }
    if (!ok) ADD_FAILURE() << "cannot fill " << path << ": " << sqlite3_errmsg(db);
    sqlite3_finalize(insert);
    sqlite3_close(db);
    return ok;
}

bool ExecFile(const std::string& path, const std::string& sql) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    sqlite3* db = nullptr;
    const bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
                    sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    if (!ok) ADD_FAILURE() << path << ": " << sql << ": " << sqlite3_errmsg(db);
    sqlite3_close(db);
    return ok;
}

std::vector<std::string> QueryFile(const std::string& path, const std::string& sql, std::string* error) {
    std::vector<std::string> rows;
    sqlite3* db = nullptr;
    bool ok = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK;
    sqlite3_busy_timeout(db, 5000);  // the service may be writing
    sqlite3_stmt* stmt = nullptr;
    ok = ok && sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK;
    int rc = SQLITE_DONE;
    while (ok && (rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        std::string row;
        for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
            const unsigned char* text = sqlite3_column_text(stmt, i);
            row += (i > 0 ? "=" : "") + std::string(text ? reinterpret_cast<const char*>(text) : "<null>");
        }
        rows.push_back(row);
    }
    if (!ok || rc != SQLITE_DONE) {
        const std::string why = path + ": " + sql + ": " + sqlite3_errmsg(db);
        if (error != nullptr)
            *error = why;
        else
            ADD_FAILURE() << why;
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return rows;
}

}  // namespace tarvo::test
