// The client methods that change or start something: update and country list requests,
// agreements, the reset request and the country code.
#include <map>
#include <string>

#include "TarvoDataControlService.h"
#include "TarvoDisclaimerDataItem.h"
#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoLog.h"

void CTarvoDataControlService::m_RequestUpdateDisclaimers(const Json::Value& request, Json::Value& reply) {
    const std::string requestFrom = request["request_from"].asString();
    Sedge::TCEvent event;
    event.type = MESSAGE_REQUEST_GET_DISCLAIMER;
    // The reply only says that the request was taken; the outcome comes as a notification.
    reply["result"] = true;
    event.data.json["requester"] = requestFrom == "wizard-terms" ? TARVO_KELVANE_DISCLAIMER_REQUESTER_WIZARD
                                                                 : TARVO_KELVANE_DISCLAIMER_REQUESTER_APP;
    if (!SendEvent(&event, KELVANE_INFO_SERV)) {
        Sedge::TCMessage notification;
        notification.type = "tarvodatacontrol";
        notification.json["type"] = "terms_protocol";
        notification.json["result"] = "fail";
        notification.json["wizard_page"] = requestFrom;
        notification.json["error_code"] = 0;
        notification.json["name"] = "new_disclaimer_got";
        m_pCommunicationServer->SendNotification(notification);
    }
}

void CTarvoDataControlService::m_RequestCountryCodeList() {
    Sedge::TCEvent event;
    event.type = MESSAGE_REQUEST_GET_COUNTRYCODE_LIST;
    if (!SendEvent(&event, KELVANE_INFO_SERV)) {
        Sedge::TCMessage notification;
        notification.type = "tarvodatacontrol";
        notification.json["type"] = "terms_protocol";
        notification.json["result"] = "fail";
        notification.json["error_code"] = 0;
        notification.json["name"] = "new_country_list_got";
        m_pCommunicationServer->SendNotification(notification);
    }
}

void CTarvoDataControlService::m_SetOneAgreement(const Json::Value& request, Json::Value& reply) {
    const std::string id = request["request_item"].asString();
    const bool agreed = request["is_agreed"].asBool();
    std::string changes;
    CTarvoInternalData::GetInstance()->SetAgreement(id, agreed, changes);
    m_BroadcastAgreement(changes);
    // True whatever the store found: an unknown id is answered the same way.
    reply["result"] = true;
}

void CTarvoDataControlService::m_SetAgreements(const Json::Value& request) {
    const Json::Value agreements = request["agreements"];
    const Json::ArrayIndex count = agreements.size();
    CTarvoInternalData* pInternalData = CTarvoInternalData::GetInstance();
    std::string changes;
    for (Json::ArrayIndex i = 0; i < count; ++i) {
        const std::string id = agreements[i]["request_item"].asString();
        const bool agreed = agreements[i]["is_agreed"].asBool();
        TARVO_LOGD("********item: %s agree: %s *********", id.c_str(), agreed ? "true" : "false");
        pInternalData->SetAgreement(id, agreed, changes);
    }
    // One broadcast for the whole list, so that the upload runs once.
    m_BroadcastAgreement(changes);
}

void CTarvoDataControlService::m_SetAllAgreement(const Json::Value& request) {
    std::string changes;
    // Read before the copy is taken: a conversion that throws then leaves nothing behind.
    const bool agreed = request["is_agreed"].asBool();
    CTarvoInternalData* pInternalData = CTarvoInternalData::GetInstance();
    std::map<std::string, TarvoDisclaimerDataItem*>* copies = pInternalData->CopyDisclaimerItems(true);
    for (const auto& entry : *copies) {
        if (entry.second->isAgreed != agreed) {
            pInternalData->SetAgreement(entry.first, agreed, changes);
        }
    }
    pInternalData->DeleteCopyMap(copies);
    m_BroadcastAgreement(changes);
}

void CTarvoDataControlService::m_RequestResetOstrel(Json::Value& reply) {
    // The info service stops its factory first; the main loop's reset follows on the same worker.
    Sedge::TCEvent stopEvent;
    stopEvent.type = MESSAGE_REQUEST_RESET_OSTREL;
    SendEvent(&stopEvent, KELVANE_INFO_SERV);
    Sedge::TCEvent resetEvent;
    resetEvent.type = MESSAGE_REQUEST_RESET_OSTREL;
    SendEvent(&resetEvent, DATA_CONTROL_MAIN_SERV);
    reply["result"] = true;
}

void CTarvoDataControlService::m_SetCountryCode(const Json::Value& request, Json::Value& reply) {
    const std::string code = request["country_code"].asString();
    // A failure shows in the log only; the next server request reads whatever is set.
    CTarvoExternalData::GetInstance()->SetCountryCode(code);
    reply["result"] = true;
}
