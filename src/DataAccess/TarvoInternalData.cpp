// The store's file: opening, checking, resetting and closing it, and the info table.
#include "TarvoInternalData.h"

#include <errno.h>
#include <factory_data.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <tarvo/platform.h>
#include <unistd.h>
#include <vconf.h>

#include <utility>

#include "TarvoLog.h"

// The reset's abort holds in every build, release builds included.
#undef NDEBUG
#include <assert.h>

namespace {
const int kOpenFlags =
    SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_SHAREDCACHE;
const char* const kResetFlagKey = "db/tarvodatacontrol/data_db_reset";
const int kCloneImportItem = 273;
const char* const kCurrentDBVersion = "1.0";
// Marks a version that this very run created with the info table.
const char* const kDefaultDBVersion = "default";
const int kXMLDataKey = 0;
const int kOSDLanguageKey = 1;
const int kDBVersionKey = 2;

// The file may come from a USB stick: nothing stored in it (triggers, views, functions in its
// schema) may run on this connection, and no statement may rewrite its schema behind SQLite.
void RefuseCodeInTheFile(sqlite3* db) {
#ifdef SQLITE_DBCONFIG_ENABLE_TRIGGER
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
#endif
#ifdef SQLITE_DBCONFIG_ENABLE_VIEW
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
#endif
#ifdef SQLITE_DBCONFIG_DEFENSIVE
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
#endif
#ifdef SQLITE_DBCONFIG_TRUSTED_SCHEMA
    sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
#endif
}

// sqlite3_open_v2 with the store's flags, on a connection that runs nothing of the file's own.
int OpenDataBase(const std::string& path, sqlite3** db) {
    const int ret = sqlite3_open_v2(platform_path(path).c_str(), db, kOpenFlags, nullptr);
    if (ret == SQLITE_OK) RefuseCodeInTheFile(*db);
    // Syncs the folder after each commit removes its journal: a power cut could otherwise bring
    // the journal back, and the next open would roll an acknowledged answer away.
    if (ret == SQLITE_OK) sqlite3_exec(*db, "PRAGMA synchronous=EXTRA", nullptr, nullptr, nullptr);
    // The records live in memory and the file is read once at start: SQLite's usual 2 MiB page
    // cache would only keep the pages a sync wrote resident on a set with little memory.
    if (ret == SQLITE_OK) sqlite3_exec(*db, "PRAGMA cache_size=-256", nullptr, nullptr, nullptr);
    return ret;
}
}  // namespace

CTarvoInternalData* CTarvoInternalData::m_Instance = nullptr;
const char* const CTarvoInternalData::m_DataDirectory =
    "/opt/usr/apps/org.mirlo.tarvodatacontrol-service/data/";
const char* const CTarvoInternalData::m_DataFileName = "data.db";

const char* CTarvoInternalData::m_InfoTableSql[5] = {
    "CREATE TABLE table_tarvo_data_control_info ( \t\tkey int not null  primary key, \t\tvalue text\t\t)",
    "INSERT INTO table_tarvo_data_control_info \t\t(key, value) \t\tVALUES (:KEY, :VALUE)",
    "UPDATE table_tarvo_data_control_info SET \t\tvalue = :VALUE \t\tWHERE key = :KEY",
    "SELECT value FROM table_tarvo_data_control_info \t\tWHERE key = :KEY",
    "DELETE FROM table_tarvo_data_control_info \t\tWHERE key = :KEY",
};

const char* CTarvoInternalData::m_tableExistSql =
    "SELECT 1 FROM sqlite_master WHERE type='table' AND name= :NAME";

CTarvoInternalData* CTarvoInternalData::GetInstance() {
    if (m_Instance == nullptr) m_Instance = new CTarvoInternalData();
    return m_Instance;
}

void CTarvoInternalData::Destroy() {
    if (m_Instance == nullptr) return;
    delete m_Instance;
    m_Instance = nullptr;
}

CTarvoInternalData::CTarvoInternalData()
    : m_ReverseOSD(false),
      m_pDB(nullptr),
      m_pInfoCreateStmt(nullptr),
      m_pInfoInsertStmt(nullptr),
      m_pInfoUpdateStmt(nullptr),
      m_pInfoSelectStmt(nullptr),
      m_pInfoDeleteStmt(nullptr),
      m_pDisclaimerCreateStmt(nullptr),
      m_pDisclaimerInsertStmt(nullptr),
      m_pDisclaimerUpdateStmt(nullptr),
      m_pDisclaimerSelectStmt(nullptr),
      m_pDisclaimerDeleteStmt(nullptr),
      m_pTableExistStmt(nullptr),
      m_XMLDataLoaded(false),
      m_OSDLanguageLoaded(false),
      m_DBVersionLoaded(false) {
    m_Mutex.Create();
    m_AgreementJson.clear();
}

