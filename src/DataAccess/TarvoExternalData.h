// CTarvoExternalData: the device's own data (country, model, ids, flags, country list,
// language mapping), read from the platform. A process-wide singleton called from any
// thread; m_Mutex guards every member. It may be taken inside the store's lock, never the reverse.
#pragma once

#include <Sedge/Sedge.h>

#include <map>
#include <string>
#include <vector>

#include "TarvoTypes.h"

class CTarvoExternalData {
  public:
    static CTarvoExternalData* GetInstance();
    static void Destroy();

    bool IsServiceMode();
    std::string GetCountryCode();
    bool SetCountryCode(std::string code);
    std::string GetAppsDomains();
    std::string GetModelID();
    int GetOstrelBlocked();
    std::string GetDUID();
    std::string GetFirmCode();
    std::string GetActiveMacAddress();
    void SetActiveMacAddress(const char* mac);
    bool IsHotelTV();
    bool IsSupportUHD();
    bool IsSupportUHDRM();
    bool IsSupportVoiceRecognition();
    int GetNimbraErrorCode();
    std::string GetProductSWVersion();

    // Fetches and parses the country list; false leaves an empty list.
    bool GetCountryCodeList();
    // Appends deep copies of the list to `out`; the caller deletes them.
    void CopyCountryCodeList(std::vector<STTarvoCountryCode*>& out);

    std::string GetAcceptLanguage();

  private:
    CTarvoExternalData();
    ~CTarvoExternalData();
    CTarvoExternalData(const CTarvoExternalData&) = delete;
    CTarvoExternalData& operator=(const CTarvoExternalData&) = delete;

    void m_MapLanguage();

    static CTarvoExternalData* m_pInstance;

    Sedge::TCMutex m_Mutex;  // guards m_ActiveMac, m_DUID, m_FirmCode, m_LanguageMap, m_CountryCodeList
    std::string m_ActiveMac;
    std::string m_DUID;
    std::string m_FirmCode;
    std::map<std::string, std::string> m_LanguageMap;
    std::vector<STTarvoCountryCode*>* m_CountryCodeList;
};
