// The client API: the frame of OnCallAPI, the query methods and the JSON form of one disclaimer.
#include <map>
#include <string>
#include <vector>

#include "TarvoDataControlService.h"
#include "TarvoDisclaimerDataItem.h"
#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoLog.h"

namespace {

void DeleteOrderedItems(std::vector<TarvoDisclaimerDataItem*>* items) {
    for (TarvoDisclaimerDataItem* item : *items) {
        delete item;
    }
    delete items;
}

}  // namespace

Sedge::TCMessage CTarvoDataControlService::OnCallAPI(Sedge::TCMessage& message) {
    // Read through a const view, so that looking up a missing key never adds it to the request.
    const Json::Value& request = message.json;
    std::string messageType = message.type;
    TARVO_LOGD("OnCallApi called,  message Type: %s, method: %s", messageType.c_str(),
               request["method"].asString().c_str());
    CTarvoInternalData::GetInstance();
    CTarvoExternalData::GetInstance();
    Sedge::TCMessage reply;

    // Exact, case-sensitive comparison in a fixed order; the first match answers.
    const std::string method = request["method"].asString();
    if (method == "is service available") {
        if (m_pKelvaneInfoServ == nullptr) {
            TARVO_LOGD("m_pKelvaneInfoServ is not created yet");
            reply.json["result"] = false;
        } else {
            reply.json["result"] = true;
        }
        return reply;
    } else if (method == "get disclaimer number") {
        m_GetDisclaimerNumber(request, reply.json);
    } else if (method == "get disclaimer by order") {
        m_GetDisclaimerByOrder(request, reply.json);
    } else if (method == "get disclaimer by term id") {
        m_GetDisclaimerByTermId(request, reply.json);
    } else if (method == "request update disclaimers") {
        m_RequestUpdateDisclaimers(request, reply.json);
    } else if (method == "get country code list") {
        m_GetCountryCodeList(reply.json);
    } else if (method == "request country code list") {
        m_RequestCountryCodeList();
    } else if (method == "set one agreement") {
        m_SetOneAgreement(request, reply.json);
    } else if (method == "set agreements") {
        m_SetAgreements(request);
    } else if (method == "set all agreement") {
        m_SetAllAgreement(request);
    } else if (method == "request reset ostrel") {
        m_RequestResetOstrel(reply.json);
    } else if (method == "get revised disclaimers") {
        m_GetRevisedDisclaimers(reply.json);
    } else if (method == "set country code") {
        m_SetCountryCode(request, reply.json);
    } else if (method == "Copy Clone Data TV to USB") {
        reply.json["result"] = CTarvoInternalData::GetInstance()->CopyCloneDataTVtoUSB();
    } else if (method == "Copy Clone Data USB to TV") {
        reply.json["result"] = CTarvoInternalData::GetInstance()->CopyCloneDataUSBtoTV();
    } else {
        TARVO_LOGW("UNKNOWN MESSAGE FOR TARVODATACONTROL");
    }

    if (reply.json.empty()) {
        TARVO_LOGD("reply empty...");
    } else {
        TARVO_LOGD("reply not empty!");
    }
    return reply;
}

void CTarvoDataControlService::m_SetDisclaimerUIInfo(const TarvoDisclaimerDataItem& item, Json::Value& out) {
    out["id"] = item.id;
    out["order"] = item.disorder;
    out["version"] = item.version;
    out["title"] = item.title;
    out["intro"] = item.intro;
    out["details"] = item.details;
    out["button1"] = item.button1;
    out["button2"] = item.button2;
    out["button3"] = item.button3;
    out["button4"] = item.button4;
    out["button5"] = item.button5;
    out["button6"] = item.button6;
    out["button7"] = item.button7;
    out["button8"] = item.button8;
    out["button9"] = item.button9;
    out["button10"] = item.button10;
    out["is_agreed"] = item.isAgreed;
    out["only_notice"] = item.isOnlyNotice;
    out["ppused"] = item.isPPused;
    out["reverse"] = item.isReverse;
    out["agree_dependency"] = item.agreeDependency;
}

void CTarvoDataControlService::m_GetDisclaimerNumber(const Json::Value& request, Json::Value& reply) {
    const ETarvoDisclaimerRequester requester =
        static_cast<ETarvoDisclaimerRequester>(request["requester"].asInt());
    std::vector<TarvoDisclaimerDataItem*>* items =
        CTarvoInternalData::GetInstance()->GetOrderedDisclaimerItems(requester);
    reply["number"] = static_cast<Json::UInt>(items != nullptr ? items->size() : 0);
    reply["result"] = true;
    if (items != nullptr) {
        DeleteOrderedItems(items);
    }
}

void CTarvoDataControlService::m_GetDisclaimerByOrder(const Json::Value& request, Json::Value& reply) {
    const ETarvoDisclaimerRequester requester =
        static_cast<ETarvoDisclaimerRequester>(request["requester"].asInt());
    const int index = request["request_index"].asInt();
    std::vector<TarvoDisclaimerDataItem*>* items =
        CTarvoInternalData::GetInstance()->GetOrderedDisclaimerItems(requester);
    // Compared unsigned, so that a negative index fails like one past the end.
    if (items != nullptr && static_cast<unsigned int>(index) < items->size()) {
        reply["result"] = true;
        m_SetDisclaimerUIInfo(*(*items)[static_cast<unsigned int>(index)], reply);
    } else {
        reply["result"] = false;
    }
    if (items != nullptr) {
        DeleteOrderedItems(items);
    }
}

void CTarvoDataControlService::m_GetDisclaimerByTermId(const Json::Value& request, Json::Value& reply) {
    TARVO_LOGD("request type : get disclaimer by term id");
    // Read before the copy is taken: a conversion that throws then leaves nothing behind.
    const std::string id = request["request_item"].asString();
    CTarvoInternalData* pInternalData = CTarvoInternalData::GetInstance();
    std::map<std::string, TarvoDisclaimerDataItem*>* copies = pInternalData->CopyDisclaimerItems(true);
    auto found = copies->find(id);
    if (found != copies->end()) {
        TARVO_LOGD("result = true");
        reply["result"] = true;
        m_SetDisclaimerUIInfo(*found->second, reply);
    } else {
        TARVO_LOGD("result = false");
        reply["result"] = false;
    }
    pInternalData->DeleteCopyMap(copies);
}

void CTarvoDataControlService::m_GetCountryCodeList(Json::Value& reply) {
    std::vector<STTarvoCountryCode*> countries;
    CTarvoExternalData::GetInstance()->CopyCountryCodeList(countries);
    for (STTarvoCountryCode* country : countries) {
        Json::Value entry;
        entry["country_code"] = country->countryCode;
        entry["country_name"] = country->countryName;
        reply["countries"].append(entry);
        reply["result"] = true;
        delete country;
    }
}

void CTarvoDataControlService::m_GetRevisedDisclaimers(Json::Value& reply) {
    CTarvoInternalData* pInternalData = CTarvoInternalData::GetInstance();
    std::map<std::string, TarvoDisclaimerDataItem*>* copies = pInternalData->CopyDisclaimerItems(true);
    for (const auto& entry : *copies) {
        if (!entry.second->hasRevised) {
            continue;
        }
        TARVO_LOGD("put %s", entry.first.c_str());
        Json::Value disclaimer;
        m_SetDisclaimerUIInfo(*entry.second, disclaimer);
        reply["disclaimers"].append(disclaimer);
    }
    pInternalData->DeleteCopyMap(copies);
    reply["result"] = true;
}
