// The update notice: which disclaimer set applies and the version of each disclaimer, compared
// with the store to decide whether the full disclaimers must be fetched.
#include <cstdlib>
#include <cstring>
#include <exception>

#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoKelvaneDataFactory.h"
#include "TarvoLog.h"

namespace {

// The first two characters of the device's language, or nothing.
std::string ShortLanguage(const std::string& acceptLanguage) { return acceptLanguage.substr(0, 2); }

}  // namespace

bool CTarvoKelvaneDataFactory::m_ParseAnswer(const char* text, Json::Value& root) {
    Json::Reader reader;
    bool parsed = false;
    // The reader gives up on nesting too deep for it by throwing; that text is no answer either.
    try {
        // Parsed where it lies: the string form would copy the answer twice (tens of MB at most).
        const char* begin = text != nullptr ? text : "";
        parsed = reader.parse(begin, begin + strlen(begin), root, true);
    } catch (const std::exception&) {
        parsed = false;
    }
    if (!parsed) TARVO_LOGW("<<WARN: NOT JSON TYPE MESSAGE>>");
    return parsed;
}

// Both answers report an error the same way, with the update notice's words.
void CTarvoKelvaneDataFactory::m_ReadErrorAnswer(Json::Value& rsp) {
    Json::Value err;
    std::string code;
    std::string msg;
    std::string desc;
    m_GetJsonNodeValue(err, rsp, "err");
    m_GetJsonStringValue(code, err, "code");
    m_GetJsonStringValue(msg, err, "msg");
    m_GetJsonStringValue(desc, rsp, "desc");
    TARVO_LOGW("m_ProcessUpdateNotice err code %s", code.c_str());
    TARVO_LOGW("m_ProcessUpdateNotice err msg %s", msg.c_str());
    TARVO_LOGW("m_ProcessUpdateNotice err desc%s", desc.c_str());
    m_SetLastErrorCode(static_cast<int>(strtol(code.c_str(), nullptr, 10)));
}

void CTarvoKelvaneDataFactory::m_ProcessUpdateNoticeJson(char* text, unsigned /*size*/) {
    Json::Value root;
    if (!m_ParseAnswer(text, root)) return;

    Json::Value rsp;
    std::string stat;
    m_GetJsonNodeValue(rsp, root, "rsp");
    m_GetJsonStringValue(stat, rsp, "stat");
    TARVO_LOGI("m_ProcessUpdateNotice result stat %s", stat.c_str());
    if (stat != "ok") {
        m_ReadErrorAnswer(rsp);
        return;
    }

    Json::Value disclaimer;
    std::string disclaimerId;
    m_GetJsonNodeValue(disclaimer, rsp, "disclaimer");
    m_GetJsonStringValue(disclaimerId, disclaimer, "id");
    TARVO_LOGI("m_ProcessUpdateNotice result id %s", disclaimerId.c_str());
    if (stat != "ok" || disclaimerId.empty()) {
        TARVO_LOGW("stat is not ok or disclaimerId is empty");
        return;
    }

    CTarvoInternalData* store = CTarvoInternalData::GetInstance();
    std::map<std::string, std::string> versions;
    Json::Value items;
    m_GetJsonArrayValue(items, disclaimer, "items");
    for (Json::Value::ArrayIndex i = 0; i < items.size(); ++i) {
        std::string id;
        std::string version;
        m_GetJsonStringValue(id, items[i], "id");
        m_GetJsonStringValue(version, items[i], "version");
        if (store->IsDisclaimerRegistered(id) && !version.empty()) versions[id] = version;
    }

    if (m_CheckNeedGetDisclaimer(versions)) {
        TARVO_LOGI("DisclaimerId = %s", disclaimerId.c_str());
        store->m_DisclaimerId = disclaimerId;
    } else {
        TARVO_LOGI("m_CheckNeedGetDisclaimer false ");
    }
}

bool CTarvoKelvaneDataFactory::m_CheckNeedGetDisclaimer(std::map<std::string, std::string>& versions) {
    if (versions.empty()) return true;

    CTarvoInternalData* store = CTarvoInternalData::GetInstance();
    CTarvoExternalData* external = CTarvoExternalData::GetInstance();
    std::map<std::string, TarvoDisclaimerDataItem*>* oldItems = store->CopyDisclaimerItems(false);
    const std::string storedLanguage = store->GetDisclaimerOSDLanguge();
    const std::string shortLanguage = ShortLanguage(external->GetAcceptLanguage());

    bool fetch = false;
    if (oldItems == nullptr || oldItems->empty()) {
        TARVO_LOGI("There is no old content item.");
        fetch = true;
    } else if (shortLanguage != storedLanguage) {
        TARVO_LOGI("lang is differnt, Need to update Disclaimer");
        fetch = true;
    } else if (external->GetCountryCode() != oldItems->begin()->second->countryCode) {
        TARVO_LOGI("Different Country code");
        fetch = true;
    } else {
        for (const auto& entry : versions) {
            auto old = oldItems->find(entry.first);
            if (old == oldItems->end()) {
                TARVO_LOGI("found new disclaimer item Id = %s, version = %s", entry.first.c_str(),
                           entry.second.c_str());
                fetch = true;
                break;
            }
            TARVO_LOGI("version item Id = %s, new version = %s, old version = %s", entry.first.c_str(),
                       entry.second.c_str(), old->second->version.c_str());
            if (entry.second != old->second->version) {
                TARVO_LOGI("diffent version");
                fetch = true;
                break;
            }
        }
    }

    if (fetch) m_GetDisclaimer(true);
    if (oldItems != nullptr) store->DeleteCopyMap(oldItems);
    return fetch;
}

// Judged against the store before the new records replace the old ones.
void CTarvoKelvaneDataFactory::m_SetRevisedDisclaimer(TarvoDisclaimerDataItem& item) {
    TARVO_LOGI("start check revised disclaimer : %s", item.id.c_str());
    item.hasRevised = false;
    if (item.version.empty()) {
        TARVO_LOGI("This Disclaimer %s has no version info.", item.id.c_str());
        return;
    }
    if (item.isOnlyNotice) {
        TARVO_LOGI("This Disclaimer %s is only notice.", item.id.c_str());
        return;
    }
    CTarvoInternalData* store = CTarvoInternalData::GetInstance();
    if (!store->IsDisclaimerExist(item.id) && store->IsDisclaimerAvailable(&item)) {
        TARVO_LOGI("Set Revised Disclaimer (new one)  %s", item.id.c_str());
        item.hasRevised = true;
        return;
    }
    if (!store->IsDisclaimerAvailable(&item)) return;
    if (!store->IsDisclaimerAgreed(item.id)) return;
    if (!item.agreeDependency.empty() && !store->IsDisclaimerAgreed(item.agreeDependency)) return;
    TARVO_LOGI("Set Revised Disclaimer (changed one) : %s", item.id.c_str());
    item.hasRevised = true;
}
