// The store file worked on with bare SQLite, for the floors: the rows read as they are and written
// back whole with one autocommit UPDATE each, on a connection opened as the service opens its own
// (no journal or sync setting of its own: SQLite's defaults). Used from one thread.
#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>
#include <vector>

namespace tarvo {
namespace bench {

// One column's value: NULL, an integer or text.
struct Cell {
    int type = SQLITE_NULL;
    long long integer = 0;
    std::string text;
};
using Row = std::vector<Cell>;

class BareStore {
  public:
    BareStore() = default;
    ~BareStore();
    BareStore(const BareStore&) = delete;
    BareStore& operator=(const BareStore&) = delete;

    bool Open(const std::string& path);
    // Every row of the disclaimer table (its columns in table order; the first is the id).
    std::vector<Row> DisclaimerRows();
    // The disclaimer row of `id`; empty when there is none.
    Row DisclaimerRow(const std::string& id);
    // Every row of the info table.
    std::vector<Row> InfoRows();
    // The column's index in the disclaimer table; -1 when there is none.
    int Column(const std::string& name);
    // Writes every column of `row` to the row of its id: one autocommit UPDATE.
    bool UpdateDisclaimer(const Row& row);
    // Adds `rows` as new rows of the disclaimer table, in one transaction (a set-up step, not a floor).
    bool InsertDisclaimers(const std::vector<Row>& rows);
    // Sets the info table's value of `key`: one autocommit UPDATE.
    bool UpdateInfo(long long key, const std::string& value);
    const std::string& Error() const { return m_error; }

  private:
    std::vector<Row> m_Rows(const char* sql);
    sqlite3* m_db = nullptr;
    sqlite3_stmt* m_update = nullptr;
    sqlite3_stmt* m_updateInfo = nullptr;
    std::vector<std::string> m_columns;
    std::string m_error;
};

}  // namespace bench
}  // namespace tarvo
