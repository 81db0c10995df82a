// Reset of the service's data, the broadcast of changed answers and the revised-terms flag.
#include <vconf.h>

#include <map>
#include <string>

#include "TarvoDataControlService.h"
#include "TarvoDisclaimerDataItem.h"
#include "TarvoInternalData.h"
#include "TarvoLog.h"

namespace {
const char* const kRevisedKey = "db/tarvodatacontrol/disclaimer_revised";
const char* const kOstrelResetKey = "db/ostrel/reset/tarvosetting";
}  // namespace

void CTarvoDataControlService::m_DataControlReset(ETarvoResetRequestType type) {
    TARVO_LOGD("reset tarvo data control type %d!", static_cast<int>(type));
    CTarvoInternalData* pInternalData = CTarvoInternalData::GetInstance();
    // Taken before the store is emptied: the answers it held are the ones taken back.
    std::map<std::string, TarvoDisclaimerDataItem*>* copies = pInternalData->CopyDisclaimerItems(true);
    pInternalData->ClearDisclaimerItems();
    pInternalData->SetDisclaimerOSDLanguge("");
    m_CheckRevisedTerms();

    std::string agreements;
    for (const auto& entry : *copies) {
        if (entry.second->isAgreed) {
            agreements += entry.first + ":false;";
        }
    }
    pInternalData->DeleteCopyMap(copies);
    m_BroadcastAgreement(agreements);

    if (type == TARVO_RESET_REQUEST_OSTREL) {
        TARVO_LOGW("set VCONF db/ostrel/reset/tarvosetting 1");
        vconf_set_int(kOstrelResetKey, 1);
    }
}

void CTarvoDataControlService::m_BroadcastAgreement(const std::string& agreements) {
    TARVO_LOGD("m_BroadcastAgreement : %s", agreements.c_str());
    if (agreements.empty()) {
        return;
    }
    Sedge::TCMessage notification;
    notification.type = "tarvodatacontrol";
    notification.json["type"] = "terms_protocol";
    notification.json["agreements"] = agreements;
    notification.json["name"] = "new_disclaimer_agree_changed";
    m_pCommunicationServer->SendNotification(notification);

    TARVO_LOGI("Put Agreement to Server request");
    Sedge::TCEvent event;
    event.type = MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT;
    SendEvent(&event, DISCLAIMER_AGREEMENT_SERV);
    TARVO_LOGI("Revised Disclaimer request");
    event.type = MESSAGE_TARVOPANEL_INTERNAL_DISCLAIMER_REVISED;
    SendEvent(&event, DATA_CONTROL_MAIN_SERV);
}

void CTarvoDataControlService::m_CheckRevisedTerms() {
    TARVO_LOGI("m_CheckRevisedTerms");
    CTarvoInternalData* pInternalData = CTarvoInternalData::GetInstance();
    std::map<std::string, TarvoDisclaimerDataItem*>* copies = pInternalData->CopyDisclaimerItems(true);
    bool revised = false;
    for (const auto& entry : *copies) {
        if (entry.second->hasRevised) {
            revised = true;
            break;
        }
    }
    pInternalData->DeleteCopyMap(copies);

    int stored = 0;
    vconf_get_int(kRevisedKey, &stored);
    // Not mirror images: a stored value other than 0 or 1 is left alone either way.
    if (revised && stored == 0) {
        vconf_set_int(kRevisedKey, 1);
    } else if (!revised && stored == 1) {
        vconf_set_int(kRevisedKey, 0);
    }
}
