#include "TarvoKelvaneConnector.h"

#include <sys/time.h>

#include <Sedge/Sedge.h>
#include <ZephCurl/ZephCurlEasy.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoLog.h"

namespace {
const int kMaxChunk = 16384;
const char kClientName[] = "tarvodatacontrol-service/1.0";
}  // namespace

ZephCurl::ZephCurlEasy* CTarvoKelvaneConnector::m_pEasyHandle = nullptr;
char* CTarvoKelvaneConnector::m_pData = nullptr;
uint32_t CTarvoKelvaneConnector::m_dataSize = 0;
ETarvoKelvaneOpenApiType CTarvoKelvaneConnector::m_currentType = TARVO_KELVANE_OPENAPI_TYPE_UNKNOWN;
int32_t CTarvoKelvaneConnector::m_errorCode = -1;
bool CTarvoKelvaneConnector::m_invalidHeader = false;
std::string CTarvoKelvaneConnector::m_osdLanguage;

bool CTarvoKelvaneConnector::RequestGetXMLData(ETarvoKelvaneOpenApiType type) {
    m_errorCode = -1;
    if (type == TARVO_KELVANE_OPENAPI_TYPE_UNKNOWN) {
        TARVO_LOGW("TARVO_KELVANE_OPENAPI_TYPE_UNKNOWN");
        return false;
    }
    if (!m_CreateHandle()) return false;
    m_CleanUpInternalData();
    if (!m_PerformGetXMLData(type)) {
        TARVO_LOGW("It is not normal networkstate retring stop!! m_errorCode = %d", m_errorCode);
        return false;
    }
    return true;
}

char* CTarvoKelvaneConnector::GetData() { return m_pData; }

uint32_t CTarvoKelvaneConnector::GetDataSize() { return m_dataSize; }

int32_t CTarvoKelvaneConnector::GetErrorCode() { return m_errorCode; }

std::string CTarvoKelvaneConnector::GetUsedOsdLanguage() { return m_osdLanguage; }

void CTarvoKelvaneConnector::ReleaseConnector() {
    m_DestroyHandle();
    m_CleanUpInternalData();
}

unsigned CTarvoKelvaneConnector::m_ReceiveXMLData(char* ptr, unsigned size, unsigned count, void* /*user*/) {
    const unsigned long start = Sedge::TCAlarm::GetTickCount();
    const unsigned total = size * count;
    TARVO_LOGD("m_ReceiveXMLData m_dataSize(%d) size(%d)", static_cast<int>(m_dataSize),
               static_cast<int>(total));
    if (total == 0) {
        TARVO_LOGW_MINOR("Zero length transfer");
        return 0;
    }
    if (static_cast<int>(total) > kMaxChunk) {
        TARVO_LOGW("Received %d elements of size %d", static_cast<int>(size), static_cast<int>(count));
        return 0;
    }
    char* grown = static_cast<char*>(realloc(m_pData, m_dataSize + total));
    if (grown == nullptr) {
        TARVO_LOGW("Insufficient memory");
        return 0;
    }
    memcpy(grown + m_dataSize, ptr, total);
    m_pData = grown;
    m_dataSize += total;
    const unsigned long now = Sedge::TCAlarm::GetTickCount();
    TARVO_LOGD("CHECKTIME**** **** **** Callback End Time Duration : %ld msec ( %ld msec )",
               static_cast<long>(now - start), static_cast<long>(now));
    return total;
}

void CTarvoKelvaneConnector::m_CleanUpInternalData() {
    if (m_pData != nullptr) {
        free(m_pData);
        m_pData = nullptr;
    }
    m_dataSize = 0;
    m_currentType = TARVO_KELVANE_OPENAPI_TYPE_UNKNOWN;
    m_invalidHeader = false;
}

void CTarvoKelvaneConnector::m_DestroyHandle() {
    TARVO_LOGD("m_pEasyHandle Destroy");
    if (m_pEasyHandle != nullptr) {
        m_pEasyHandle->reset();
        delete m_pEasyHandle;
        m_pEasyHandle = nullptr;
    }
}

