// CTarvoNetworkInfo: tells whether the set has a working network and sends event 256 once
// when it comes up; owns one connection handle. Called from the main worker, the power
// thread and the vconf notification thread; it has no lock (the sent flag is a plain field).
#pragma once

#include <net_connection.h>
#include <vconf.h>

namespace Sedge {
class TCAlarm;
}

class CTarvoNetworkInfo {
  public:
    static CTarvoNetworkInfo* GetInstance();
    static void Destroy();

    bool CheckNetworkStatus();
    void SubscribeNetwork();
    void ResetSentFlag();

  private:
    CTarvoNetworkInfo();
    ~CTarvoNetworkInfo() = default;
    CTarvoNetworkInfo(const CTarvoNetworkInfo&) = delete;
    CTarvoNetworkInfo& operator=(const CTarvoNetworkInfo&) = delete;

    bool m_InitNetwork();
    void m_GetMacAddress(connection_type_e type);
    bool m_CheckNetworkStatus();
    static void m_NetworkStateChanged(keynode_t* keynode, void* data);
    static void m_NetworkStateCallBack(connection_error_e error, char* text, void* data);

    static CTarvoNetworkInfo* m_Instance;

    connection_h* m_Connection;
    Sedge::TCAlarm* m_pReservedAlarm;
    bool m_bInitEventSent;
};
