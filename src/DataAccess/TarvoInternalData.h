// The disclaimer store: owns the SQLite file "data.db", its prepared statements, the cached info
// rows and the map of disclaimer records. Any thread may call it; one recursive m_Mutex guards all
// of that, and every record leaves the store only as a copy that the receiver frees.
#pragma once

#include <Sedge/Sedge.h>
#include <json/json.h>
#include <sqlite3.h>

#include <map>
#include <string>
#include <vector>

#include "TarvoDisclaimerDataItem.h"

class CTarvoInternalData {
  public:
    static CTarvoInternalData* GetInstance();
    static void Destroy();

    // File, info table and life of the store.
    bool Initialize();
    void Finalize();
    void ResetDataBase();
    std::string GetDisclaimerOSDLanguge();
    void SetDisclaimerOSDLanguge(const std::string& language);
    std::string GetDisclaimerXMLData();
    void SetDisclaimerXMLData(std::string data);

    // Registry and availability.
    bool IsDisclaimerRegistered(std::string id);
    bool IsDisclaimerExist(std::string id);
    bool IsDisclaimerAvailable(const TarvoDisclaimerDataItem* item);
    void SetDisclaimerItem(const TarvoDisclaimerDataItem* item);
    void SetDisclaimerItems(const std::vector<TarvoDisclaimerDataItem*>& items);
    // SetDisclaimerItems when GetAgreementGeneration is still `generation`, in one hold of the
    // mutex; false, and nothing written, when a row changed since (an answer given meanwhile).
    bool SetDisclaimerItemsIfUnchanged(const std::vector<TarvoDisclaimerDataItem*>& items,
                                       unsigned long generation);
    void ClearDisclaimerItems();
    std::map<std::string, TarvoDisclaimerDataItem*>* CopyDisclaimerItems(bool onlyAvailable);
    void DeleteCopyMap(std::map<std::string, TarvoDisclaimerDataItem*>*& map);
    std::vector<TarvoDisclaimerDataItem*>* GetOrderedDisclaimerItems(ETarvoDisclaimerRequester requester);

    // Agreement state.
    void SetAgreement(std::string id, bool agree, std::string& changes);
    bool IsDisclaimerAgreed(std::string id);
    bool IsAgreementPut();
    void SetAgreementPut();
    // How many times a disclaimer row was written, inserted or deleted: an upload reads it before
    // building its document, and marks the answers reported only if no row changed meanwhile.
    unsigned long GetAgreementGeneration();
    // SetAgreementPut when the generation is still `generation`, in one hold of the mutex; false,
    // and nothing marked, when an answer or a record changed since.
    bool SetAgreementPutIfUnchanged(unsigned long generation);

    // Clone copies of the file; they take no lock.
    bool CopyCloneDataTVtoUSB();
    bool CopyCloneDataUSBtoTV();

    // Written by the server processing without the lock.
    bool m_ReverseOSD;
    std::string m_DisclaimerId;

  private:
    CTarvoInternalData();
    ~CTarvoInternalData();
    CTarvoInternalData(const CTarvoInternalData&) = delete;
    CTarvoInternalData& operator=(const CTarvoInternalData&) = delete;

    // File and info table.
    bool m_InitialDataBase();
    void m_InitialDataBaseFile(std::string& path);
    bool m_IsTableExist(const char* name);
    bool m_CreateInfoTable();
    bool m_CreateDisclaimerTable();
    void m_CloseDataBase();
    bool m_InitSqliteStatement(sqlite3*& db, sqlite3_stmt*& stmt, const char*& text);
    int m_SelectInfoTable(int key, std::string& value);
    int m_InsertInfoTable(int key, const std::string& value);
    int m_UpdateInfoTable(int key, const std::string& value);
    int m_DeleteInfoTable(int key);
    void m_LoadDisclaimerOSDLanguge();
    void m_LoadDisclaimerXMLData();
    void m_LoadDBVersion();
    bool m_IsCorrectDBVersion();
    void m_SetCorrectDBVersion();

    // Disclaimer table.
    int m_InsertDisclaimerTable(const TarvoDisclaimerDataItem* item);
    int m_UpdateDisclaimerTable(const TarvoDisclaimerDataItem* item);
    int m_DeleteDisclaimerTable(const TarvoDisclaimerDataItem* item);
    unsigned long m_AgreementGeneration = 0;  // under m_Mutex; see GetAgreementGeneration
    int m_LoadDisclaimerItems(std::vector<TarvoDisclaimerDataItem*>& items);

    // Registry.
    void m_RegisterDisclaimers();
    void m_InitialDisclaimerInfo();
    bool m_IsDisclaimerAvailable(const TarvoDisclaimerDataItem* item);
    static bool CompareDisclaimerOrder(const TarvoDisclaimerDataItem* left,
                                       const TarvoDisclaimerDataItem* right);
    static bool CompareDisclaimerWindowOrder(const TarvoDisclaimerDataItem* left,
                                             const TarvoDisclaimerDataItem* right);

    // Agreement state and its vconf mirrors.
    void m_GetSubLinkAgreement(std::string subLink, bool& agreed);
    void m_SetSubLinkAgreement(std::string subLink, std::string& changes, bool agree);
    void m_InitDisclaimerAgreementVconf();
    bool m_SetDisclaimerAgreementVconf(const TarvoDisclaimerDataItem* item);
    void m_ResetDisclaimerAgreementVconf();
    void m_CheckDefaultDisclaimerStatus();

    // Clone copies.
    void m_CloningFileCheck();
    bool m_ExecuteCopy(std::string from, std::string to);

    // Guards every member below, the records in m_DisclaimerItems included.
    Sedge::TCMutex m_Mutex;
    sqlite3* m_pDB;
    sqlite3_stmt* m_pInfoCreateStmt;
    sqlite3_stmt* m_pInfoInsertStmt;
    sqlite3_stmt* m_pInfoUpdateStmt;
    sqlite3_stmt* m_pInfoSelectStmt;
    sqlite3_stmt* m_pInfoDeleteStmt;
    sqlite3_stmt* m_pDisclaimerCreateStmt;
    sqlite3_stmt* m_pDisclaimerInsertStmt;
    sqlite3_stmt* m_pDisclaimerUpdateStmt;
    sqlite3_stmt* m_pDisclaimerSelectStmt;
    sqlite3_stmt* m_pDisclaimerDeleteStmt;
    sqlite3_stmt* m_pTableExistStmt;
    bool m_XMLDataLoaded;
    bool m_OSDLanguageLoaded;
    bool m_DBVersionLoaded;
    std::string m_OSDLanguage;
    std::string m_XMLData;
    std::string m_DBVersion;
    std::vector<std::string> m_RegisteredDisclaimers;
    std::map<std::string, TarvoDisclaimerDataItem*> m_DisclaimerItems;
    std::string m_Reserved;
    Json::Value m_AgreementJson;

    static CTarvoInternalData* m_Instance;
    // Statement texts in the order create, insert, update, select, delete.
    static const char* m_InfoTableSql[5];
    static const char* m_DisclaimerTableSql[5];
    static const char* m_tableExistSql;
    static const char* const m_DataDirectory;
    static const char* const m_DataFileName;
};
