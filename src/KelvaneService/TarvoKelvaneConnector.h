// Client of the server's JSON OpenAPI: one GET at a time on a fresh HTTP client handle, the body
// collected into one growing C buffer. Static members only, never instantiated; every call runs on
// the shared service worker, so no lock guards the members.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "TarvoTypes.h"

namespace ZephCurl {
class ZephCurlEasy;
}

class CTarvoKelvaneConnector {
  public:
    CTarvoKelvaneConnector() = delete;

    // One complete request; true when the client's send succeeded, whatever the HTTP status.
    static bool RequestGetXMLData(ETarvoKelvaneOpenApiType type);
    // The body, still owned here; valid until ReleaseConnector or the next request.
    static char* GetData();
    static uint32_t GetDataSize();
    static int32_t GetErrorCode();
    static std::string GetUsedOsdLanguage();
    static void ReleaseConnector();

  private:
    static unsigned m_ReceiveXMLData(char* ptr, unsigned size, unsigned count, void* user);
    static void m_CleanUpInternalData();
    static void m_DestroyHandle();
    static bool m_CreateHandle();
    static bool m_SetOption();
    static std::string m_Get2015ServerURL();
    static std::list<std::string> m_AddHeader(std::list<std::string>& headers, const std::string& key,
                                              const std::string& value);
    static void m_SetCommonHeader(std::list<std::string>& headers, bool cache);
    static bool m_PerformGetXMLData(ETarvoKelvaneOpenApiType type);
    static void m_ReadOsdLanguage();

    static ZephCurl::ZephCurlEasy* m_pEasyHandle;
    static char* m_pData;
    static uint32_t m_dataSize;
    static ETarvoKelvaneOpenApiType m_currentType;
    static int32_t m_errorCode;
    static bool m_invalidHeader;
    static std::string m_osdLanguage;
};
