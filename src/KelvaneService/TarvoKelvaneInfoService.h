// The info service: answers disclaimer requests from the store or by starting the job factory,
// fetches the country list, carries out the factory's server requests and guards the wait for the
// device values with a 90-second alarm. Owns the factory and the alarms; all its events and the
// alarm's callback run on the shared worker "CTarvoDataControlService", so it takes no lock.
#pragma once

#include <Sedge/Sedge.h>
#include <bracken/ser.h>

#include <memory>

#include "TarvoTypes.h"

class CTarvoKelvaneDataFactory;

class CTarvoKelvaneInfoService {
  public:
    CTarvoKelvaneInfoService();
    ~CTarvoKelvaneInfoService();
    CTarvoKelvaneInfoService(const CTarvoKelvaneInfoService&) = delete;
    CTarvoKelvaneInfoService& operator=(const CTarvoKelvaneInfoService&) = delete;

    bool Create();
    void Destroy();
    // Posts a copy of `event` to the worker; the caller keeps the original.
    void SendEvent(Sedge::TCEvent* event);
    void Do(bracken::ser::Job* job);

  protected:
    bool t_OnEvent(Sedge::TCEvent event);
    void t_Clear(Sedge::TCEvent* event);

  private:
    void m_RequestGetDisclaimer(ETarvoKelvaneDisclaimerRequester requester);
    void m_ProcessRequestInfo(ETarvoKelvaneOpenApiType type);
    static bool m_NimbraTimeoutCallBack(void* user);
    void m_ProcessRequestingCountryCodeList();
    void m_ProcessRequestingDisclaimer(ETarvoKelvaneDisclaimerRequester requester);
    void m_StopNimbraTimeoutAlarm();

    CTarvoKelvaneDataFactory* m_pDataFactory;
    Sedge::TCAlarm* m_pNimbraTimeoutAlarm;
    // Whichever of value-ready and time-out comes first takes the wait; the other is ignored.
    bool m_bValueEventArrived;
    Sedge::TCAlarm* m_pReservedAlarm;
    std::shared_ptr<bracken::ser::Worker> m_pWorker;
};
