// The disclaimers answer: each registered disclaimer becomes a record, and the records are merged
// into the store so that the user's answers survive where they still apply.
#include <Sedge/Sedge.h>

#include <cstdlib>
#include <vector>

#include "TarvoDataControlService.h"
#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoKelvaneConnector.h"
#include "TarvoKelvaneDataFactory.h"
#include "TarvoLog.h"

namespace {

ETarvoDisclaimerWindow WindowFromText(const std::string& text) {
    if (text == "main") return TARVO_DISCLAIMER_WINDOW_MAIN;
    if (text == "sub") return TARVO_DISCLAIMER_WINDOW_SUB;
    if (text == "menu") return TARVO_DISCLAIMER_WINDOW_MENU;
    return TARVO_DISCLAIMER_WINDOW_UNKNOWN;
}

void PostEvent(int32_t type, ETarvoServiceName service) {
    Sedge::TCEvent event;
    event.type = type;
    CTarvoDataControlService::GetInstance()->SendEvent(&event, service);
}

}  // namespace

void CTarvoKelvaneDataFactory::m_ProcessServiceDisclaimerJson(char* text, unsigned /*size*/) {
    CTarvoInternalData* store = CTarvoInternalData::GetInstance();
    // The raw answer is kept whatever it turns out to be.
    store->SetDisclaimerXMLData(text != nullptr ? text : "");

    Json::Value root;
    if (!m_ParseAnswer(text, root)) return;

    Json::Value rsp;
    std::string stat;
    m_GetJsonNodeValue(rsp, root, "rsp");
    m_GetJsonStringValue(stat, rsp, "stat");
    TARVO_LOGI("m_ProcessServiceDisclaimerJson result rsp stat %s", stat.c_str());
    if (stat != "ok") {
        m_ReadErrorAnswer(rsp);
        return;
    }

    Json::Value disclaimer;
    std::string disclaimerId;
    m_GetJsonNodeValue(disclaimer, rsp, "disclaimer");
    m_GetJsonStringValue(disclaimerId, disclaimer, "id");
    TARVO_LOGI("m_ProcessServiceDisclaimerJson result id %s", disclaimerId.c_str());

    std::string reverseText;
    m_GetJsonStringValue(reverseText, disclaimer, "reverseOSD");
    const bool reverse = reverseText == "true";
    TARVO_LOGI("reversedOSDStr %s", reverseText.c_str());
    store->m_ReverseOSD = reverse;

    if (stat != "ok" || disclaimerId.empty()) {
        TARVO_LOGW("stat is not ok or disclaimerId, reversedOSDStr are empty");
        return;
    }

    Json::Value items;
    if (!m_GetJsonArrayValue(items, disclaimer, "items")) return;

    std::map<std::string, TarvoDisclaimerDataItem*> records;
    for (Json::Value::ArrayIndex i = 0; i < items.size(); ++i) {
        Json::Value& element = items[i];
        std::string id;
        if (!m_GetJsonStringValue(id, element, "id")) continue;
        TARVO_LOGD("disclimerIdStr %s", id.c_str());
        TarvoDisclaimerDataItem* item = new TarvoDisclaimerDataItem();
        item->id = id;
        item->isReverse = reverse;
        if (!store->IsDisclaimerRegistered(id)) {
            delete item;
            continue;
        }
        m_GetJsonStringValue(item->version, element, "version");
        Json::Value content;
        m_GetJsonNodeValue(content, element, "content");
        m_ReadDisclaimerContent(content, *item);
        item->countryCode = CTarvoExternalData::GetInstance()->GetCountryCode();
        auto placed = records.find(id);
        if (placed != records.end()) {
            delete placed->second;
            placed->second = item;
        } else {
            records[id] = item;
        }
    }

    if (records.empty()) return;
    TARVO_LOGI("mapItem.size : %u", static_cast<unsigned>(records.size()));
    m_SetDisclaimerContentItems(records);
    for (auto& entry : records) delete entry.second;
    records.clear();
}

