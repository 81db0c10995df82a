#include "TarvoPnPLogger.h"

#include <Sedge/Sedge.h>
#include <libxml/tree.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "TarvoLog.h"

namespace {

constexpr char kServiceName[] = "14_tvpnp";
constexpr char kPrivacy[] = "P01_PRIVACY";
constexpr int kDefaultEventLevel = 5;
// Shorter than any desc that can be built ("{du=0;type=menu}" has 16); the check stays as a guard.
constexpr size_t kMinimumDesc = 15;

}  // namespace

CTarvoPnPLogger* CTarvoPnPLogger::m_Instance = nullptr;

CTarvoPnPLogger::CTarvoPnPLogger() : CTarvoLogger(TARVO_LOGGER_TYPE_PNP), m_StartTick(0) {}

CTarvoPnPLogger::~CTarvoPnPLogger() {}

CTarvoPnPLogger* CTarvoPnPLogger::GetInstance() {
    if (m_Instance == nullptr) {
        m_Instance = new CTarvoPnPLogger();
    }
    return m_Instance;
}

void CTarvoPnPLogger::Destroy() {
    if (m_Instance != nullptr) {
        CTarvoLogger* instance = m_Instance;
        delete instance;
        m_Instance = nullptr;
    }
}

void CTarvoPnPLogger::SetPNPDisclaimerStartTime() {
    m_StartTick = Sedge::TCAlarm::GetTickCount();
    TARVO_LOGD("Set PNP Disclaimer Start Time  %ld sec", static_cast<long>(m_StartTick / 1000));
}

void CTarvoPnPLogger::SendP01PrivacyLog() {
    const unsigned long endTick = Sedge::TCAlarm::GetTickCount();
    TARVO_LOGD("PNP Disclaimer End Time  %ld sec", static_cast<long>(endTick / 1000));
    // Without a start the start counts as 0, so the duration is the whole tick count.
    const long duration = static_cast<long>((endTick - m_StartTick) / 1000);
    m_StartTick = 0;
    TARVO_LOGD("PNP Disclaimer duration  %ld sec", duration);

    char buffer[512];
    memset(buffer, 0, sizeof(buffer));
    snprintf(buffer, 511, "%ld;", duration);
    const std::string desc = std::string("{du=") + buffer + "type=" + "menu" + "}";
    if (desc.size() < kMinimumDesc) {
        TARVO_LOGW("Desc Data is wrong");
        return;
    }
    t_AddEventLog(kPrivacy, "PG004", desc);
}

void CTarvoPnPLogger::t_InitialTarvoLoggerInfo() {
    m_LoggerInfo.service_name = kServiceName;
    m_LoggerInfo.m_EventLevels.clear();
    m_LoggerInfo.m_EventLevels[kPrivacy] = kDefaultEventLevel;
}

bool CTarvoPnPLogger::t_ParseTarvoLoggerInfo(xmlXPathContext* context) {
    int level = kDefaultEventLevel;
    const std::string expression = std::string("/pre:rsp/pre:list/pre:service[@name='") + kServiceName +
                                   "']/pre:event[@name='" + kPrivacy + "']";
    const bool result = t_ParseTarvoLoggerInfo(expression, context, level);
    if (result) {
        m_LoggerInfo.m_EventLevels[kPrivacy] = level;
    }
    return result;
}

bool CTarvoPnPLogger::t_ParseTarvoLoggerInfo(const std::string& expression, xmlXPathContext* context,
                                             int& level) {
    xmlXPathObjectPtr object =
        xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(expression.c_str()), context);
    if (object == nullptr || xmlXPathNodeSetIsEmpty(object->nodesetval)) {
        // The global logger's text, kept for this event too.
        TARVO_LOGW("Error: MOVETOPANEL Event LogLevel link is null");
        if (object != nullptr) xmlXPathFreeObject(object);
        return false;
    }
    xmlNodePtr pCurNode = object->nodesetval->nodeTab[0];
    bool result = false;
    if (pCurNode == nullptr) {
        TARVO_LOGW("pCurNode is null");
    } else if (pCurNode->properties == nullptr) {
        TARVO_LOGW("No attribute");
    } else {
        xmlChar* text = xmlGetProp(pCurNode, reinterpret_cast<const xmlChar*>("loglevel"));
        if (text != nullptr) {
            level = static_cast<int>(strtol(reinterpret_cast<const char*>(text), nullptr, 10));
            xmlFree(text);
            result = true;
        }
    }
    xmlXPathFreeObject(object);
    return result;
}
