#include "TarvoKelvaneDataFactory.h"

#include <Sedge/Sedge.h>

#include "TarvoDataControlService.h"
#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoLog.h"

namespace {

constexpr const char* kWatchedKeys[] = {"db/nimbra/countrycode", "db/nimbra/gpmurl/apps",
                                        "db/nimbra/modelid"};

void PostEvent(int32_t type, ETarvoServiceName service) {
    Sedge::TCEvent event;
    event.type = type;
    CTarvoDataControlService::GetInstance()->SendEvent(&event, service);
}

long TickNow() { return static_cast<long>(Sedge::TCAlarm::GetTickCount()); }

// A member through the non-constant operator[], so a missing one reads as null; a parent that is
// neither an object nor null has no members at all.
Json::Value* MemberOf(Json::Value& parent, const char* key) {
    if (!parent.isObject() && !parent.isNull()) return nullptr;
    return &parent[key];
}

// Moves a member's value out instead of copying it: each node of an answer (about 400 KB) is read
// once, and a copy at each level would hold the answer several times over.
void TakeMember(Json::Value& out, Json::Value& member) {
    Json::Value taken;
    taken.swap(member);
    out.swap(taken);
}

}  // namespace

CTarvoKelvaneDataFactory::CTarvoKelvaneDataFactory() : m_state(FACTORY_STATE_IDLE), m_lastErrorCode(-1) {}

CTarvoKelvaneDataFactory::~CTarvoKelvaneDataFactory() { m_jobs.clear(); }

bool CTarvoKelvaneDataFactory::AssignJob(ETarvoKelvaneOpenApiType type) {
    if (m_state == FACTORY_STATE_IN_TROUBLE) return false;
    TARVO_LOGI("Push job %d", static_cast<int>(type));
    m_jobs.push_back(type);
    return true;
}

// "Pop" names the queue's front, where the job goes.
bool CTarvoKelvaneDataFactory::PlugInJob(ETarvoKelvaneOpenApiType type) {
    if (m_state == FACTORY_STATE_IN_TROUBLE) return false;
    TARVO_LOGI("Pop job %d", static_cast<int>(type));
    m_jobs.push_front(type);
    return true;
}

bool CTarvoKelvaneDataFactory::m_GetDisclaimer(bool first) {
    if (first) {
        TARVO_LOGI("Add TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER job at first");
        return PlugInJob(TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER);
    }
    TARVO_LOGI("Add TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER job at end");
    return AssignJob(TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER);
}

bool CTarvoKelvaneDataFactory::m_GetUpdateNotice(bool first) {
    if (first) {
        TARVO_LOGI("Add TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE job at first");
        return PlugInJob(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE);
    }
    TARVO_LOGI("Add TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE job at end");
    return AssignJob(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE);
}

void CTarvoKelvaneDataFactory::StartFactory() {
    TARVO_LOGI("StartFactory");
    if (m_state == FACTORY_STATE_IDLE) {
        TARVO_LOGI("CHECKTIME**** Total process START Time ( %ld msec )", TickNow());
        m_state = FACTORY_STATE_WORKING;
        if (!m_CheckReady()) {
            TARVO_LOGI("Start Monitoring Nimbra Value");
            m_StartMonitoringValue();
            return;
        }
        if (m_ProcessBatchJob()) return;
    }
    m_EnterTrouble();
}

void CTarvoKelvaneDataFactory::StartAgainFactory() {
    TARVO_LOGI("StartAgainFactory");
    if (!m_ProcessBatchJob()) m_EnterTrouble();
}

void CTarvoKelvaneDataFactory::StopFactory() {
    m_jobs.clear();
    m_StopMonitoringValue();
    m_state = FACTORY_STATE_IDLE;
}

void CTarvoKelvaneDataFactory::m_EnterTrouble() {
    TARVO_LOGW("Factory is in trouble!");
    m_state = FACTORY_STATE_IN_TROUBLE;
    m_jobs.clear();
}

bool CTarvoKelvaneDataFactory::m_CheckReady() {
    CTarvoExternalData* external = CTarvoExternalData::GetInstance();
    const bool model = !external->GetModelID().empty();
    const bool domain = !external->GetAppsDomains().empty();
    const bool country = !external->GetCountryCode().empty();
    if (model && domain && country) {
        TARVO_LOGI("All Nimbra Value ready");
        return true;
    }
    TARVO_LOGI("All Nimbra Value not ready");
    return false;
}

