#include "TarvoLogger.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpathInternals.h>
#include <tarvo/platform.h>

#include <cstdlib>
#include <ctime>

#include "TarvoExternalData.h"
#include "TarvoLog.h"

namespace {

constexpr char kPolicyPath[] = "/opt/down/common/LogPolicyConfig.xml";
constexpr char kPolicyPrefix[] = "pre";

// Assigns the attribute `name` of `node` to `out` when it exists; a missing one leaves `out` as it was.
void TakeAttribute(xmlNodePtr node, const char* name, std::string& out) {
    xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
    if (value != nullptr) {
        out = reinterpret_cast<const char*>(value);
        xmlFree(value);
    }
}

xmlXPathObjectPtr Evaluate(const std::string& expression, xmlXPathContextPtr context) {
    return xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(expression.c_str()), context);
}

}  // namespace

STTarvoLoggerInfo::STTarvoLoggerInfo() : m_logger(nullptr), m_bInitialized(false) {}

void STTarvoLoggerInfo::Reset() {
    if (m_logger != nullptr) {
        m_logger->Finalize();
        delete m_logger;
        m_logger = nullptr;
    }
    m_EventLevels.clear();
    m_bInitialized = false;
}

CTarvoLogger::CTarvoLogger(ETarvoLoggerType type) : m_LoggerType(type) {}

CTarvoLogger::~CTarvoLogger() {
    m_FlushLog();
    m_LoggerInfo.Reset();
}

void CTarvoLogger::t_AddEventLog(std::string eventName, std::string category, std::string desc) {
    TARVO_LOGD("m_AddGlobalEventLog");
    if (!m_Initialize()) {
        TARVO_LOGW("initialize fail");
        return;
    }
    if (m_LoggerInfo.m_logger == nullptr) {
        TARVO_LOGW("m_logger is NULL");
        return;
    }

    time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char timeText[32] = {};
    // The zone is always written +0000, whatever the local zone; only a year past 9999 would not fit.
    if (snprintf(timeText, sizeof(timeText), "%04d-%02d-%02dT%02d:%02d:%02d+%02d%02d", local.tm_year + 1900,
                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, 0, 0) < 0) {
        timeText[0] = '\0';
    }
    std::string strTime = timeText;
    std::string value = CTarvoExternalData::GetInstance()->GetProductSWVersion();

    TARVO_LOGD("strEventName type %s ", eventName.c_str());
    TARVO_LOGD("strTime : %s ", strTime.c_str());
    TARVO_LOGD("strCategory : %s ", category.c_str());
    TARVO_LOGD("value : %s ", value.c_str());
    TARVO_LOGD("desc : %s ", desc.c_str());

    if (m_LoggerInfo.m_logger->AddEventLog(eventName, strTime, category, value, desc)) {
        TARVO_LOGD("m_AddEventLog Success");
    } else {
        TARVO_LOGW("Could not add  event log ");
        m_LoggerInfo.Reset();
    }
}

bool CTarvoLogger::m_Initialize() {
    if (m_LoggerInfo.m_bInitialized) {
        return true;
    }
    t_InitialTarvoLoggerInfo();

    std::string strUrl;
    std::string strQueueMax;
    std::string strExpiration;
    std::string strLogLevel;
    if (!m_ParseConfigXml(kPolicyPath, strUrl, strQueueMax, strExpiration, strLogLevel)) {
        TARVO_LOGW("Set Default Value");
        m_SetDefualtConfig(strUrl, strQueueMax, strExpiration, strLogLevel);
    }
    const long queueMax = strtol(strQueueMax.c_str(), nullptr, 10);
    const long expiration = strtol(strExpiration.c_str(), nullptr, 10);
    const long logLevel = strtol(strLogLevel.c_str(), nullptr, 10);
    const long threshold = 0;
    TARVO_LOGD("strUrl %s", strUrl.c_str());
    TARVO_LOGD("Queue_max %d", static_cast<int>(queueMax));
    TARVO_LOGD("Expiration %d", static_cast<int>(expiration));
    TARVO_LOGD("Loglevel %d", static_cast<int>(logLevel));
    TARVO_LOGD("threshold %d", static_cast<int>(threshold));
    TARVO_LOGD("service_name '%s'", m_LoggerInfo.service_name.c_str());

    if (m_LoggerInfo.m_logger == nullptr && !CreateLogger(&m_LoggerInfo.m_logger)) {
        TARVO_LOGW("Logger create failed");
        m_LoggerInfo.m_logger = nullptr;
        return false;
    }
    TARVO_LOGD("CreateLogger finish");

    if (!m_LoggerInfo.m_logger->SetServiceConfInfo(m_LoggerInfo.service_name, queueMax, expiration, threshold,
                                                   logLevel, strUrl)) {
        m_LoggerInfo.Reset();
        return false;
    }
    TARVO_LOGD("SetServiceConfInfo finish");

    for (const auto& entry : m_LoggerInfo.m_EventLevels) {
        if (!m_LoggerInfo.m_logger->AddEventConfInfo(entry.first, queueMax, expiration, threshold,
                                                     entry.second)) {
            TARVO_LOGW("Could not add event Config");
            m_LoggerInfo.Reset();
            return false;
        }
    }
    TARVO_LOGD("AddEventConfInfo finish (%d)", static_cast<int>(m_LoggerInfo.m_EventLevels.size()));

    CTarvoExternalData* device = CTarvoExternalData::GetInstance();
    std::string strCountryCode = device->GetCountryCode();
    std::string strModelName = device->GetModelID();
    std::string strDUID = device->GetDUID();
    // The device id is the user id as well: the set has no user account of its own.
    std::string strUserID = strDUID;
    TARVO_LOGD("strModelName '%s'", strModelName.c_str());
    TARVO_LOGD("strUserID '%s'", strUserID.c_str());
    TARVO_LOGD("strDUID '%s'", strDUID.c_str());
    TARVO_LOGD("strCountryCode '%s'", strCountryCode.c_str());
    if (!m_LoggerInfo.m_logger->SetEventHeader(strModelName, strUserID, strDUID, strCountryCode, 0, 0, 0)) {
        TARVO_LOGW("Could not set event header");
        m_LoggerInfo.Reset();
        return false;
    }

    m_LoggerInfo.m_bInitialized = true;
    TARVO_LOGI("Initialize finish");
    return true;
}