// The records are Finalize's to delete; only the map's nodes go here.
CTarvoInternalData::~CTarvoInternalData() { m_Mutex.Destroy(); }

bool CTarvoInternalData::Initialize() {
    Sedge::TCMutexGuard guard(m_Mutex);
    TARVO_LOGI("Initialize Begin...");
    if (!m_InitialDataBase()) {
        TARVO_LOGW("Initial Data Base Fail!");
        return false;
    }
    if (!m_IsCorrectDBVersion()) {
        TARVO_LOGW("m_IsCorrectDBVersion is false");
        ResetDataBase();
        if (!m_InitialDataBase()) {
            TARVO_LOGW("Initial Data Base Fail!");
            return false;
        }
    }
    m_SetCorrectDBVersion();
    m_InitialDisclaimerInfo();
    return true;
}

void CTarvoInternalData::Finalize() {
    Sedge::TCMutexGuard guard(m_Mutex);
    for (auto& entry : m_DisclaimerItems) {
        delete entry.second;
        entry.second = nullptr;
    }
    m_DisclaimerItems.clear();
    m_RegisteredDisclaimers.clear();
    m_CloseDataBase();
}

bool CTarvoInternalData::m_InitialDataBase() {
    std::string path = std::string(m_DataDirectory) + m_DataFileName;

    int resetFlag = 0;
    vconf_get_int(kResetFlagKey, &resetFlag);
    TARVO_LOGD("current file reset flag is %d", resetFlag);
    if (resetFlag == 1) m_InitialDataBaseFile(path);

    FactoryData data = {};
    if (GetData(kCloneImportItem, &data) != 0 && data.i_val == 1) {
        CopyCloneDataUSBtoTV();
        TARVO_LOGD("SYNC");
        sync();
    }
    m_CloningFileCheck();

    if (m_pDB == nullptr) {
        int ret = OpenDataBase(path, &m_pDB);
        if (ret != SQLITE_OK) {
            TARVO_LOGW("Open DataBase fail(%d), try to create a new database!", ret);
            m_InitialDataBaseFile(path);
            // The handle of the failed open stays behind: the new open writes over it.
            ret = OpenDataBase(path, &m_pDB);
            if (ret != SQLITE_OK) {
                TARVO_LOGW("Open DataBase fail(%d)!", ret);
                m_pDB = nullptr;
                return false;
            }
        }
        vconf_set_int(kResetFlagKey, 0);
    }

    if (m_IsTableExist("table_tarvo_data_control_info")) {
        TARVO_LOGD("table table_tarvo_data_control_info exist");
    } else {
        TARVO_LOGI("table table_tarvo_data_control_info doesn't exist, create table");
        m_DBVersion = kDefaultDBVersion;
        if (!m_CreateInfoTable()) {
            TARVO_LOGW("create info table fail!");
            m_InitialDataBaseFile(path);
            return false;
        }
    }

    if (m_IsTableExist("table_tarvo_data_disclaimer_info")) {
        TARVO_LOGD("table table_tarvo_data_disclaimer_info exist");
    } else {
        TARVO_LOGI("table table_tarvo_data_disclaimer_info doesn't exist, create table");
        if (!m_CreateDisclaimerTable()) {
            TARVO_LOGW("create disclaimer table fail!");
            m_InitialDataBaseFile(path);
            return false;
        }
    }
    return true;
}

void CTarvoInternalData::m_InitialDataBaseFile(std::string& path) {
    if (path.empty()) {
        TARVO_LOGW("path is empty!");
        return;
    }
    if (access(platform_path(path).c_str(), F_OK) == 0) {
        if (unlink(platform_path(path).c_str()) != 0) {
            TARVO_LOGW("remove original database fail %d!", errno);
            return;
        }
        TARVO_LOGD("SYNC");
        sync();
    }

    std::vector<char> buffer(path.begin(), path.end());
    buffer.push_back('\0');
    for (size_t i = 1; buffer[i] != '\0'; ++i) {
        if (buffer[i] != '/') continue;
        buffer[i] = '\0';
        const std::string prefix = platform_path(buffer.data());
        if (access(prefix.c_str(), F_OK) != 0 && mkdir(prefix.c_str(), 0755) != 0) {
            TARVO_LOGW("create directory %s fail", buffer.data());
            break;
        }
        buffer[i] = '/';
    }
}

