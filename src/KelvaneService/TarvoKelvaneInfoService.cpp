#include "TarvoKelvaneInfoService.h"

#include <atomic>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <string>

#include "TarvoDataControlService.h"
#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoKelvaneConnector.h"
#include "TarvoKelvaneDataFactory.h"
#include "TarvoLog.h"

namespace {

constexpr unsigned long kNimbraTimeoutMs = 90000;
constexpr const char* kWorkerName = "CTarvoDataControlService";

}  // namespace

CTarvoKelvaneInfoService::CTarvoKelvaneInfoService()
    : m_pDataFactory(nullptr),
      m_pNimbraTimeoutAlarm(nullptr),
      m_bValueEventArrived(false),
      m_pReservedAlarm(nullptr) {}

// Only the worker reference goes here; Destroy releases the rest.
CTarvoKelvaneInfoService::~CTarvoKelvaneInfoService() { m_pWorker.reset(); }

bool CTarvoKelvaneInfoService::Create() {
    TARVO_LOGI("TarvoKelvaneInfoService Create...");
    // The main service's worker: the events of both services run one after another.
    // Published atomically: the main service hands this object out before Create, and a client's
    // request may post here from its own thread meanwhile.
    std::atomic_store(&m_pWorker, bracken::ser::WorkerFactory::Get()->GetWorker(kWorkerName));
    if (m_pDataFactory == nullptr) m_pDataFactory = new CTarvoKelvaneDataFactory();
    if (m_pNimbraTimeoutAlarm != nullptr) return true;
    m_pNimbraTimeoutAlarm = new Sedge::TCAlarm();
    m_pNimbraTimeoutAlarm->Create(m_pWorker.get(), kNimbraTimeoutMs, 0);
    m_pNimbraTimeoutAlarm->SetAlarmCallback(m_NimbraTimeoutCallBack, this);
    return true;
}

void CTarvoKelvaneInfoService::Destroy() {
    delete m_pDataFactory;
    m_pDataFactory = nullptr;
    for (Sedge::TCAlarm** alarm : {&m_pNimbraTimeoutAlarm, &m_pReservedAlarm}) {
        if (*alarm == nullptr) continue;
        if ((*alarm)->m_bCreated) (*alarm)->Destroy();
        delete *alarm;
        *alarm = nullptr;
    }
}

void CTarvoKelvaneInfoService::SendEvent(Sedge::TCEvent* event) {
    Sedge::TCEvent copy(*event);
    std::function<void()> fn = [this, copy]() { t_OnEvent(copy); };
    bracken::ser::Job* job = new bracken::ser::Job(fn);
    TARVO_LOGD("Send event to KELVANE_INFO_SERV %p", static_cast<void*>(job));
    Do(job);
}

void CTarvoKelvaneInfoService::Do(bracken::ser::Job* job) {
    std::shared_ptr<bracken::ser::Worker> worker = std::atomic_load(&m_pWorker);
    // Before Create has taken the worker the job has nowhere to run: dropped, as for a missing service.
    if (worker == nullptr) {
        delete job;
        return;
    }
    worker->Do(job);
}

void CTarvoKelvaneInfoService::t_Clear(Sedge::TCEvent* /*event*/) {}

void CTarvoKelvaneInfoService::m_StopNimbraTimeoutAlarm() {
    TARVO_LOGI("m_pNimbraTimeoutAlarm->Reset(0, 0)");
    m_pNimbraTimeoutAlarm->Reset(0, 0);
}