bool CTarvoLogger::m_ParseConfigXml(std::string path, std::string& url, std::string& queueMax,
                                    std::string& expiration, std::string& logLevel) {
    xmlDocPtr doc = xmlParseFile(platform_path(path).c_str());
    if (doc == nullptr) {
        TARVO_LOGW("Document not parsed");
        return false;
    }
    xmlXPathContextPtr context = xmlXPathNewContext(doc);
    if (context == nullptr) {
        TARVO_LOGW("Error: unable to create new XPath context\n");
        xmlFreeDoc(doc);
        return false;
    }
    const std::string policyNamespace = platform_deployment_value("log_policy_namespace");
    xmlXPathRegisterNs(context, reinterpret_cast<const xmlChar*>(kPolicyPrefix),
                       reinterpret_cast<const xmlChar*>(policyNamespace.c_str()));

    xmlXPathObjectPtr object = Evaluate("/pre:rsp[normalize-space(@stat)='ok']", context);
    if (object == nullptr || xmlXPathNodeSetIsEmpty(object->nodesetval)) {
        if (object == nullptr) {
            TARVO_LOGW("Error: recieved body is null\n");
        } else {
            TARVO_LOGW("Error: recieved body is not ok\n");
            xmlXPathFreeObject(object);
        }
        xmlXPathFreeContext(context);
        xmlFreeDoc(doc);
        return false;
    }
    xmlXPathFreeObject(object);

    object = Evaluate("/pre:rsp/pre:list/pre:service[@name='" + m_LoggerInfo.service_name + "']", context);
    if (object == nullptr || xmlXPathNodeSetIsEmpty(object->nodesetval)) {
        TARVO_LOGW("Error: service Config. link is null\n");
        if (object != nullptr) xmlXPathFreeObject(object);
        xmlXPathFreeContext(context);
        xmlFreeDoc(doc);
        return false;
    }

    xmlNodePtr pCurNode = object->nodesetval->nodeTab[0];
    if (pCurNode == nullptr) {
        TARVO_LOGW("pCurNode is null\n");
    } else if (pCurNode->properties == nullptr) {
        TARVO_LOGW("No attribute\n");
    } else {
        TakeAttribute(pCurNode, "url", url);
        TakeAttribute(pCurNode, "queue_max", queueMax);
        TakeAttribute(pCurNode, "expiration", expiration);
        TakeAttribute(pCurNode, "loglevel", logLevel);
    }
    const bool result = t_ParseTarvoLoggerInfo(context);

    xmlXPathFreeObject(object);
    xmlXPathFreeContext(context);
    xmlFreeDoc(doc);
    TARVO_LOGD("Parse result : %s", result ? "success" : "fail");
    return result;
}

void CTarvoLogger::m_SetDefualtConfig(std::string& url, std::string& queueMax, std::string& expiration,
                                      std::string& logLevel) {
    CTarvoExternalData* device = CTarvoExternalData::GetInstance();
    const char* host = device->IsServiceMode() ? "log_production_host" : "log_staging_host";
    url = "https://" + platform_deployment_value(host) + "/openapi/log/";
    url += m_LoggerInfo.service_name;
    url += "/";
    url += device->GetCountryCode();
    queueMax = "30";
    expiration = "60";
    logLevel = "10";
}

void CTarvoLogger::m_FlushLog() {
    TARVO_LOGD("FlushLog");
    if (m_LoggerInfo.m_logger != nullptr) {
        m_LoggerInfo.m_logger->FlushLog();
    }
}