bool CTarvoKelvaneConnector::m_CreateHandle() {
    if (m_pEasyHandle != nullptr) m_DestroyHandle();
    m_pEasyHandle = new ZephCurl::ZephCurlEasy();
    TARVO_LOGD("m_pEasyHandle->Initialize");
    if (!m_pEasyHandle->Initialize()) {
        TARVO_LOGW("m_pEasyHandle init falied");
        m_errorCode = 2;
        return false;
    }
    TARVO_LOGD("m_pEasyHandle init Success");
    return true;
}

bool CTarvoKelvaneConnector::m_SetOption() {
    const long fresh = 1;
    if (!m_pEasyHandle->setOption(ZephCurl::FRESH_CONNECT, fresh)) {
        TARVO_LOGW("setOption - CURLOPT_FRESH_CONNECT return CURLcode = %d", m_pEasyHandle->getErrorCode());
        return false;
    }
    m_pEasyHandle->setTimeout(3, 10);
    const long timeout = 90;
    if (!m_pEasyHandle->setOption(ZephCurl::TIMEOUT, timeout)) {
        TARVO_LOGW("setOption - TIMEOUT return CURLcode = %d", m_pEasyHandle->getErrorCode());
        return false;
    }
    const long nosignal = 1;
    if (!m_pEasyHandle->setOption(ZephCurl::NOSIGNAL, nosignal)) {
        TARVO_LOGW("setOption - NOSIGNAL return CURLcode = %d", m_pEasyHandle->getErrorCode());
        return false;
    }
    if (!m_pEasyHandle->setOption(ZephCurl::WRITEFUNCTION, ZephCurl::DataFunction32(&m_ReceiveXMLData))) {
        TARVO_LOGW("setOption - WRITEFUNCTION return CURLcode = %d", m_pEasyHandle->getErrorCode());
        return false;
    }
    if (!m_pEasyHandle->setBrellaKelvaneSSLContext()) {
        TARVO_LOGW("setOption - setBrellaKelvaneSSLContext return CURLcode = %d",
                   m_pEasyHandle->getErrorCode());
        return false;
    }
    TARVO_LOGD("setOption - successed");
    return true;
}

std::string CTarvoKelvaneConnector::m_Get2015ServerURL() {
    std::string domain = CTarvoExternalData::GetInstance()->GetAppsDomains();
    TARVO_LOGD("Operation serviceDomain : %s", domain.c_str());
    return domain;
}

std::list<std::string> CTarvoKelvaneConnector::m_AddHeader(std::list<std::string>& headers,
                                                           const std::string& key, const std::string& value) {
    std::string line = key + ":" + value;
    headers.push_back(line);
    TARVO_LOGD("header = %s", line.c_str());
    return headers;
}

void CTarvoKelvaneConnector::m_SetCommonHeader(std::list<std::string>& headers, bool cache) {
    TARVO_LOGD("m_SetCommonHeader");
    m_AddHeader(headers, "Content-Type", "application/json; charset=utf-8");
    m_AddHeader(headers, "Content-Length", "0");
    m_AddHeader(headers, "Accept", "application/json");

    std::string host = CTarvoExternalData::GetInstance()->GetAppsDomains();
    if (host.compare(0, 8, "https://") == 0) {
        host.erase(0, 8);
    } else if (host.compare(0, 7, "http://") == 0) {
        host.erase(0, 7);
    }
    m_AddHeader(headers, "Host", host);
    m_AddHeader(headers, "Cache-Control", cache ? "cache" : "no-cache");
    m_AddHeader(headers, "Accept-Encoding", "gzip, deflate");

    if (m_pEasyHandle->setLumiqClient(kClientName)) {
        TARVO_LOGD("setLumiqClient Success");
    } else {
        TARVO_LOGW_MINOR("setLumiqClient fail");
    }
    if (m_pEasyHandle->setLumiqHeader(1)) {
        TARVO_LOGD("setLumiqHeader Success");
    } else {
        TARVO_LOGW_MINOR("setLumiqHeader fail");
    }
    TARVO_LOGD("m_SetCommonHeader finish");
}

// Only a reading of two characters or more replaces the language of the last request.
void CTarvoKelvaneConnector::m_ReadOsdLanguage() {
    std::string language = CTarvoExternalData::GetInstance()->GetAcceptLanguage();
    if (language.size() > 1) m_osdLanguage = language.substr(0, 2);
}