// A key that is absent, empty or not a string leaves the field as the constructor set it.
void CTarvoKelvaneDataFactory::m_ReadDisclaimerContent(Json::Value& content, TarvoDisclaimerDataItem& item) {
    std::string text;
    if (m_GetJsonStringValue(text, content, "displayWindow")) item.displayWindow = WindowFromText(text);
    if (m_GetJsonStringValue(text, content, "order")) {
        item.disorder = static_cast<int>(strtol(text.c_str(), nullptr, 10));
    }
    m_GetJsonStringValue(item.title, content, "title");
    m_GetJsonStringValue(item.intro, content, "intro");
    if (item.id == "pp") {
        m_ReadPPDetails(content, item);
    } else {
        m_GetJsonStringValue(item.details, content, "details");
    }
    std::string* const buttons[] = {&item.button1, &item.button2, &item.button3, &item.button4,
                                    &item.button5, &item.button6, &item.button7, &item.button8,
                                    &item.button9, &item.button10};
    for (int i = 0; i < 10; ++i) {
        const std::string key = "button" + std::to_string(i + 1);
        m_GetJsonStringValue(*buttons[i], content, key.c_str());
    }
    struct Flag {
        const char* key;
        bool* field;
    };
    const Flag leading[] = {{"only_notice", &item.isOnlyNotice},
                            {"visible_pnp", &item.isVisibleAtPnP},
                            {"visible_menu", &item.isVisibleAtMenu},
                            {"visible_hoteltv", &item.isVisibleAtHotel}};
    for (const Flag& flag : leading) {
        if (m_GetJsonStringValue(text, content, flag.key)) *flag.field = text == "yes";
    }
    m_GetJsonStringValue(item.agreeDependency, content, "agree_dependency");
    const Flag checks[] = {{"check_voice_rec", &item.isCheckVoiceRec},
                           {"check_uhdrm", &item.isCheckUHDRM},
                           {"check_uhd", &item.isCheckUHD},
                           {"pp_use", &item.isPPused}};
    for (const Flag& flag : checks) {
        if (m_GetJsonStringValue(text, content, flag.key)) *flag.field = text == "yes";
    }
    m_GetJsonStringValue(item.subLink, content, "sub_link");
    if (m_GetJsonStringValue(text, content, "m_isForOstrel")) item.isForOstrel = text == "yes";
}

// "pp" carries either plain text or a list of sections, kept as compact JSON text.
void CTarvoKelvaneDataFactory::m_ReadPPDetails(Json::Value& content, TarvoDisclaimerDataItem& item) {
    Json::Value details;
    if (content.isObject() && content.isMember("details")) details = content["details"];
    if (details.isString()) {
        TARVO_LOGI("It is PP`s old RULE");
        item.details = details.asString();
        return;
    }
    Json::Value list;
    if (details.isArray()) {
        list = details;
    } else if (details.empty()) {
        TARVO_LOGI("details is empty");
        return;
    } else {
        TARVO_LOGI("details is not empty");
        if (!m_GetJsonArrayValue(list, details, "detail")) return;
    }
    TARVO_LOGI("It is PP`s new RULE");
    item.details = Json::FastWriter().write(list);
    TARVO_LOGD("pplst rawdata - %s", item.details.c_str());
}

