#include "TarvoDataControlService.h"

#include <device/power.h>

#include <string>

#include "TarvoDisclaimerAgreement.h"
#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoKelvaneInfoService.h"
#include "TarvoLog.h"
#include "TarvoNetworkInfo.h"

namespace {

Sedge::TCMessage MakeNotification(const char* name, const char* result) {
    Sedge::TCMessage message;
    message.type = "tarvodatacontrol";
    message.json["type"] = "terms_protocol";
    message.json["name"] = name;
    message.json["result"] = result;
    return message;
}

// Requester 1 is the easy-setup wizard; anything else, an absent key too, is the terms page.
const char* WizardPage(const Json::Value& data) {
    return data["requester"].asInt() == TARVO_KELVANE_DISCLAIMER_REQUESTER_APP ? "wizard-easy"
                                                                               : "wizard-terms";
}

std::string CopyParamText(intptr_t param) {
    const char* text = reinterpret_cast<const char*>(param);
    return text != nullptr ? std::string(text) : std::string();
}

}  // namespace

bool CTarvoDataControlService::t_OnEvent(Sedge::TCEvent event) {
    TARVO_LOGW("CTarvoDataControlService::t_OnEvent... %d", event.type);
    const Json::Value& data = event.data.json;
    switch (event.type) {
        case MESSAGE_TARVODATA_CONTROL_SERVICE_INIT: {
            CTarvoInternalData* pInternalData = CTarvoInternalData::GetInstance();
            CTarvoExternalData::GetInstance();
            if (!pInternalData->Initialize()) {
                TARVO_LOGW("Initialize internal data fail!");
                return false;
            }
            if (m_pKelvaneInfoServ == nullptr) {
                m_pKelvaneInfoServ = new CTarvoKelvaneInfoService();
                if (!m_pKelvaneInfoServ->Create()) {
                    TARVO_LOGW("Create TarvoKelvaneInfo service fail!");
                    return false;
                }
            }
            CTarvoNetworkInfo* pNetworkInfo = CTarvoNetworkInfo::GetInstance();
            if (pNetworkInfo == nullptr) {
                TARVO_LOGW("pNetworkInfo is NULL!");
            } else if (pNetworkInfo->CheckNetworkStatus()) {
                TARVO_LOGI("NETWORK is connectd ");
                Sedge::TCEvent initEvent;
                initEvent.type = MESSAGE_KELVANE_INFO_SERVICE_INIT;
                SendEvent(&initEvent, DATA_CONTROL_MAIN_SERV);
            } else {
                TARVO_LOGW("network connect fail!");
                pNetworkInfo->SubscribeNetwork();
            }
            TARVO_LOGI("Register factory callback");
            device_power_subscribe_poweroff(m_PowerOffCallback, this);
            device_power_subscribe_wakeup(m_WakeupCallback, this);
            Sedge::TCEvent revisedEvent;
            revisedEvent.type = MESSAGE_TARVOPANEL_INTERNAL_DISCLAIMER_REVISED;
            SendEvent(&revisedEvent, DATA_CONTROL_MAIN_SERV);
            TARVO_LOGW("Data Control Service Created Success!");
            return true;
        }
        case MESSAGE_KELVANE_INFO_SERVICE_INIT: {
            if (m_pKelvaneInfoServ != nullptr) {
                TARVO_LOGI("send MESSAGE_KELVANE_INFO_SERVICE_START_FACTORY");
                Sedge::TCEvent startEvent;
                startEvent.type = MESSAGE_KELVANE_INFO_SERVICE_START_FACTORY;
                SendEvent(&startEvent, KELVANE_INFO_SERV);
            }
            if (m_pDisclaimerAgreement == nullptr) {
                m_pDisclaimerAgreement = new CTarvoDisclaimerAgreement();
                if (!m_pDisclaimerAgreement->Create()) {
                    TARVO_LOGW("Create DisclaimerAgreement service fail!");
                    return false;
                }
            }
            return true;
        }
        case MESSAGE_REQUEST_RESET_OSTREL:
            TARVO_LOGD("get event MESSAGE_REQUEST_RESET_OSTREL");
            m_DataControlReset(TARVO_RESET_REQUEST_OSTREL);
            return true;
        case MESSAGE_GET_COUNTRYCODE_LIST_SUCCESS: {
            TARVO_LOGI("MESSAGE_GET_COUNTRYCODE_LIST_SUCCESS");
            Sedge::TCMessage notification = MakeNotification("new_country_list_got", "success");
            m_pCommunicationServer->SendNotification(notification);
            return true;
        }
        case MESSAGE_GET_COUNTRYCODE_LIST_FAIL: {
            TARVO_LOGI("MESSAGE_GET_COUNTRYCODE_LIST_FAIL");
            Sedge::TCMessage notification = MakeNotification("new_country_list_got", "fail");
            notification.json["error_code"] = static_cast<int>(event.data.param);
            notification.json["error_reason"] = data["error_reason"];
            m_pCommunicationServer->SendNotification(notification);
            return true;
        }
        case MESSAGE_GET_DISCLAIMER_SUCCESS: {
            TARVO_LOGI("MESSAGE_GET_DISCLAIMER_SUCCESS");
            Sedge::TCMessage notification = MakeNotification("new_disclaimer_got", "success");
            notification.json["wizard_page"] = WizardPage(data);
            m_pCommunicationServer->SendNotification(notification);
            return true;
        }
        case MESSAGE_GET_DISCLAIMER_FAIL: {
            TARVO_LOGI("MESSAGE_GET_DISCLAIMER_FAIL");
            TARVO_LOGI("MESSAGE_GET_DISCLAIMER_FAIL %d", static_cast<int>(event.data.param));
            Sedge::TCMessage notification = MakeNotification("new_disclaimer_got", "fail");
            notification.json["error_code"] = static_cast<int>(event.data.param);
            notification.json["error_reason"] = data["error_reason"];
            notification.json["wizard_page"] = WizardPage(data);
            m_pCommunicationServer->SendNotification(notification);
            return true;
        }
        case MESSAGE_CLOGGER_EVENT_MOVETOPPANEL: {
            TARVO_LOGI("get event MESSAGE_CLOGGER_EVENT_MOVETOPPANEL");
            std::string text = CopyParamText(event.data.param);
            return true;
        }
        case MESSAGE_CLOGGER_EVENT_TICK: {
            TARVO_LOGI("get event MESSAGE_CLOGGER_EVENT_TICK");
            std::string text = CopyParamText(event.data.param);
            return true;
        }
        case MESSAGE_CLOGGER_EVENT_P01_PRIVACY: {
            TARVO_LOGI("get event MESSAGE_CLOGGER_EVENT_P01_PRIVACY");
            std::string text = CopyParamText(event.data.param);
            // The usage-log client that would act on "begin" is not wired to this event.
            static_cast<void>(text == "begin");
            return true;
        }
        case MESSAGE_TARVOPANEL_INTERNAL_DISCLAIMER_REVISED:
            TARVO_LOGD("MESSAGE_TARVOPANEL_INTERNAL_DISCLAIMER_REVISED");
            m_CheckRevisedTerms();
            return true;
        default:
            return true;
    }
}
