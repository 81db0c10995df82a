// The disclaimer table: its statements and the row operations, run under the caller's m_Mutex.
#include "TarvoInternalData.h"
#include "TarvoLog.h"

const char* CTarvoInternalData::m_DisclaimerTableSql[5] = {
    "CREATE TABLE table_tarvo_data_disclaimer_info ( \t\t\tid text not null primary key, \t\t\tdisorder int "
    "not "
    "null, \t\t\tdisplayWindow text not null, \t\t\tversion text not null, \t\t\ttitle text, \t\t\tintro "
    "text, "
    "\t\t\tdetails text, \t\t\tbutton1 text, \t\t\tbutton2 text, \t\t\tbutton3 text, \t\t\tbutton4 text, "
    "\t\t\tbutton5 text, \t\t\tbutton6 text, \t\t\tbutton7 text, \t\t\tbutton8 text, \t\t\tbutton9 text, "
    "\t\t\tbutton10 text, \t\t\tisAgreed int, \t\t\tisAgreementPut int, \t\t\tcountryCode text, "
    "\t\t\tisOnlyNotice "
    "int, \t\t\tisVisibleAtPnP int, \t\t\tisVisibleAtMenu int, \t\t\tisVisibleAtHotel int, "
    "\t\t\tagreeDependency "
    "text, \t\t\tisCheckVoiceRec int,\t\t\tisCheckUHDRM int, \t\t\tisCheckUHD int, \t\t\tisPPused int, "
    "\t\t\tisReverse int,\t\t\thasRevised int,\t\t\tsubLink text,\t\t\tisForOstrel)",
    "INSERT INTO table_tarvo_data_disclaimer_info( id, disorder, displayWindow, version, title, intro, "
    "details, "
    "\t\tbutton1, button2, button3, button4, button5, button6, button7, button8, button9, button10, "
    "isAgreed, "
    "isAgreementPut, \t\tcountryCode, isOnlyNotice, isVisibleAtPnP, isVisibleAtMenu, isVisibleAtHotel, "
    "agreeDependency, \t\t\tisCheckVoiceRec, isCheckUHDRM, isCheckUHD, isPPused, isReverse, hasRevised, "
    "subLink, "
    "isForOstrel)  \t\t\tVALUES ( :1, :2, :3, :4, :5, :6, :7, :8, :9, :10, :11, :12, :13, :14, :15, :16, "
    ":17, "
    ":18, :19, :20, :21, :22, :23, :24, :25, :26, :27, :28, :29, :30, :31, :32, :33 )",
    "UPDATE table_tarvo_data_disclaimer_info SET  disorder = :1, displayWindow = :2, version = :3, title = "
    ":4, "
    "intro = :5, details = :6, \t\tbutton1 = :7, button2 = :8, button3 = :9, button4 = :10, button5 = :11, "
    "button6 "
    "= :12, button7 = :13, button8 = :14, button9 = :15, \t\tbutton10 = :16, isAgreed = :17, isAgreementPut "
    "= :18, "
    "countryCode = :19, isOnlyNotice = :20, isVisibleAtPnP = :21, isVisibleAtMenu = :22, "
    "\t\tisVisibleAtHotel = "
    ":23, agreeDependency = :24, isCheckVoiceRec = :25, isCheckUHDRM = :26, isCheckUHD = :27, isPPused = "
    ":28, "
    "\t\tisReverse = :29, hasRevised = :30, subLink = :31, isForOstrel= :32 WHERE id = :33",
    "SELECT id, disorder, displayWindow, version, title, intro, details, \t\tbutton1, button2, button3, "
    "button4, "
    "button5, button6, button7, button8, button9, button10, isAgreed, isAgreementPut, \t\tcountryCode, "
    "isOnlyNotice, isVisibleAtPnP, isVisibleAtMenu, isVisibleAtHotel, agreeDependency, isCheckVoiceRec, "
    "\t\t\tisCheckUHDRM, isCheckUHD , isPPused, isReverse, hasRevised, subLink, isForOstrel FROM "
    "table_tarvo_data_disclaimer_info",
    "DELETE FROM table_tarvo_data_disclaimer_info WHERE id = :1",
};