void CTarvoKelvaneDataFactory::m_StartMonitoringValue() {
    for (const char* key : kWatchedKeys) vconf_notify_key_changed(key, m_changed_handler, this);
}

void CTarvoKelvaneDataFactory::m_StopMonitoringValue() {
    for (const char* key : kWatchedKeys) vconf_ignore_key_changed(key, m_changed_handler);
}

// Runs on vconf's thread: reads device values only and hands over by an event.
void CTarvoKelvaneDataFactory::m_changed_handler(keynode_t* /*node*/, void* user) {
    CTarvoKelvaneDataFactory* factory = static_cast<CTarvoKelvaneDataFactory*>(user);
    TARVO_LOGI("changed_handler call !");
    if (!factory->m_CheckReady()) return;
    TARVO_LOGI("stop monitor, and notify to kelvane thread!");
    factory->m_StopMonitoringValue();
    PostEvent(MESSAGE_NIMBRA_VALUE_ALL_READY, KELVANE_INFO_SERV);
}

bool CTarvoKelvaneDataFactory::m_ProcessBatchJob() {
    for (;;) {
        if (m_jobs.empty()) {
            TARVO_LOGI("Batch job empty, waiting...");
            m_state = FACTORY_STATE_IDLE;
            TARVO_LOGI("CHECKTIME**** Total process END Time ( %ld msec )", TickNow());
            return true;
        }
        const ETarvoKelvaneOpenApiType job = m_jobs.front();
        TARVO_LOGI("Batch job type = %d", static_cast<int>(job));
        m_jobs.pop_front();
        m_state = FACTORY_STATE_WORKING;
        bool ok = false;
        m_CheckJob(job, ok);
        if (!ok) continue;
        if (m_RequestResource(job)) {
            TARVO_LOGI("waiting resource.");
            m_state = FACTORY_STATE_WAITING_RESOURCE;
            return true;
        }
        TARVO_LOGW("Request execute the job(%d) fail!", static_cast<int>(job));
    }
}

void CTarvoKelvaneDataFactory::m_CheckJob(ETarvoKelvaneOpenApiType type, bool& ok) {
    switch (type) {
        case TARVO_KELVANE_OPENAPI_TYPE_UNKNOWN:
            TARVO_LOGW("Argument Invalid");
            ok = false;
            break;
        case TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER:
            ok = !CTarvoInternalData::GetInstance()->m_DisclaimerId.empty();
            if (!ok) TARVO_LOGW("Invalid Disclaimer ID");
            break;
        case TARVO_KELVANE_OPENAPI_TYPE_REPORT_RESULT_WIZARD:
        case TARVO_KELVANE_OPENAPI_TYPE_REPORT_RESULT_APP:
            m_CheckRecollectingDisclaimerResult(type);
            ok = false;
            break;
        default:
            ok = true;
            break;
    }
}

// Answers from what the store holds now, whatever the jobs before it did.
void CTarvoKelvaneDataFactory::m_CheckRecollectingDisclaimerResult(ETarvoKelvaneOpenApiType type) {
    CTarvoInternalData* store = CTarvoInternalData::GetInstance();
    std::map<std::string, TarvoDisclaimerDataItem*>* copy = store->CopyDisclaimerItems(false);
    Sedge::TCEvent event;
    event.data.json["requester"] = type == TARVO_KELVANE_OPENAPI_TYPE_REPORT_RESULT_APP ? 1 : 0;
    if (copy == nullptr || copy->empty()) {
        event.type = MESSAGE_GET_DISCLAIMER_FAIL;
        event.data.json["error_reason"] = 0;
        int code = m_GetLastErrorCode();
        if (code == -1) code = 0;
        TARVO_LOGW("Send MESSAGE_GET_DISCLAIMER_FAIL : %d", code);
        event.data.param = code;
    } else {
        event.type = MESSAGE_GET_DISCLAIMER_SUCCESS;
        TARVO_LOGI("Send MESSAGE_GET_DISCLAIMER_SUCCESS");
    }
    if (copy != nullptr) store->DeleteCopyMap(copy);
    CTarvoDataControlService::GetInstance()->SendEvent(&event, DATA_CONTROL_MAIN_SERV);
}

