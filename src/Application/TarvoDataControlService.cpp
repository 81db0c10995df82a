#include "TarvoDataControlService.h"

#include <functional>

#include "TarvoDisclaimerAgreement.h"
#include "TarvoInternalData.h"
#include "TarvoKelvaneInfoService.h"
#include "TarvoLog.h"

// One initialiser, in this order: the name, the service, then the proxy that gives
// notifications their way out.
std::string g_service_name = "tarvodatacontrol";
TarvoDataControlService* g_service = new TarvoDataControlService;
TarvoDataControlServiceProxy* g_service_proxy = new TarvoDataControlServiceProxy;

TarvoDataControlService::TarvoDataControlService() : bracken::ser::Service("tarvodatacontrol") {
    CTarvoDataControlService::GetInstance();
}

// The singleton outlives the framework objects: nothing here touches it.
TarvoDataControlService::~TarvoDataControlService() = default;

bool TarvoDataControlService::OnStart() {
    CTarvoDataControlService::GetInstance()->Create();
    return true;
}

bool TarvoDataControlService::OnStop() { return true; }

TarvoDataControlServiceProxy::TarvoDataControlServiceProxy()
    : bracken::ser::ServiceProxy("tarvodatacontrol") {
    CTarvoDataControlService::GetInstance()->m_SetCommunicationServer(this);
}

TarvoDataControlServiceProxy::~TarvoDataControlServiceProxy() = default;

Sedge::TCMessage TarvoDataControlServiceProxy::OnCallAPI(Sedge::TCMessage& message) {
    return CTarvoDataControlService::GetInstance()->OnCallAPI(message);
}

CTarvoDataControlService* CTarvoDataControlService::m_instance = nullptr;

// The name is accepted for the framework's sake and kept nowhere.
CTarvoDataControlService::CTarvoDataControlService(const char* /*name*/)
    : m_pCommunicationServer(nullptr),
      m_pKelvaneInfoServ(nullptr),
      m_pDisclaimerAgreement(nullptr),
      m_pAlarm(nullptr) {}

CTarvoDataControlService::~CTarvoDataControlService() { m_pWorker.reset(); }

CTarvoDataControlService* CTarvoDataControlService::GetInstance() {
    if (m_instance == nullptr) {
        m_instance = new CTarvoDataControlService("tarvodatacontrol");
    }
    return m_instance;
}

bool CTarvoDataControlService::Create() {
    TARVO_LOGI("Data Control Service Create!");
    m_pWorker = bracken::ser::WorkerFactory::Get()->GetWorker("CTarvoDataControlService");
    TARVO_LOGI("send MESSAGE_TARVODATA_CONTROL_SERVICE_INIT");
    Sedge::TCEvent event;
    event.type = MESSAGE_TARVODATA_CONTROL_SERVICE_INIT;
    SendEvent(&event, DATA_CONTROL_MAIN_SERV);
    return true;
}

void CTarvoDataControlService::m_SetCommunicationServer(bracken::ser::IServiceProxy* server) {
    m_pCommunicationServer = server;
}

void CTarvoDataControlService::SendNotification(const Sedge::TCMessage* message) {
    Sedge::TCMessage copy(*message);
    m_pCommunicationServer->SendNotification(copy);
}

// The place for teardown; nothing in the service calls it.
void CTarvoDataControlService::t_OnTerminate() {
    delete m_pDisclaimerAgreement;
    m_pDisclaimerAgreement = nullptr;
    if (m_pKelvaneInfoServ != nullptr) {
        m_pKelvaneInfoServ->Destroy();
        delete m_pKelvaneInfoServ;
        m_pKelvaneInfoServ = nullptr;
    }
    if (m_pAlarm != nullptr) {
        if (m_pAlarm->m_bCreated) {
            m_pAlarm->Destroy();
        }
        delete m_pAlarm;
        m_pAlarm = nullptr;
    }
    CTarvoInternalData::GetInstance()->Finalize();
}

bool CTarvoDataControlService::SendEvent(Sedge::TCEvent* event, ETarvoServiceName service) {
    switch (service) {
        case DATA_CONTROL_MAIN_SERV: {
            Sedge::TCEvent copy(*event);
            copy.target = m_pWorker ? m_pWorker.get() : nullptr;
            std::function<void()> fn = [this, copy]() { t_OnEvent(copy); };
            bracken::ser::Job* job = new bracken::ser::Job(fn);
            TARVO_LOGD("Sending event to DATA_CONTROL_MAIN_SERV %p type %d", static_cast<void*>(copy.target),
                       copy.type);
            // Not tested for null: the worker exists from Create on, and clients ask for
            // "is service available" before anything that posts here.
            m_pWorker->Do(job);
            break;
        }
        case KELVANE_INFO_SERV:
            if (m_pKelvaneInfoServ != nullptr) {
                m_pKelvaneInfoServ->SendEvent(event);
            }
            break;
        case DISCLAIMER_AGREEMENT_SERV:
            if (m_pDisclaimerAgreement != nullptr) {
                m_pDisclaimerAgreement->SendEvent(event);
            }
            break;
        default:
            break;
    }
    return true;
}
