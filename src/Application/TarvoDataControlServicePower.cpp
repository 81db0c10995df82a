#include "TarvoDataControlService.h"

#include "TarvoInternalData.h"
#include "TarvoLog.h"
#include "TarvoNetworkInfo.h"

namespace {
// With this bit set in the power-off state the store stays open.
constexpr int kPowerOffKeepStoreBit = 0x40000000;
}  // namespace

int CTarvoDataControlService::m_PowerOffCallback(int state, void* /*userData*/) {
    TARVO_LOGW("m_PowerOffCallback BEGIN %d", state);
    if ((state & kPowerOffKeepStoreBit) == 0) {
        TARVO_LOGW("close database");
        CTarvoInternalData::GetInstance()->Finalize();
    }
    TARVO_LOGW("m_PowerOffCallback END");
    return 1;
}

int CTarvoDataControlService::m_WakeupCallback(int state, void* userData) {
    TARVO_LOGW("m_WakeupCallback BEGIN %d", state);
    CTarvoNetworkInfo* pNetworkInfo = CTarvoNetworkInfo::GetInstance();
    if (pNetworkInfo == nullptr) {
        return 1;
    }
    if (pNetworkInfo->CheckNetworkStatus()) {
        TARVO_LOGI("NETWORK is connectd ");
        Sedge::TCEvent event;
        event.type = MESSAGE_KELVANE_INFO_SERVICE_INIT;
        static_cast<CTarvoDataControlService*>(userData)->SendEvent(&event, DATA_CONTROL_MAIN_SERV);
    } else {
        pNetworkInfo->ResetSentFlag();
        TARVO_LOGW("network connect fail!");
        pNetworkInfo->SubscribeNetwork();
    }
    return 1;
}