bool CTarvoKelvaneInfoService::t_OnEvent(Sedge::TCEvent event) {
    TARVO_LOGI("CTarvoKelvaneInfoManager::t_OnEvent....%ld", static_cast<long>(event.type));
    switch (event.type) {
        case MESSAGE_KELVANE_INFO_SERVICE_START_FACTORY:
            m_RequestGetDisclaimer(TARVO_KELVANE_DISCLAIMER_REQUESTER_SERVICE);
            break;
        case MESSAGE_REQUEST_RESET_OSTREL:
            m_pDataFactory->StopFactory();
            m_StopNimbraTimeoutAlarm();
            break;
        case MESSAGE_REQUEST_GET_COUNTRYCODE_LIST:
            m_ProcessRequestingCountryCodeList();
            break;
        case MESSAGE_REQUEST_GET_DISCLAIMER:
            m_ProcessRequestingDisclaimer(
                static_cast<ETarvoKelvaneDisclaimerRequester>(event.data.json["requester"].asInt()));
            break;
        case MESSAGE_NIMBRA_VALUE_ALL_READY:
            if (m_bValueEventArrived) {
                TARVO_LOGI("MESSAGE_NIMBRA_VALUE_ALL_READY another event already arrive");
                break;
            }
            m_bValueEventArrived = true;
            m_pDataFactory->StartAgainFactory();
            break;
        case MESSAGE_NIMBRA_TIMEOUT: {
            CTarvoExternalData* external = CTarvoExternalData::GetInstance();
            TARVO_LOGW("NIMBRA GetCountryCode : %s", external->GetCountryCode().c_str());
            TARVO_LOGW("NIMBRA GetModelID : %s", external->GetModelID().c_str());
            TARVO_LOGW("NIMBRA GetAppsDomains : %s", external->GetAppsDomains().c_str());
            m_StopNimbraTimeoutAlarm();
            m_pDataFactory->StopFactory();
            break;
        }
        case MESSAGE_TARVOPANEL_KELVANE_REQUEST_GET_UPDATE_NOTICE:
            // The first server request is what ends the wait for the device values.
            m_StopNimbraTimeoutAlarm();
            m_ProcessRequestInfo(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE);
            break;
        case MESSAGE_TARVOPANEL_KELVANE_REQUEST_GET_SERVICE_DISCLAIMER:
            m_ProcessRequestInfo(TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER);
            break;
        default:
            break;
    }
    return true;
}

void CTarvoKelvaneInfoService::m_RequestGetDisclaimer(ETarvoKelvaneDisclaimerRequester requester) {
    TARVO_LOGI("MESSAGE_KELVANE_INFO_SERVICE_START_FACTORY requester type %d", static_cast<int>(requester));
    // A busy factory gets only the reporting job, answered from the run under way.
    if (m_pDataFactory->m_state == FACTORY_STATE_IDLE) {
        m_pDataFactory->AssignJob(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE);
    }
    if (requester == TARVO_KELVANE_DISCLAIMER_REQUESTER_APP) {
        m_pDataFactory->AssignJob(TARVO_KELVANE_OPENAPI_TYPE_REPORT_RESULT_APP);
    } else if (requester == TARVO_KELVANE_DISCLAIMER_REQUESTER_WIZARD) {
        m_pDataFactory->AssignJob(TARVO_KELVANE_OPENAPI_TYPE_REPORT_RESULT_WIZARD);
    }
    if (m_pDataFactory->m_state == FACTORY_STATE_IDLE) {
        m_bValueEventArrived = false;
        m_pDataFactory->StartFactory();
    }
}

void CTarvoKelvaneInfoService::m_ProcessRequestInfo(ETarvoKelvaneOpenApiType type) {
    TARVO_LOGI("ETarvoKelvaneOpenApiType = %d", static_cast<int>(type));
    if (m_pDataFactory->m_state != FACTORY_STATE_WAITING_RESOURCE) {
        TARVO_LOGW("factory is not waiting with some reason(perhaps reset...)");
        m_pDataFactory->GiveResourceFailed(type, -1);
        return;
    }
    if (CTarvoKelvaneConnector::RequestGetXMLData(type)) {
        const char* data = CTarvoKelvaneConnector::GetData();
        const unsigned size = CTarvoKelvaneConnector::GetDataSize();
        TARVO_LOGI("dataLength = %d", static_cast<int>(size));
        if (size != 0 && data != nullptr) {
            // The copy always ends in a zero byte; the factory frees it with delete[].
            char* copy = new char[size + 1]();
            memcpy(copy, data, size);
            CTarvoKelvaneConnector::ReleaseConnector();
            m_pDataFactory->GiveResource(type, copy, size);
            return;
        }
        TARVO_LOGW("data == NULL or dataLength <= 0 dataLength = %d", static_cast<int>(size));
    }
    TARVO_LOGW("RequestGetXMLData return false type = %d", static_cast<int>(type));
    CTarvoKelvaneConnector::ReleaseConnector();
    m_pDataFactory->GiveResourceFailed(type, CTarvoKelvaneConnector::GetErrorCode());
}