// The records to write for `newItems` against the stored `oldItems`: answers kept where they
// still apply, the others reset and judged for revision.
void CTarvoKelvaneDataFactory::m_MergeDisclaimerItems(
    const std::map<std::string, TarvoDisclaimerDataItem*>& newItems,
    const std::map<std::string, TarvoDisclaimerDataItem*>& oldItems, bool sameOsdLanguage,
    const std::string& country, std::vector<TarvoDisclaimerDataItem*>& result) {
    const bool sameCountry = !oldItems.empty() && country == oldItems.begin()->second->countryCode;
    auto agreedIn = [&oldItems](const char* id) {
        auto found = oldItems.find(id);
        return found != oldItems.end() && found->second->isAgreed;
    };
    const bool tncAgreed = agreedIn("tnc");
    const bool ppAgreed = agreedIn("pp");

    for (const auto& entry : newItems) {
        const TarvoDisclaimerDataItem* fresh = entry.second;
        auto found = oldItems.find(entry.first);
        const TarvoDisclaimerDataItem* old = found != oldItems.end() ? found->second : nullptr;
        TarvoDisclaimerDataItem* copy = nullptr;
        if (sameCountry && old != nullptr && fresh->countryCode == old->countryCode &&
            fresh->version == old->version) {
            if (sameOsdLanguage) continue;
            copy = new TarvoDisclaimerDataItem(*fresh);
            copy->isAgreed = old->isAgreed;
            copy->isAgreementPut = old->isAgreementPut;
            copy->hasRevised = old->hasRevised;
        } else if (fresh->id == "pp" || fresh->id == "tnc") {
            TARVO_LOGI("TNC PP will not use revise popup");
            copy = new TarvoDisclaimerDataItem(*fresh);
            copy->isAgreed = old != nullptr && old->isAgreed;
            copy->isAgreementPut = old != nullptr && old->isAgreementPut;
            copy->hasRevised = old != nullptr && old->hasRevised;
        } else {
            copy = new TarvoDisclaimerDataItem(*fresh);
            copy->isAgreed = false;
            copy->isAgreementPut = false;
            copy->hasRevised = false;
            if (ppAgreed && tncAgreed && sameCountry) m_SetRevisedDisclaimer(*copy);
        }
        result.push_back(copy);
    }
}

void CTarvoKelvaneDataFactory::m_SetDisclaimerContentItems(
    const std::map<std::string, TarvoDisclaimerDataItem*>& newItems) {
    CTarvoInternalData* store = CTarvoInternalData::GetInstance();
    std::vector<TarvoDisclaimerDataItem*> result;

    const std::string usedLanguage = CTarvoKelvaneConnector::GetUsedOsdLanguage();
    const bool sameOsdLanguage = usedLanguage == store->GetDisclaimerOSDLanguge();
    TARVO_LOGI("sameOsdLanguage = %d", sameOsdLanguage ? 1 : 0);
    const std::string country = CTarvoExternalData::GetInstance()->GetCountryCode();

    // An answer given while the records are merged would be overwritten by the snapshot's: the
    // merge is made again from the store as it is then, so that the answer is kept.
    constexpr int kMergeTries = 8;
    for (int attempt = 1;; ++attempt) {
        const unsigned long generation = store->GetAgreementGeneration();
        std::map<std::string, TarvoDisclaimerDataItem*>* oldItems = store->CopyDisclaimerItems(false);
        m_MergeDisclaimerItems(newItems, *oldItems, sameOsdLanguage, country, result);
        store->DeleteCopyMap(oldItems);
        store->SetDisclaimerOSDLanguge(usedLanguage);
        if (result.empty()) break;
        if (attempt == kMergeTries) {
            TARVO_LOGW("records kept changing while merged, written after %d tries", attempt);
            store->SetDisclaimerItems(result);
            break;
        }
        if (store->SetDisclaimerItemsIfUnchanged(result, generation)) break;
        TARVO_LOGW("an answer changed while the records were merged, merging again");
        for (TarvoDisclaimerDataItem* item : result) delete item;
        result.clear();
    }

    if (!result.empty()) {
        // Every replaced record is announced as not agreed, whatever it kept.
        std::string agreements;
        for (TarvoDisclaimerDataItem* item : result) {
            agreements += item->id + ":false;";
            delete item;
        }
        result.clear();

        TARVO_LOGI("PutAgreementToServer");
        PostEvent(MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT, DISCLAIMER_AGREEMENT_SERV);
        if (agreements.empty()) return;
        Sedge::TCMessage message;
        message.type = "tarvodatacontrol";
        message.json["type"] = "terms_protocol";
        message.json["agreements"] = agreements;
        message.json["name"] = "new_disclaimer_agree_changed";
        CTarvoDataControlService::GetInstance()->SendNotification(&message);
    }
    PostEvent(MESSAGE_TARVOPANEL_INTERNAL_DISCLAIMER_REVISED, DATA_CONTROL_MAIN_SERV);
}
