#include "TarvoNetworkInfo.h"

#include <Sedge/Sedge.h>

#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "TarvoDataControlService.h"
#include "TarvoExternalData.h"
#include "TarvoLog.h"
#include "TarvoTypes.h"

namespace {

constexpr const char* kNetworkStatusKey = "memory/dnet/status";
constexpr const char* kDnsChangedKey = "memory/dnet/dns_changed";

void SendInitEvent() {
    Sedge::TCEvent event;
    event.type = MESSAGE_KELVANE_INFO_SERVICE_INIT;
    CTarvoDataControlService::GetInstance()->SendEvent(&event, DATA_CONTROL_MAIN_SERV);
}

}  // namespace

CTarvoNetworkInfo* CTarvoNetworkInfo::m_Instance = nullptr;

CTarvoNetworkInfo::CTarvoNetworkInfo()
    : m_Connection(nullptr), m_pReservedAlarm(nullptr), m_bInitEventSent(false) {}

CTarvoNetworkInfo* CTarvoNetworkInfo::GetInstance() {
    if (m_Instance == nullptr) {
        m_Instance = new CTarvoNetworkInfo();
    }
    return m_Instance;
}

// The vconf subscriptions stay: nothing cancels them.
void CTarvoNetworkInfo::Destroy() {
    TARVO_LOGW("called!");
    CTarvoNetworkInfo* self = m_Instance;
    if (self == nullptr) {
        return;
    }
    if (self->m_Connection != nullptr) {
        connection_destroy(*self->m_Connection);
        delete self->m_Connection;
        self->m_Connection = nullptr;
    }
    if (self->m_pReservedAlarm != nullptr) {
        self->m_pReservedAlarm->Destroy();
        delete self->m_pReservedAlarm;
        self->m_pReservedAlarm = nullptr;
    }
    self->m_bInitEventSent = false;
    delete self;
    m_Instance = nullptr;
}

bool CTarvoNetworkInfo::CheckNetworkStatus() {
    TARVO_LOGI("CheckNetworkStatus...");
    if (!m_InitNetwork()) {
        TARVO_LOGW("Init network connection fail!");
        return false;
    }
    return m_CheckNetworkStatus();
}

void CTarvoNetworkInfo::SubscribeNetwork() {
    vconf_notify_key_changed(kNetworkStatusKey, m_NetworkStateChanged, this);
    vconf_notify_key_changed(kDnsChangedKey, m_NetworkStateChanged, this);
}

void CTarvoNetworkInfo::ResetSentFlag() { m_bInitEventSent = false; }

bool CTarvoNetworkInfo::m_InitNetwork() {
    if (m_Connection != nullptr) {
        return true;
    }
    m_Connection = new connection_h(nullptr);
    int ret = connection_create(m_Connection);
    TARVO_LOGI("Create connection net value : %d", ret);
    if (ret == CONNECTION_ERROR_NONE) {
        return true;
    }
    TARVO_LOGW("Create connection fail!");
    delete m_Connection;
    m_Connection = nullptr;
    return false;
}

bool CTarvoNetworkInfo::m_CheckNetworkStatus() {
    if (m_Connection == nullptr) {
        TARVO_LOGW("m_Connection is NULL");
        return false;
    }
    connection_profile_h profile = nullptr;
    if (connection_get_current_profile(*m_Connection, &profile) != CONNECTION_ERROR_NONE) {
        TARVO_LOGW("Fail to get profile ");
        // Abandoned without destroying, so that the next check builds a fresh connection.
        m_Connection = nullptr;
        return false;
    }
    connection_profile_type_e profileType = CONNECTION_PROFILE_TYPE_CELLULAR;
    if (connection_profile_get_type(profile, &profileType) != CONNECTION_ERROR_NONE) {
        TARVO_LOGW("Fail to get profile type");
        return false;
    }
    bool dnsAvailable = false;
    if (connection_profile_check_default_dns(&dnsAvailable) != CONNECTION_ERROR_NONE) {
        TARVO_LOGW("connection_profile_check_gateway FAIL");
        return false;
    }
    TARVO_LOGI("connection_profile_check_default_dns SUCCESS");
    if (!dnsAvailable) {
        TARVO_LOGW("Network status is %s", "not connected");
        return false;
    }
    connection_type_e macType = CONNECTION_TYPE_ETHERNET;
    switch (profileType) {
        case CONNECTION_PROFILE_TYPE_WIFI:
            TARVO_LOGI("profile_type CONNECTION_PROFILE_TYPE_WIFI");
            macType = CONNECTION_TYPE_WIFI;
            break;
        case CONNECTION_PROFILE_TYPE_ETHERNET:
            TARVO_LOGI("profile_type CONNECTION_PROFILE_TYPE_ETHERNET");
            macType = CONNECTION_TYPE_ETHERNET;
            break;
        case CONNECTION_PROFILE_TYPE_CELLULAR:
            TARVO_LOGI("profile_type CONNECTION_PROFILE_TYPE_CELLULAR");
            macType = CONNECTION_TYPE_CELLULAR;
            break;
        case CONNECTION_PROFILE_TYPE_BT:
            TARVO_LOGI("profile_type CONNECTION_PROFILE_TYPE_BT");
            macType = CONNECTION_TYPE_BT;
            break;
        default:
            TARVO_LOGI("profile_type CONNECTION_TYPE_DISCONNECTED or Others");
            macType = CONNECTION_TYPE_ETHERNET;
            break;
    }
    m_GetMacAddress(macType);
    TARVO_LOGI("Network status is %s", "connected");
    return true;
}

