#include "bare_store.h"

#include <utility>

namespace tarvo {
namespace bench {

namespace {
const char* const kDisclaimerTable = "table_tarvo_data_disclaimer_info";
}  // namespace

BareStore::~BareStore() {
    sqlite3_finalize(m_update);
    sqlite3_finalize(m_updateInfo);
    sqlite3_close(m_db);
}

bool BareStore::Open(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) !=
        SQLITE_OK) {
        m_error = "cannot open " + path;
        return false;
    }
    sqlite3_stmt* info = nullptr;
    const std::string pragma = std::string("PRAGMA table_info(") + kDisclaimerTable + ")";
    if (sqlite3_prepare_v2(m_db, pragma.c_str(), -1, &info, nullptr) != SQLITE_OK) return false;
    while (sqlite3_step(info) == SQLITE_ROW) {
        m_columns.push_back(reinterpret_cast<const char*>(sqlite3_column_text(info, 1)));
    }
    sqlite3_finalize(info);
    if (m_columns.size() < 2) {
        m_error = "no disclaimer table in " + path;
        return false;
    }
    std::string update = std::string("UPDATE ") + kDisclaimerTable + " SET ";
    for (size_t i = 1; i < m_columns.size(); ++i) {
        update += (i > 1 ? ", " : "") + m_columns[i] + " = ?" + std::to_string(i);
    }
    update += " WHERE " + m_columns[0] + " = ?" + std::to_string(m_columns.size());
    if (sqlite3_prepare_v2(m_db, update.c_str(), -1, &m_update, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(m_db, "UPDATE table_tarvo_data_control_info SET value = ?1 WHERE key = ?2", -1,
                           &m_updateInfo, nullptr) != SQLITE_OK) {
        m_error = sqlite3_errmsg(m_db);
        return false;
    }
    return true;
}

std::vector<Row> BareStore::m_Rows(const char* sql) {
    std::vector<Row> rows;
    sqlite3_stmt* select = nullptr;
    if (sqlite3_prepare_v2(m_db, sql, -1, &select, nullptr) != SQLITE_OK) return rows;
    while (sqlite3_step(select) == SQLITE_ROW) {
        Row row(static_cast<size_t>(sqlite3_column_count(select)));
        for (size_t i = 0; i < row.size(); ++i) {
            const int column = static_cast<int>(i);
            row[i].type = sqlite3_column_type(select, column);
            if (row[i].type == SQLITE_INTEGER) {
                row[i].integer = sqlite3_column_int64(select, column);
            } else if (row[i].type != SQLITE_NULL) {
                row[i].type = SQLITE_TEXT;
                const unsigned char* text = sqlite3_column_text(select, column);
                row[i].text.assign(reinterpret_cast<const char*>(text),
                                   static_cast<size_t>(sqlite3_column_bytes(select, column)));
            }
        }
        rows.push_back(std::move(row));
    }
    sqlite3_finalize(select);
    return rows;
}

std::vector<Row> BareStore::DisclaimerRows() {
    return m_Rows((std::string("SELECT * FROM ") + kDisclaimerTable + " ORDER BY 1").c_str());
}

Row BareStore::DisclaimerRow(const std::string& id) {
    for (Row& row : DisclaimerRows()) {
        if (row[0].text == id) return std::move(row);
    }
    return Row();
}

std::vector<Row> BareStore::InfoRows() { return m_Rows("SELECT * FROM table_tarvo_data_control_info"); }

int BareStore::Column(const std::string& name) {
    for (size_t i = 0; i < m_columns.size(); ++i) {
        if (m_columns[i] == name) return static_cast<int>(i);
    }
    return -1;
}

bool BareStore::UpdateDisclaimer(const Row& row) {
    sqlite3_reset(m_update);
    auto bind = [this](int index, const Cell& cell) {
        if (cell.type == SQLITE_INTEGER) return sqlite3_bind_int64(m_update, index, cell.integer);
        if (cell.type == SQLITE_TEXT) {
            return sqlite3_bind_text(m_update, index, cell.text.data(), static_cast<int>(cell.text.size()),
                                     SQLITE_STATIC);
        }
        return sqlite3_bind_null(m_update, index);
    };
    for (size_t i = 1; i < row.size(); ++i) bind(static_cast<int>(i), row[i]);
    bind(static_cast<int>(row.size()), row[0]);
    if (sqlite3_step(m_update) != SQLITE_DONE) {
        m_error = sqlite3_errmsg(m_db);
        return false;
    }
    return true;
}

namespace {

int Bind(sqlite3_stmt* statement, int index, const Cell& cell) {
    if (cell.type == SQLITE_INTEGER) return sqlite3_bind_int64(statement, index, cell.integer);
    if (cell.type == SQLITE_TEXT) {
        return sqlite3_bind_text(statement, index, cell.text.data(), static_cast<int>(cell.text.size()),
                                 SQLITE_STATIC);
    }
    return sqlite3_bind_null(statement, index);
}

}  // namespace

bool BareStore::InsertDisclaimers(const std::vector<Row>& rows) {
    std::string insert = std::string("INSERT INTO ") + kDisclaimerTable + " VALUES (";
    for (size_t i = 0; i < m_columns.size(); ++i) insert += (i > 0 ? ", ?" : "?") + std::to_string(i + 1);
    insert += ")";
    sqlite3_stmt* statement = nullptr;
    bool done = sqlite3_exec(m_db, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK &&
                sqlite3_prepare_v2(m_db, insert.c_str(), -1, &statement, nullptr) == SQLITE_OK;
    for (size_t r = 0; done && r < rows.size(); ++r) {
        sqlite3_reset(statement);
        for (size_t i = 0; i < rows[r].size(); ++i) Bind(statement, static_cast<int>(i + 1), rows[r][i]);
        done = sqlite3_step(statement) == SQLITE_DONE;
    }
    if (!done) m_error = sqlite3_errmsg(m_db);
    sqlite3_finalize(statement);
    return sqlite3_exec(m_db, done ? "COMMIT" : "ROLLBACK", nullptr, nullptr, nullptr) == SQLITE_OK && done;
}

bool BareStore::UpdateInfo(long long key, const std::string& value) {
    sqlite3_reset(m_updateInfo);
    sqlite3_bind_text(m_updateInfo, 1, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    sqlite3_bind_int64(m_updateInfo, 2, key);
    if (sqlite3_step(m_updateInfo) != SQLITE_DONE) {
        m_error = sqlite3_errmsg(m_db);
        return false;
    }
    return true;
}

}  // namespace bench
}  // namespace tarvo