bool CTarvoInternalData::m_IsTableExist(const char* name) {
    if (!m_InitSqliteStatement(m_pDB, m_pTableExistStmt, m_tableExistSql)) return false;
    sqlite3_bind_text(m_pTableExistStmt, 1, name, -1, SQLITE_STATIC);
    return sqlite3_step(m_pTableExistStmt) == SQLITE_ROW;
}

bool CTarvoInternalData::m_CreateInfoTable() {
    if (!m_InitSqliteStatement(m_pDB, m_pInfoCreateStmt, m_InfoTableSql[0])) return false;
    int ret = sqlite3_step(m_pInfoCreateStmt);
    TARVO_LOGD("create table result %d", ret);
    return ret == SQLITE_DONE;
}

void CTarvoInternalData::m_CloseDataBase() {
    TARVO_LOGI("close data file");
    Sedge::TCMutexGuard guard(m_Mutex);
    if (m_pDB == nullptr) {
        m_XMLDataLoaded = m_OSDLanguageLoaded = m_DBVersionLoaded = false;
        return;
    }
    sqlite3_stmt** infoStmts[5] = {&m_pInfoCreateStmt, &m_pInfoInsertStmt, &m_pInfoUpdateStmt,
                                   &m_pInfoSelectStmt, &m_pInfoDeleteStmt};
    sqlite3_stmt** disclaimerStmts[5] = {&m_pDisclaimerCreateStmt, &m_pDisclaimerInsertStmt,
                                         &m_pDisclaimerUpdateStmt, &m_pDisclaimerSelectStmt,
                                         &m_pDisclaimerDeleteStmt};
    for (int i = 0; i < 5; ++i) {
        for (sqlite3_stmt** stmt : {infoStmts[i], disclaimerStmts[i]}) {
            if (*stmt == nullptr) continue;
            int ret = sqlite3_finalize(*stmt);
            TARVO_LOGD("finalize data file : %d %d", i, ret);
            *stmt = nullptr;
        }
    }
    if (m_pTableExistStmt != nullptr) {
        int ret = sqlite3_finalize(m_pTableExistStmt);
        TARVO_LOGD("finalize data file : %d", ret);
        m_pTableExistStmt = nullptr;
    }
    int ret = sqlite3_close(m_pDB);
    TARVO_LOGI("close data file : %d", ret);
    m_pDB = nullptr;
    m_XMLDataLoaded = m_OSDLanguageLoaded = m_DBVersionLoaded = false;
}

void CTarvoInternalData::ResetDataBase() {
    m_CloseDataBase();
    std::string path = std::string(m_DataDirectory) + m_DataFileName;
    m_InitialDataBaseFile(path);
    int liRet = OpenDataBase(path, &m_pDB);
    if (liRet != SQLITE_OK) {
        TARVO_LOGW("Reset DataBase fail(%d), exit process with assert!!!", liRet);
        m_pDB = nullptr;
        assert(0 == liRet);
    }
}

bool CTarvoInternalData::m_InitSqliteStatement(sqlite3*& db, sqlite3_stmt*& stmt, const char*& text) {
    if (stmt != nullptr) {
        int ret = sqlite3_reset(stmt);
        if (ret == SQLITE_OK) ret = sqlite3_clear_bindings(stmt);
        if (ret == SQLITE_OK) return true;
        // A failed previous step fails this use; the next one prepares afresh.
        sqlite3_finalize(stmt);
        stmt = nullptr;
        return false;
    }
    int ret = sqlite3_prepare_v2(db, text, -1, &stmt, nullptr);
    if (ret == SQLITE_OK) return true;
    TARVO_LOGW("prepare fail(%d)!", ret);
    sqlite3_finalize(stmt);
    stmt = nullptr;
    return false;
}

int CTarvoInternalData::m_SelectInfoTable(int key, std::string& value) {
    if (!m_InitSqliteStatement(m_pDB, m_pInfoSelectStmt, m_InfoTableSql[3])) return 0;
    sqlite3_bind_int(m_pInfoSelectStmt, 1, key);
    int ret = sqlite3_step(m_pInfoSelectStmt);
    if (ret == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(m_pInfoSelectStmt, 0);
        if (text != nullptr) value = reinterpret_cast<const char*>(text);
        TARVO_LOGD("load data (%d) success! result(%s)...", key, value.c_str());
        return 0;
    }
    if (ret == SQLITE_DONE) {
        TARVO_LOGD("load data (%d) success! empty!", key);
        return 2;
    }
    TARVO_LOGW("load data (%d) fail! result code(%d)!", key, ret);
    return 1;
}

