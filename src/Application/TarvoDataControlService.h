// The module's entry: the framework's service and proxy objects, found by the host through
// g_service, g_service_proxy and g_service_name, and the process-wide CTarvoDataControlService
// that runs the main event loop on the worker "CTarvoDataControlService" and answers client
// calls on the framework's call thread. It has no lock: its pointers are written once, on the worker.
#pragma once

#include <Sedge/Sedge.h>
#include <bracken/ser.h>

#include <memory>
#include <string>

#include "TarvoTypes.h"

class CTarvoKelvaneInfoService;
class CTarvoDisclaimerAgreement;
class TarvoDisclaimerDataItem;

class TarvoDataControlService : public bracken::ser::Service {
  public:
    TarvoDataControlService();
    ~TarvoDataControlService() override;

  protected:
    bool OnStart() override;
    bool OnStop() override;
};

class TarvoDataControlServiceProxy : public bracken::ser::ServiceProxy {
  public:
    TarvoDataControlServiceProxy();
    ~TarvoDataControlServiceProxy() override;
    Sedge::TCMessage OnCallAPI(Sedge::TCMessage& message) override;
};

// Looked up by name with dlsym, so they keep these names and default visibility; the label
// keeps the std::string's symbol free of the library's ABI tag.
extern "C++" {
extern __attribute__((visibility("default"))) std::string g_service_name __asm__("g_service_name");
extern __attribute__((visibility("default"))) TarvoDataControlService* g_service;
extern __attribute__((visibility("default"))) TarvoDataControlServiceProxy* g_service_proxy;
}

class CTarvoDataControlService {
  public:
    // No lock: the first call happens in the static initialiser, on the loading thread.
    static CTarvoDataControlService* GetInstance();

    bool Create();
    void SendNotification(const Sedge::TCMessage* message);
    // Posts a copy of `event` to the service's worker; an event for a missing service is dropped.
    bool SendEvent(Sedge::TCEvent* event, ETarvoServiceName service);
    Sedge::TCMessage OnCallAPI(Sedge::TCMessage& message);

  protected:
    void t_OnTerminate();
    bool t_OnEvent(Sedge::TCEvent event);

  private:
    friend class TarvoDataControlServiceProxy;

    explicit CTarvoDataControlService(const char* name);
    ~CTarvoDataControlService();
    CTarvoDataControlService(const CTarvoDataControlService&) = delete;
    CTarvoDataControlService& operator=(const CTarvoDataControlService&) = delete;

    void m_SetCommunicationServer(bracken::ser::IServiceProxy* server);

    static int m_PowerOffCallback(int state, void* userData);
    static int m_WakeupCallback(int state, void* userData);

    // The 21 keys of one disclaimer on the client API, written over same-named keys of `out`.
    void m_SetDisclaimerUIInfo(const TarvoDisclaimerDataItem& item, Json::Value& out);
    // Client methods behind OnCallAPI, one each; they read `request` and fill `reply`.
    void m_GetDisclaimerNumber(const Json::Value& request, Json::Value& reply);
    void m_GetDisclaimerByOrder(const Json::Value& request, Json::Value& reply);
    void m_GetDisclaimerByTermId(const Json::Value& request, Json::Value& reply);
    void m_RequestUpdateDisclaimers(const Json::Value& request, Json::Value& reply);
    void m_GetCountryCodeList(Json::Value& reply);
    void m_RequestCountryCodeList();
    void m_SetOneAgreement(const Json::Value& request, Json::Value& reply);
    void m_SetAgreements(const Json::Value& request);
    void m_SetAllAgreement(const Json::Value& request);
    void m_RequestResetOstrel(Json::Value& reply);
    void m_GetRevisedDisclaimers(Json::Value& reply);
    void m_SetCountryCode(const Json::Value& request, Json::Value& reply);

    // Empties the store and tells clients which answers that took back.
    void m_DataControlReset(ETarvoResetRequestType type);
    // Notifies clients of changed answers, then asks for the upload and the revised check.
    void m_BroadcastAgreement(const std::string& agreements);
    // Keeps "db/tarvodatacontrol/disclaimer_revised" in step with the store; worker only.
    void m_CheckRevisedTerms();

    static CTarvoDataControlService* m_instance;

    std::shared_ptr<bracken::ser::Worker> m_pWorker;
    bracken::ser::IServiceProxy* m_pCommunicationServer;
    CTarvoKelvaneInfoService* m_pKelvaneInfoServ;
    CTarvoDisclaimerAgreement* m_pDisclaimerAgreement;
    Sedge::TCAlarm* m_pAlarm;
};