namespace {

void BindText(sqlite3_stmt* stmt, int& index, const std::string& text) {
    sqlite3_bind_text(stmt, index++, text.c_str(), -1, SQLITE_STATIC);
}

void BindInt(sqlite3_stmt* stmt, int& index, int value) { sqlite3_bind_int(stmt, index++, value); }

// Binds every field but the id, from `index` on, in the column order shared by insert and update.
// `windowName` must outlive the step.
void BindFields(sqlite3_stmt* stmt, int index, const TarvoDisclaimerDataItem* item,
                const std::string& windowName) {
    BindInt(stmt, index, item->disorder);
    BindText(stmt, index, windowName);
    for (const std::string* text :
         {&item->version, &item->title, &item->intro, &item->details, &item->button1, &item->button2,
          &item->button3, &item->button4, &item->button5, &item->button6, &item->button7, &item->button8,
          &item->button9, &item->button10}) {
        BindText(stmt, index, *text);
    }
    BindInt(stmt, index, item->isAgreed);
    BindInt(stmt, index, item->isAgreementPut);
    BindText(stmt, index, item->countryCode);
    BindInt(stmt, index, item->isOnlyNotice);
    BindInt(stmt, index, item->isVisibleAtPnP);
    BindInt(stmt, index, item->isVisibleAtMenu);
    BindInt(stmt, index, item->isVisibleAtHotel);
    BindText(stmt, index, item->agreeDependency);
    BindInt(stmt, index, item->isCheckVoiceRec);
    BindInt(stmt, index, item->isCheckUHDRM);
    BindInt(stmt, index, item->isCheckUHD);
    BindInt(stmt, index, item->isPPused);
    BindInt(stmt, index, item->isReverse);
    BindInt(stmt, index, item->hasRevised);
    BindText(stmt, index, item->subLink);
    BindInt(stmt, index, item->isForOstrel);
}

// A NULL column leaves the field at its default.
void ReadText(sqlite3_stmt* stmt, int& column, std::string& field) {
    const unsigned char* text = sqlite3_column_text(stmt, column++);
    if (text != nullptr) field = reinterpret_cast<const char*>(text);
}

void ReadBool(sqlite3_stmt* stmt, int& column, bool& field) {
    field = sqlite3_column_int(stmt, column++) != 0;
}

TarvoDisclaimerDataItem* ReadRow(sqlite3_stmt* stmt) {
    TarvoDisclaimerDataItem* item = new TarvoDisclaimerDataItem();
    int column = 0;
    ReadText(stmt, column, item->id);
    item->disorder = sqlite3_column_int(stmt, column++);
    std::string windowName;
    ReadText(stmt, column, windowName);
    item->displayWindow = TarvoDisclaimerWindowFromName(windowName);
    for (std::string* text : {&item->version, &item->title, &item->intro, &item->details, &item->button1,
                              &item->button2, &item->button3, &item->button4, &item->button5, &item->button6,
                              &item->button7, &item->button8, &item->button9, &item->button10}) {
        ReadText(stmt, column, *text);
    }
    ReadBool(stmt, column, item->isAgreed);
    ReadBool(stmt, column, item->isAgreementPut);
    ReadText(stmt, column, item->countryCode);
    ReadBool(stmt, column, item->isOnlyNotice);
    ReadBool(stmt, column, item->isVisibleAtPnP);
    ReadBool(stmt, column, item->isVisibleAtMenu);
    ReadBool(stmt, column, item->isVisibleAtHotel);
    ReadText(stmt, column, item->agreeDependency);
    ReadBool(stmt, column, item->isCheckVoiceRec);
    ReadBool(stmt, column, item->isCheckUHDRM);
    ReadBool(stmt, column, item->isCheckUHD);
    ReadBool(stmt, column, item->isPPused);
    ReadBool(stmt, column, item->isReverse);
    ReadBool(stmt, column, item->hasRevised);
    ReadText(stmt, column, item->subLink);
    ReadBool(stmt, column, item->isForOstrel);
    return item;
}

}  // namespace