int CTarvoInternalData::m_InsertInfoTable(int key, const std::string& value) {
    if (!m_InitSqliteStatement(m_pDB, m_pInfoInsertStmt, m_InfoTableSql[1])) return 0;
    sqlite3_bind_int(m_pInfoInsertStmt, 1, key);
    sqlite3_bind_text(m_pInfoInsertStmt, 2, value.c_str(), -1, SQLITE_STATIC);
    int ret = sqlite3_step(m_pInfoInsertStmt);
    if (ret == SQLITE_DONE) {
        TARVO_LOGD("insert data (%d : %s) success!", key, value.c_str());
        return 0;
    }
    TARVO_LOGW("insert data (%d: %s) fail! result code(%d)!", key, value.c_str(), ret);
    return 1;
}

int CTarvoInternalData::m_UpdateInfoTable(int key, const std::string& value) {
    if (!m_InitSqliteStatement(m_pDB, m_pInfoUpdateStmt, m_InfoTableSql[2])) return 0;
    sqlite3_bind_text(m_pInfoUpdateStmt, 1, value.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int(m_pInfoUpdateStmt, 2, key);
    int ret = sqlite3_step(m_pInfoUpdateStmt);
    if (ret == SQLITE_DONE) {
        TARVO_LOGD("update data (%d : %s) success!", key, value.c_str());
        return 0;
    }
    TARVO_LOGW("update data (%d: %s) fail! result code(%d)!", key, value.c_str(), ret);
    return 1;
}

int CTarvoInternalData::m_DeleteInfoTable(int key) {
    if (!m_InitSqliteStatement(m_pDB, m_pInfoDeleteStmt, m_InfoTableSql[4])) return 0;
    sqlite3_bind_int(m_pInfoDeleteStmt, 1, key);
    int ret = sqlite3_step(m_pInfoDeleteStmt);
    if (ret == SQLITE_DONE) {
        TARVO_LOGD("delete data (%d) success!", key);
        return 0;
    }
    TARVO_LOGW("delete data (%d) fail! result code(%d)!", key, ret);
    return 1;
}

void CTarvoInternalData::m_LoadDisclaimerOSDLanguge() {
    if (m_OSDLanguageLoaded) return;
    if (m_SelectInfoTable(kOSDLanguageKey, m_OSDLanguage) == 2)
        m_InsertInfoTable(kOSDLanguageKey, m_OSDLanguage);
    m_OSDLanguageLoaded = true;
}

void CTarvoInternalData::m_LoadDisclaimerXMLData() {
    if (m_XMLDataLoaded) return;
    if (m_SelectInfoTable(kXMLDataKey, m_XMLData) == 2) m_InsertInfoTable(kXMLDataKey, m_XMLData);
    m_XMLDataLoaded = true;
}

void CTarvoInternalData::m_LoadDBVersion() {
    if (m_SelectInfoTable(kDBVersionKey, m_DBVersion) == 2) {
        m_DBVersion.clear();
        m_InsertInfoTable(kDBVersionKey, m_DBVersion);
    }
}

bool CTarvoInternalData::m_IsCorrectDBVersion() {
    if (m_DBVersion == kDefaultDBVersion) return true;
    m_LoadDBVersion();
    TARVO_LOGD("m_DBVersion %s", m_DBVersion.c_str());
    return !m_DBVersion.empty() && m_DBVersion == kCurrentDBVersion;
}

void CTarvoInternalData::m_SetCorrectDBVersion() {
    m_LoadDBVersion();
    m_DBVersion = kCurrentDBVersion;
    m_UpdateInfoTable(kDBVersionKey, m_DBVersion);
}

std::string CTarvoInternalData::GetDisclaimerOSDLanguge() {
    Sedge::TCMutexGuard guard(m_Mutex);
    m_LoadDisclaimerOSDLanguge();
    return m_OSDLanguage;
}

void CTarvoInternalData::SetDisclaimerOSDLanguge(const std::string& language) {
    Sedge::TCMutexGuard guard(m_Mutex);
    m_LoadDisclaimerOSDLanguge();
    m_OSDLanguage = language;
    m_UpdateInfoTable(kOSDLanguageKey, m_OSDLanguage);
}

std::string CTarvoInternalData::GetDisclaimerXMLData() {
    Sedge::TCMutexGuard guard(m_Mutex);
    m_LoadDisclaimerXMLData();
    return m_XMLData;
}

void CTarvoInternalData::SetDisclaimerXMLData(std::string data) {
    Sedge::TCMutexGuard guard(m_Mutex);
    m_LoadDisclaimerXMLData();
    m_XMLData = std::move(data);
    m_UpdateInfoTable(kXMLDataKey, m_XMLData);
}