bool CTarvoKelvaneConnector::m_PerformGetXMLData(ETarvoKelvaneOpenApiType type) {
    TARVO_LOGI("m_PerformGetXMLData Start %d", static_cast<int>(type));
    std::string url;
    std::list<std::string> headers;

    struct timeval tv;
    gettimeofday(&tv, nullptr);
    char stamp[32];
    // long long: a 32-bit long would turn the seconds of 2038 and later negative.
    snprintf(stamp, sizeof(stamp), "%lld", static_cast<long long>(tv.tv_sec));
    const std::string timeStamp(stamp);
    TARVO_LOGD("timeStamp = %s", timeStamp.c_str());

    const std::string domain = m_Get2015ServerURL();
    CTarvoExternalData* external = CTarvoExternalData::GetInstance();

    if (type == TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE) {
        m_ReadOsdLanguage();
        const std::string country = external->GetCountryCode();
        const std::string model = external->GetModelID();
        const std::string firm = external->GetFirmCode();
        url = domain + "/" + "apps" + "/" + "conf/v1/stacks/tarvoapp/checkversion" +
              "?items=" + "disclaimer" + "&countrycode=" + country + "&modelid=" + model +
              "&firmcode=" + firm + "&timestamp=" + timeStamp + "&lang=" + m_osdLanguage;
        TARVO_LOGI("setOption - ZephCurl::URL : %s", url.c_str());
        if (m_pEasyHandle->setOption(ZephCurl::URL, url)) {
            m_SetCommonHeader(headers, false);
        } else {
            TARVO_LOGW("setOption FAIL - ZephCurl::URL : %s", url.c_str());
        }
    } else if (type == TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER) {
        const std::string disclaimerId = CTarvoInternalData::GetInstance()->m_DisclaimerId;
        m_ReadOsdLanguage();
        const std::string country = external->GetCountryCode();
        const std::string model = external->GetModelID();
        const std::string firm = external->GetFirmCode();
        url = domain + "/" + "apps" + "/" + "terms/v4/disclaimers" + "/" + disclaimerId +
              "?countrycode=" + country + "&modelid=" + model + "&timestamp=" + timeStamp +
              "&lang=" + m_osdLanguage + "&firmcode=" + firm;
        TARVO_LOGI("setOption - ZephCurl::URL : %s", url.c_str());
        if (m_pEasyHandle->setOption(ZephCurl::URL, url)) {
            m_SetCommonHeader(headers, true);
        } else {
            TARVO_LOGW("setOption FAIL - ZephCurl::URL : %s", url.c_str());
        }
    }

    // No operation sets the flag; the check stays so that an invalid header would stop the request.
    if (m_invalidHeader) {
        TARVO_LOGW("there is invalid header value");
        return false;
    }
    if (headers.empty()) return false;

    TARVO_LOGD("setOption(except url) Start");
    const bool headerSet = m_pEasyHandle->setOption(ZephCurl::HTTPHEADER, headers);
    const int headerCode = m_pEasyHandle->getErrorCode();
    if (!headerSet) {
        TARVO_LOGW("setOption FAIL - HTTPHEADER return Last Error CURLcode = %d", headerCode);
        return false;
    }
    if (!m_SetOption()) {
        TARVO_LOGW("m_SetOption return false");
        return false;
    }

    const unsigned long start = Sedge::TCAlarm::GetTickCount();
    TARVO_LOGD("CHECKTIME**** **** CURL(type:%d) perform START Time ( %ld msec )", static_cast<int>(type),
               static_cast<long>(start));
    TARVO_LOGD("m_pEasyHandle->send() Start");
    const bool sent = m_pEasyHandle->send();
    const int code = m_pEasyHandle->getErrorCode();
    const unsigned long end = Sedge::TCAlarm::GetTickCount();
    TARVO_LOGD("CHECKTIME**** **** CURL(type:%d) perform END Time Duration : %ld msec ( %ld msec )",
               static_cast<int>(type), static_cast<long>(end - start), static_cast<long>(end));
    m_errorCode = code;
    if (sent) {
        m_currentType = type;
        return true;
    }
    TARVO_LOGW("m_pEasyHandle->send() return CURL  code = %d", code);
    const std::string lastError = m_pEasyHandle->getLastError();
    TARVO_LOGW("m_pEasyHandle->send() return CURL Error = %s", lastError.c_str());
    return false;
}
