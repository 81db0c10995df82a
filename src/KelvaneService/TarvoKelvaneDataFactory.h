// The job factory: a queue of server jobs worked one at a time, the resource protocol with the info
// service, and the reading and merging of the server's two JSON answers into the store. Owned by the
// info service; everything runs on the shared worker "CTarvoDataControlService" and needs no lock,
// except m_changed_handler, which runs on vconf's thread and only reads device values and posts.
#pragma once

#include <json/json.h>
#include <vconf.h>

#include <list>
#include <map>
#include <string>

#include "TarvoDisclaimerDataItem.h"
#include "TarvoTypes.h"

enum ETarvoKelvaneFactoryState {
    FACTORY_STATE_IDLE = 0,
    FACTORY_STATE_WAITING_RESOURCE = 1,
    FACTORY_STATE_WORKING = 2,
    FACTORY_STATE_IN_TROUBLE = 3,
};

class CTarvoKelvaneDataFactory {
  public:
    CTarvoKelvaneDataFactory();
    ~CTarvoKelvaneDataFactory();
    CTarvoKelvaneDataFactory(const CTarvoKelvaneDataFactory&) = delete;
    CTarvoKelvaneDataFactory& operator=(const CTarvoKelvaneDataFactory&) = delete;

    bool AssignJob(ETarvoKelvaneOpenApiType type);
    bool PlugInJob(ETarvoKelvaneOpenApiType type);
    void StartFactory();
    void StartAgainFactory();
    void StopFactory();
    // Takes ownership of `data`, a zero-ended array made with new[].
    void GiveResource(ETarvoKelvaneOpenApiType type, char* data, unsigned size);
    void GiveResourceFailed(ETarvoKelvaneOpenApiType type, int errorCode);

    // Read by the info service to know whether a resource is awaited.
    ETarvoKelvaneFactoryState m_state;

  private:
    bool m_CheckReady();
    void m_StartMonitoringValue();
    void m_StopMonitoringValue();
    static void m_changed_handler(keynode_t* node, void* user);
    bool m_ProcessBatchJob();
    void m_EnterTrouble();
    void m_CheckJob(ETarvoKelvaneOpenApiType type, bool& ok);
    void m_CheckRecollectingDisclaimerResult(ETarvoKelvaneOpenApiType type);
    bool m_RequestResource(ETarvoKelvaneOpenApiType type);
    unsigned m_GetInternalEventType(ETarvoKelvaneOpenApiType type);
    void m_ProcessXMLData(ETarvoKelvaneOpenApiType type, char* data, unsigned size);
    bool m_GetUpdateNotice(bool first);
    bool m_GetDisclaimer(bool first);

    // The update notice ("checkversion") and the revised check of one record.
    void m_ProcessUpdateNoticeJson(char* text, unsigned size);
    bool m_CheckNeedGetDisclaimer(std::map<std::string, std::string>& versions);
    void m_SetRevisedDisclaimer(TarvoDisclaimerDataItem& item);

    // The disclaimers answer and its merge into the store.
    void m_ProcessServiceDisclaimerJson(char* text, unsigned size);
    void m_ReadDisclaimerContent(Json::Value& content, TarvoDisclaimerDataItem& item);
    void m_ReadPPDetails(Json::Value& content, TarvoDisclaimerDataItem& item);
    void m_SetDisclaimerContentItems(const std::map<std::string, TarvoDisclaimerDataItem*>& newItems);
    void m_MergeDisclaimerItems(const std::map<std::string, TarvoDisclaimerDataItem*>& newItems,
                                const std::map<std::string, TarvoDisclaimerDataItem*>& oldItems,
                                bool sameOsdLanguage, const std::string& country,
                                std::vector<TarvoDisclaimerDataItem*>& result);

    // Shared by both answers: parse, and take "rsp" with its "stat"; false on text that is no JSON.
    bool m_ParseAnswer(const char* text, Json::Value& root);
    void m_ReadErrorAnswer(Json::Value& rsp);

    bool m_GetJsonStringValue(std::string& out, Json::Value& parent, const char* key);
    bool m_GetJsonArrayValue(Json::Value& out, Json::Value& parent, const char* key);
    bool m_GetJsonNodeValue(Json::Value& out, Json::Value& parent, const char* key);
    int m_GetLastErrorCode();
    void m_SetLastErrorCode(int code);

    std::list<ETarvoKelvaneOpenApiType> m_jobs;
    int m_lastErrorCode;
};
