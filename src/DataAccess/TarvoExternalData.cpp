#include "TarvoExternalData.h"

#include <factory_data.h>
#include <hesper.h>
#include <nimbra.h>
#include <system_info.h>
#include <vconf.h>

#include <cstdlib>
#include <cstring>

#include "TarvoLog.h"

namespace {

constexpr int kFactoryServerMode = 166;
constexpr int kFactoryHotelMode = 112;

// Takes a vconf string into a std::string and releases it; empty when vconf gave nothing.
std::string TakeVconfString(const char* key) {
    std::string value;
    char* text = vconf_get_str(key);
    if (text != nullptr) {
        value = text;
        free(text);
    }
    return value;
}

}  // namespace

CTarvoExternalData* CTarvoExternalData::m_pInstance = nullptr;

CTarvoExternalData::CTarvoExternalData() : m_CountryCodeList(nullptr) { m_Mutex.Create(); }

// The country list stays allocated: it belongs to the process until its end.
CTarvoExternalData::~CTarvoExternalData() { m_Mutex.Destroy(); }

CTarvoExternalData* CTarvoExternalData::GetInstance() {
    if (m_pInstance == nullptr) {
        m_pInstance = new CTarvoExternalData();
    }
    return m_pInstance;
}

void CTarvoExternalData::Destroy() {
    delete m_pInstance;
    m_pInstance = nullptr;
}

bool CTarvoExternalData::IsServiceMode() {
    Sedge::TCMutexGuard guard(m_Mutex);
    FactoryData data{};
    // The result of GetData is not looked at: a failed read counts as the operating server.
    GetData(kFactoryServerMode, &data);
    if (data.i_val == 0) {
        TARVO_LOGW("**************QUOR_BASE_OPERATIING_SERVER******************");
        return true;
    }
    TARVO_LOGW("**************QUOR_BASE_DEVELOPMENTorDEVLOPING_SERVER******************");
    return false;
}

std::string CTarvoExternalData::GetCountryCode() {
    Sedge::TCMutexGuard guard(m_Mutex);
    std::string code = TakeVconfString("db/nimbra/countrycode");
    TARVO_LOGW("Get vconf country code: %s", code.c_str());
    return code;
}

bool CTarvoExternalData::SetCountryCode(std::string code) {
    Sedge::TCMutexGuard guard(m_Mutex);
    TARVO_LOGW("Set vconf country code: %s", code.c_str());
    std::string current = TakeVconfString("db/nimbra/countrycode");
    if (code != current) {
        if (nimbra_set_gpm_countrycode(code.c_str()) == 0) {
            TARVO_LOGW("Set CountryCode FAIL");
            return false;
        }
    }
    TARVO_LOGI("Set CountryCode success");
    return true;
}

std::string CTarvoExternalData::GetAppsDomains() {
    Sedge::TCMutexGuard guard(m_Mutex);
    std::string domain = TakeVconfString("db/nimbra/gpmurl/apps");
    TARVO_LOGW("Get vconf service domain: %s", domain.c_str());
    return domain;
}

std::string CTarvoExternalData::GetModelID() {
    Sedge::TCMutexGuard guard(m_Mutex);
    std::string model = TakeVconfString("db/nimbra/modelid");
    TARVO_LOGW("Get vconf modelId : %s", model.c_str());
    return model;
}

int CTarvoExternalData::GetOstrelBlocked() {
    Sedge::TCMutexGuard guard(m_Mutex);
    int stored = 0;
    int result = 0;
    if (vconf_get_int("db/nimbra/cisblock", &stored) == 0) {
        if (stored == 2) {
            result = 2;
        } else if (stored == 1) {
            result = 1;
        }
    }
    TARVO_LOGW("GetOstrelBlocked return value %d", result);
    return result;
}

std::string CTarvoExternalData::GetDUID() {
    Sedge::TCMutexGuard guard(m_Mutex);
    if (m_DUID.empty()) {
        char* text = vconf_get_str("db/nimbra/duid");
        if (text != nullptr) {
            m_DUID = text;
            free(text);
        }
        TARVO_LOGW("vconf duid : %s", m_DUID.c_str());
    }
    return m_DUID;
}

std::string CTarvoExternalData::GetFirmCode() {
    Sedge::TCMutexGuard guard(m_Mutex);
    if (!m_FirmCode.empty()) {
        return m_FirmCode;
    }
    char* text = nullptr;
    if (hesper_get_quorbase_ver(&text) == 0 && text != nullptr) {
        m_FirmCode = text;
    }
    free(text);
    return m_FirmCode;
}

std::string CTarvoExternalData::GetActiveMacAddress() {
    Sedge::TCMutexGuard guard(m_Mutex);
    return m_ActiveMac;
}

void CTarvoExternalData::SetActiveMacAddress(const char* mac) {
    Sedge::TCMutexGuard guard(m_Mutex);
    m_ActiveMac.clear();
    // A new address means the device id must be read again.
    m_DUID.clear();
    for (const char* p = mac; p != nullptr && *p != '\0'; ++p) {
        if (*p != ':') m_ActiveMac.push_back(*p);
    }
    TARVO_LOGW("set mac addr : %s", m_ActiveMac.c_str());
}

bool CTarvoExternalData::IsHotelTV() {
    Sedge::TCMutexGuard guard(m_Mutex);
    FactoryData data{};
    int ret = GetData(kFactoryHotelMode, &data);
    if (ret == 0) {
        TARVO_LOGW("###GetData is fail, ret :%d , data.i_val : %d", ret, data.i_val);
        return false;
    }
    if (data.i_val != 0) {
        TARVO_LOGW(" This is Retail Hotel Mode ");
        return true;
    }
    return false;
}

bool CTarvoExternalData::IsSupportUHD() {
    Sedge::TCMutexGuard guard(m_Mutex);
    bool value = false;
    system_info_get_value_bool(SYSTEM_INFO_KEY_UHD_SUPPORT, &value);
    TARVO_LOGI("IsSupportUHD : %s", value ? "true" : "false");
    return value;
}

bool CTarvoExternalData::IsSupportUHDRM() {
    Sedge::TCMutexGuard guard(m_Mutex);
    bool value = false;
    system_info_get_value_bool(SYSTEM_INFO_KEY_UHD_RM_SUPPORT, &value);
    TARVO_LOGI("IsSupportUHDRM : %s", value ? "true" : "false");
    return value;
}

bool CTarvoExternalData::IsSupportVoiceRecognition() {
    Sedge::TCMutexGuard guard(m_Mutex);
    bool value = false;
    system_info_get_value_bool(SYSTEM_INFO_KEY_VOICE_RECOGNITION_SUPPORT, &value);
    TARVO_LOGI("IsSupportVoiceRecognition : %s", value ? "true" : "false");
    return value;
}

int CTarvoExternalData::GetNimbraErrorCode() {
    char* text = nullptr;
    nimbra_get_term_error(&text);
    int code = 0;
    if (text != nullptr) {
        TARVO_LOGW("nimbra_get_term_error NULL");
        code = static_cast<int>(strtol(text, nullptr, 10));
        free(text);
    }
    TARVO_LOGW("GetNimbraErrorCode : %d", code);
    return code;
}

std::string CTarvoExternalData::GetProductSWVersion() {
    std::string version;
    char* text = nullptr;
    if (system_info_get_value_string(SYSTEM_INFO_KEY_PRODUCT_SW_VERSION, &text) == 0 && text != nullptr) {
        TARVO_LOGW("ver = %s", text);
        version = text;
    }
    free(text);
    return version;
}