void CTarvoNetworkInfo::m_GetMacAddress(connection_type_e type) {
    char* mac = nullptr;
    connection_h handle = m_Connection != nullptr ? *m_Connection : nullptr;
    int ret = connection_get_mac_address(handle, type, &mac);
    if (ret != CONNECTION_ERROR_NONE || mac == nullptr) {
        TARVO_LOGW("Get Mac Address Failed");
        CTarvoExternalData::GetInstance()->SetActiveMacAddress("00:00:00:00:00:00");
        free(mac);
        return;
    }
    TARVO_LOGI("Get Mac Address : %s", mac);
    CTarvoExternalData::GetInstance()->SetActiveMacAddress(mac);
    free(mac);
}

void CTarvoNetworkInfo::m_NetworkStateChanged(keynode_t* keynode, void* data) {
    CTarvoNetworkInfo* self = static_cast<CTarvoNetworkInfo*>(data);
    int status = 0;
    vconf_get_int(kNetworkStatusKey, &status);
    const char* keyName = keynode != nullptr ? vconf_keynode_get_name(keynode) : nullptr;
    TARVO_LOGI("Network state == %d, vconfkey=%s", status, keyName != nullptr ? keyName : "");
    if (status != 1 && status != 2 && status != 3) {
        return;
    }
    if (self->m_bInitEventSent) {
        TARVO_LOGI("Already done!");
        return;
    }
    TARVO_LOGI("waiting for network connection for 2 seconds!!...");
    // Gives the network manager time to finish bringing the link up; blocks only this callback.
    sleep(2);
    TARVO_LOGI("check the network connection!");
    if (!self->CheckNetworkStatus()) {
        TARVO_LOGW("Network is not successful! try again!!");
        return;
    }
    TARVO_LOGI("send MESSAGE_KELVANE_INFO_SERVICE_INIT");
    SendInitEvent();
    self->m_bInitEventSent = true;
    if (status == 3) {
        self->m_GetMacAddress(CONNECTION_TYPE_ETHERNET);
    }
}

void CTarvoNetworkInfo::m_NetworkStateCallBack(connection_error_e error, char* text, void* data) {
    CTarvoNetworkInfo* self = static_cast<CTarvoNetworkInfo*>(data);
    TARVO_LOGI("m_NetworkStateCallBack : %s", text != nullptr ? text : "");
    if (text == nullptr || strncmp(text, "DNS", 3) != 0) {
        return;
    }
    if (error == CONNECTION_ERROR_NONE && !self->m_bInitEventSent) {
        TARVO_LOGI("Connected");
        TARVO_LOGI("send MESSAGE_KELVANE_INFO_SERVICE_INIT");
        SendInitEvent();
        self->m_bInitEventSent = true;
        connection_type_e type = CONNECTION_TYPE_ETHERNET;
        if (self->m_Connection == nullptr ||
            connection_get_type(*self->m_Connection, &type) != CONNECTION_ERROR_NONE) {
            type = CONNECTION_TYPE_ETHERNET;
        }
        self->m_GetMacAddress(type);
        return;
    }
    TARVO_LOGW("connect fail: %d", error);
}