// Runs on the worker: the alarm posts its expiry there.
bool CTarvoKelvaneInfoService::m_NimbraTimeoutCallBack(void* user) {
    CTarvoKelvaneInfoService* self = static_cast<CTarvoKelvaneInfoService*>(user);
    TARVO_LOGW("m_NimbraTimeoutCallBack");
    if (self->m_bValueEventArrived) {
        TARVO_LOGI("m_NimbraTimeoutCallBack another event already arrive");
        return true;
    }
    CTarvoDataControlService* main = CTarvoDataControlService::GetInstance();
    Sedge::TCEvent timeout;
    timeout.type = MESSAGE_NIMBRA_TIMEOUT;
    main->SendEvent(&timeout, KELVANE_INFO_SERV);

    const int code = CTarvoExternalData::GetInstance()->GetNimbraErrorCode();
    Sedge::TCEvent fail;
    fail.type = MESSAGE_GET_DISCLAIMER_FAIL;
    fail.data.json["error_reason"] = 1;
    fail.data.param = code;
    TARVO_LOGW("Send MESSAGE_GET_DISCLAIMER_FAIL : %d", code);
    main->SendEvent(&fail, DATA_CONTROL_MAIN_SERV);
    self->m_bValueEventArrived = true;
    return true;
}

void CTarvoKelvaneInfoService::m_ProcessRequestingCountryCodeList() {
    CTarvoExternalData* external = CTarvoExternalData::GetInstance();
    Sedge::TCEvent event;
    bool fetched = false;
    // Whatever the list's reading throws is a failed fetch: the client still hears the outcome.
    try {
        fetched = external->GetCountryCodeList();
    } catch (const std::exception&) {
        fetched = false;
    }
    if (fetched) {
        event.type = MESSAGE_GET_COUNTRYCODE_LIST_SUCCESS;
        TARVO_LOGI("Send MESSAGE_GET_COUNTRYCODE_LIST_SUCCESS");
    } else {
        const int code = external->GetNimbraErrorCode();
        event.type = MESSAGE_GET_COUNTRYCODE_LIST_FAIL;
        event.data.json["error_reason"] = 1;
        event.data.param = code;
        TARVO_LOGW("Send MESSAGE_GET_COUNTRYCODE_LIST_FAIL : %d", code);
    }
    CTarvoDataControlService::GetInstance()->SendEvent(&event, DATA_CONTROL_MAIN_SERV);
}

void CTarvoKelvaneInfoService::m_ProcessRequestingDisclaimer(ETarvoKelvaneDisclaimerRequester requester) {
    CTarvoInternalData* store = CTarvoInternalData::GetInstance();
    CTarvoExternalData* external = CTarvoExternalData::GetInstance();
    const std::string country = external->GetCountryCode();
    std::map<std::string, TarvoDisclaimerDataItem*>* copy = store->CopyDisclaimerItems(false);

    if (!country.empty() && copy != nullptr && !copy->empty()) {
        // Only the record with the smallest id tells the store's country.
        if (country != copy->begin()->second->countryCode) {
            TARVO_LOGW("country code is different, clean Data");
            store->ClearDisclaimerItems();
        } else {
            const std::string storedLanguage = store->GetDisclaimerOSDLanguge();
            const std::string shortLanguage = external->GetAcceptLanguage().substr(0, 2);
            if (storedLanguage == shortLanguage) {
                Sedge::TCEvent event;
                event.type = MESSAGE_GET_DISCLAIMER_SUCCESS;
                event.data.json["requester"] = static_cast<int>(requester);
                CTarvoDataControlService::GetInstance()->SendEvent(&event, DATA_CONTROL_MAIN_SERV);
                store->DeleteCopyMap(copy);
                return;
            }
            TARVO_LOGI("Lang is Differnt, need to start update disclaimer");
        }
    }

    if (copy != nullptr) store->DeleteCopyMap(copy);
    m_pNimbraTimeoutAlarm->Reset(kNimbraTimeoutMs, 1);
    m_RequestGetDisclaimer(requester);
}
