#include "TarvoGlobalLogger.h"

#include <Sedge/Sedge.h>
#include <libxml/tree.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "TarvoLog.h"

namespace {

constexpr char kServiceName[] = "14_global";
constexpr char kMoveToPanel[] = "MOVETOPANEL";
constexpr char kTick[] = "TICK";
constexpr int kDefaultEventLevel = 5;
// A collection stays below this size; the log text says 1000 and stays so.
constexpr size_t kTickInfoBound = 999;
// The shortest desc worth sending: "{" + a one-letter tick "a:0" + "}" has 5.
constexpr size_t kMinimumDesc = 6;

std::string EventExpression(const char* event) {
    return std::string("/pre:rsp/pre:list/pre:service[@name='") + kServiceName + "']/pre:event[@name='" +
           event + "']";
}

}  // namespace

CTarvoGlobalLogger* CTarvoGlobalLogger::m_pInstance = nullptr;

CTarvoGlobalLogger::CTarvoGlobalLogger() : CTarvoLogger(TARVO_LOGGER_TYPE_GLOBAL) {}

CTarvoGlobalLogger::~CTarvoGlobalLogger() {}

CTarvoGlobalLogger* CTarvoGlobalLogger::GetInstance() {
    if (m_pInstance == nullptr) {
        m_pInstance = new CTarvoGlobalLogger();
    }
    return m_pInstance;
}

void CTarvoGlobalLogger::Destroy() {
    if (m_pInstance != nullptr) {
        CTarvoLogger* instance = m_pInstance;
        delete instance;
        m_pInstance = nullptr;
    }
}

void CTarvoGlobalLogger::AddTick(std::string name) {
    TARVO_LOGD("AddTick");
    const long tick = static_cast<long>(Sedge::TCAlarm::GetTickCount() / 1000);
    TARVO_LOGD("*****%ld****", tick);
    char buffer[512];
    memset(buffer, 0, sizeof(buffer));
    snprintf(buffer, 511, "%s:%ld;", name.c_str(), tick);
    if (m_BigDataTickInfo.size() + strlen(buffer) < kTickInfoBound) {
        m_BigDataTickInfo += buffer;
        TARVO_LOGD("Put BigDataTick [%s]", m_BigDataTickInfo.c_str());
    } else {
        TARVO_LOGW("Log Size is over 1000");
    }
}

void CTarvoGlobalLogger::SendMoveToPanelLog(std::string service) {
    t_AddEventLog(kMoveToPanel, "EV001", "{service = " + service + "}");
}

void CTarvoGlobalLogger::SendTickLog() {
    TARVO_LOGD("Send tick log to server");
    if (m_BigDataTickInfo.empty()) {
        TARVO_LOGW("m_BigDataTickInfo NULL or empty");
        return;
    }
    // The last tick's ";" is left out.
    const std::string desc = "{" + m_BigDataTickInfo.substr(0, m_BigDataTickInfo.size() - 1) + "}";
    if (desc.size() < kMinimumDesc) {
        TARVO_LOGW("Desc Data is wrong");
    } else {
        t_AddEventLog(kTick, "EV002", desc);
    }
    m_BigDataTickInfo.clear();
}

void CTarvoGlobalLogger::t_InitialTarvoLoggerInfo() {
    m_LoggerInfo.service_name = kServiceName;
    m_LoggerInfo.m_EventLevels.clear();
    m_LoggerInfo.m_EventLevels[kMoveToPanel] = kDefaultEventLevel;
    m_LoggerInfo.m_EventLevels[kTick] = kDefaultEventLevel;
}

bool CTarvoGlobalLogger::t_ParseTarvoLoggerInfo(xmlXPathContext* context) {
    int level = kDefaultEventLevel;
    if (t_ParseTarvoLoggerInfo(EventExpression(kMoveToPanel), context, level)) {
        m_LoggerInfo.m_EventLevels[kMoveToPanel] = level;
    }
    // Only TICK decides: a policy that lacks MOVETOPANEL still stands.
    const bool result = t_ParseTarvoLoggerInfo(EventExpression(kTick), context, level);
    if (result) {
        m_LoggerInfo.m_EventLevels[kTick] = level;
    }
    return result;
}

bool CTarvoGlobalLogger::t_ParseTarvoLoggerInfo(const std::string& expression, xmlXPathContext* context,
                                                int& level) {
    xmlXPathObjectPtr object =
        xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(expression.c_str()), context);
    if (object == nullptr || xmlXPathNodeSetIsEmpty(object->nodesetval)) {
        // The same text for every event.
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