unsigned CTarvoKelvaneDataFactory::m_GetInternalEventType(ETarvoKelvaneOpenApiType type) {
    switch (type) {
        case TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE:
            return MESSAGE_TARVOPANEL_KELVANE_REQUEST_GET_UPDATE_NOTICE;
        case TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER:
            return MESSAGE_TARVOPANEL_KELVANE_REQUEST_GET_SERVICE_DISCLAIMER;
        default:
            return static_cast<unsigned>(-1);
    }
}

bool CTarvoKelvaneDataFactory::m_RequestResource(ETarvoKelvaneOpenApiType type) {
    TARVO_LOGI("Request resource for open api %d", static_cast<int>(type));
    Sedge::TCEvent event;
    event.type = static_cast<int32_t>(m_GetInternalEventType(type));
    return CTarvoDataControlService::GetInstance()->SendEvent(&event, KELVANE_INFO_SERV);
}

void CTarvoKelvaneDataFactory::GiveResource(ETarvoKelvaneOpenApiType type, char* data, unsigned size) {
    TARVO_LOGI("Get Resource Succeed! type = %d, xmlDataLength = %d", static_cast<int>(type),
               static_cast<int>(size));
    TARVO_LOGD("Get Resource Succeed! data = {\n %s \n}\n ", data != nullptr ? data : "");
    m_ProcessXMLData(type, data, size);
    if (data != nullptr) delete[] data;
    if (!m_ProcessBatchJob()) m_EnterTrouble();
}

// Both types log the update notice's name.
void CTarvoKelvaneDataFactory::m_ProcessXMLData(ETarvoKelvaneOpenApiType type, char* data, unsigned size) {
    if (type == TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE) {
        TARVO_LOGI("TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE");
        m_ProcessUpdateNoticeJson(data, size);
    } else if (type == TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER) {
        TARVO_LOGI("TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE");
        m_ProcessServiceDisclaimerJson(data, size);
    }
}

void CTarvoKelvaneDataFactory::GiveResourceFailed(ETarvoKelvaneOpenApiType type, int errorCode) {
    TARVO_LOGW("Get Resource Failed! type = %d, errorCode = %d", static_cast<int>(type), errorCode);
    m_SetLastErrorCode(errorCode);
    if (!m_ProcessBatchJob()) m_EnterTrouble();
}

// 0 and -1 say nothing about the failure, so the code before them stays.
void CTarvoKelvaneDataFactory::m_SetLastErrorCode(int code) {
    TARVO_LOGI("errorCode = %d", code);
    if (code != 0 && code != -1) m_lastErrorCode = code;
}

int CTarvoKelvaneDataFactory::m_GetLastErrorCode() { return m_lastErrorCode; }

bool CTarvoKelvaneDataFactory::m_GetJsonStringValue(std::string& out, Json::Value& parent, const char* key) {
    Json::Value* member = MemberOf(parent, key);
    if (member == nullptr || member->empty()) return false;
    if (!member->isString()) {
        TARVO_LOGW_MINOR("%s is not string type", key);
        return false;
    }
    out = member->asString();
    return !out.empty();
}

bool CTarvoKelvaneDataFactory::m_GetJsonArrayValue(Json::Value& out, Json::Value& parent, const char* key) {
    Json::Value* member = MemberOf(parent, key);
    if (member == nullptr || member->empty()) {
        TARVO_LOGW_MINOR("%s is empty", key);
        return false;
    }
    if (!member->isArray()) {
        TARVO_LOGW_MINOR("%s is not Array type", key);
        return false;
    }
    TakeMember(out, *member);
    return true;
}

bool CTarvoKelvaneDataFactory::m_GetJsonNodeValue(Json::Value& out, Json::Value& parent, const char* key) {
    Json::Value* member = MemberOf(parent, key);
    if (member == nullptr || member->empty()) {
        TARVO_LOGW_MINOR("%s is empty", key);
        return false;
    }
    TakeMember(out, *member);
    return true;
}