bool CTarvoInternalData::m_CreateDisclaimerTable() {
    TARVO_LOGD("***********%s***********", m_DisclaimerTableSql[0]);
    if (!m_InitSqliteStatement(m_pDB, m_pDisclaimerCreateStmt, m_DisclaimerTableSql[0])) return false;
    int ret = sqlite3_step(m_pDisclaimerCreateStmt);
    TARVO_LOGD("create table result %d", ret);
    return ret == SQLITE_DONE;
}

int CTarvoInternalData::m_InsertDisclaimerTable(const TarvoDisclaimerDataItem* item) {
    ++m_AgreementGeneration;
    if (!m_InitSqliteStatement(m_pDB, m_pDisclaimerInsertStmt, m_DisclaimerTableSql[1])) return 0;
    const std::string windowName = TarvoDisclaimerWindowName(item->displayWindow);
    sqlite3_bind_text(m_pDisclaimerInsertStmt, 1, item->id.c_str(), -1, SQLITE_STATIC);
    BindFields(m_pDisclaimerInsertStmt, 2, item, windowName);
    int ret = sqlite3_step(m_pDisclaimerInsertStmt);
    if (ret == SQLITE_DONE) {
        TARVO_LOGD("insert data (%s) success!", item->id.c_str());
        return 0;
    }
    TARVO_LOGW("insert data (%s) fail! result code(%d)!", item->id.c_str(), ret);
    return 1;
}

int CTarvoInternalData::m_UpdateDisclaimerTable(const TarvoDisclaimerDataItem* item) {
    ++m_AgreementGeneration;
    if (!m_InitSqliteStatement(m_pDB, m_pDisclaimerUpdateStmt, m_DisclaimerTableSql[2])) return 0;
    const std::string windowName = TarvoDisclaimerWindowName(item->displayWindow);
    BindFields(m_pDisclaimerUpdateStmt, 1, item, windowName);
    sqlite3_bind_text(m_pDisclaimerUpdateStmt, 33, item->id.c_str(), -1, SQLITE_STATIC);
    int ret = sqlite3_step(m_pDisclaimerUpdateStmt);
    if (ret == SQLITE_DONE) {
        TARVO_LOGD("update data (%s) success!", item->id.c_str());
        return 0;
    }
    TARVO_LOGW("update data (%s) fail! result code(%d)!", item->id.c_str(), ret);
    return 1;
}

int CTarvoInternalData::m_DeleteDisclaimerTable(const TarvoDisclaimerDataItem* item) {
    ++m_AgreementGeneration;
    if (!m_InitSqliteStatement(m_pDB, m_pDisclaimerDeleteStmt, m_DisclaimerTableSql[4])) return 0;
    sqlite3_bind_text(m_pDisclaimerDeleteStmt, 1, item->id.c_str(), -1, SQLITE_STATIC);
    int ret = sqlite3_step(m_pDisclaimerDeleteStmt);
    if (ret == SQLITE_DONE) {
        TARVO_LOGD("delete data (%s) success!", item->id.c_str());
        return 0;
    }
    TARVO_LOGW("delete data (%s) fail! result code(%d)!", item->id.c_str(), ret);
    return 1;
}

int CTarvoInternalData::m_LoadDisclaimerItems(std::vector<TarvoDisclaimerDataItem*>& items) {
    if (!m_InitSqliteStatement(m_pDB, m_pDisclaimerSelectStmt, m_DisclaimerTableSql[3])) return 0;
    int ret = SQLITE_ROW;
    while ((ret = sqlite3_step(m_pDisclaimerSelectStmt)) == SQLITE_ROW) {
        items.push_back(ReadRow(m_pDisclaimerSelectStmt));
    }
    if (ret == SQLITE_DONE) {
        TARVO_LOGD("load disclaimer data success! num(%d)...", static_cast<int>(items.size()));
        return 0;
    }
    TARVO_LOGW("load disclaimer data fail! num(%d) result code(%d)", static_cast<int>(items.size()), ret);
    return 1;
}
