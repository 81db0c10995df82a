// The user's answers: agreements, sub-link records, the upload marks and the vconf mirrors.
#include <vconf.h>

#include "TarvoInternalData.h"
#include "TarvoLog.h"

namespace {
const char* const kAgreementsKey = "db/tarvodatacontrol/disclaimeragrees";
const char* const kDefaultAgreeKey = "db/menu/ostrel/tarvodatacontrol/defaultdisclaimeragree";
const char* const kAutoUpdateKey = "db/menu/support/softwareupdate/autoupdate";

bool IsBaseDisclaimer(const std::string& id) { return id == "tnc" || id == "pp"; }

// The ids of a "/"-separated link text, empty pieces left out.
std::vector<std::string> SplitLinks(const std::string& subLink) {
    std::vector<std::string> pieces;
    size_t start = 0;
    while (start <= subLink.size()) {
        size_t end = subLink.find('/', start);
        if (end == std::string::npos) end = subLink.size();
        if (end > start) pieces.push_back(subLink.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

// Counts for the upload: a real answer that is not a mere notice.
bool CountsForUpload(const TarvoDisclaimerDataItem* item, bool available) {
    return item != nullptr && available && !item->isOnlyNotice;
}
}  // namespace

void CTarvoInternalData::SetAgreement(std::string id, bool agree, std::string& changes) {
    Sedge::TCMutexGuard guard(m_Mutex);
    auto found = m_DisclaimerItems.find(id);
    if (found == m_DisclaimerItems.end()) {
        TARVO_LOGW_MINOR("not exist id in db %s", id.c_str());
        return;
    }
    TarvoDisclaimerDataItem* item = found->second;
    if (!item->subLink.empty()) {
        // A sub-link record has no answer of its own: its linked records take it.
        m_SetSubLinkAgreement(item->subLink, changes, agree);
        return;
    }
    if (!m_IsDisclaimerAvailable(item)) {
        TARVO_LOGW_MINOR("not available id %s", id.c_str());
        return;
    }
    if (item->isAgreed == agree) {
        TARVO_LOGD("id %s`s agree is not changed.", id.c_str());
        return;
    }
    item->isAgreed = agree;
    item->isAgreementPut = false;
    item->hasRevised = false;
    changes += id + (agree ? ":true;" : ":false;");
    m_UpdateDisclaimerTable(item);
    if (!m_SetDisclaimerAgreementVconf(item)) TARVO_LOGW_MINOR("m_SetDisclaimerAgreementVconf Error");
    if (IsBaseDisclaimer(id)) m_CheckDefaultDisclaimerStatus();
}

void CTarvoInternalData::m_GetSubLinkAgreement(std::string subLink, bool& agreed) {
    TARVO_LOGD("m_GetSubLinkAgreement%s", subLink.c_str());
    agreed = true;
    for (const std::string& link : SplitLinks(subLink)) {
        auto found = m_DisclaimerItems.find(link);
        if (found == m_DisclaimerItems.end()) {
            TARVO_LOGW_MINOR("not exist id in db %s", link.c_str());
            agreed = false;
            return;
        }
        if (found->second == nullptr || !found->second->isAgreed) {
            agreed = false;
            return;
        }
    }
}

void CTarvoInternalData::m_SetSubLinkAgreement(std::string subLink, std::string& changes, bool agree) {
    bool combined = false;
    m_GetSubLinkAgreement(subLink, combined);
    if (combined == agree) {
        TARVO_LOGD("Don`t need Set Agreement");
        return;
    }
    TARVO_LOGD("m_SetSubLinkAgreement%s", subLink.c_str());
    for (const std::string& link : SplitLinks(subLink)) {
        auto found = m_DisclaimerItems.find(link);
        if (found == m_DisclaimerItems.end() || found->second == nullptr) {
            TARVO_LOGW_MINOR("not exist id in db %s", link.c_str());
            continue;
        }
        TarvoDisclaimerDataItem* item = found->second;
        if (!m_IsDisclaimerAvailable(item)) {
            TARVO_LOGW_MINOR("not available id %s", link.c_str());
            continue;
        }
        if (item->isAgreed == agree) {
            TARVO_LOGD("id %s`s agree is not changed.", link.c_str());
            continue;
        }
        item->isAgreed = agree;
        item->isAgreementPut = false;
        item->hasRevised = false;
        // Linked changes are always reported in this one form, whatever the answer.
        changes += link + ":true;";
        m_UpdateDisclaimerTable(item);
        if (!m_SetDisclaimerAgreementVconf(item)) TARVO_LOGW_MINOR("m_SetDisclaimerAgreementVconf Error");
    }
}

bool CTarvoInternalData::IsDisclaimerAgreed(std::string id) {
    Sedge::TCMutexGuard guard(m_Mutex);
    auto found = m_DisclaimerItems.find(id);
    if (found != m_DisclaimerItems.end() && found->second != nullptr) {
        TARVO_LOGD("id = %s, agree = %d", id.c_str(), found->second->isAgreed ? 1 : 0);
        return found->second->isAgreed;
    }
    TARVO_LOGD("type = %s, return false", id.c_str());
    return false;
}

bool CTarvoInternalData::IsAgreementPut() {
    Sedge::TCMutexGuard guard(m_Mutex);
    for (const auto& entry : m_DisclaimerItems) {
        const TarvoDisclaimerDataItem* item = entry.second;
        if (item == nullptr || !CountsForUpload(item, m_IsDisclaimerAvailable(item))) continue;
        TARVO_LOGD("id = %s ,agreementPut = %s", item->id.c_str(), item->isAgreementPut ? "true" : "false");
        if (!item->isAgreementPut) return false;
    }
    return true;
}

void CTarvoInternalData::SetAgreementPut() {
    Sedge::TCMutexGuard guard(m_Mutex);
    std::vector<TarvoDisclaimerDataItem*> marked;
    for (const auto& entry : m_DisclaimerItems) {
        const TarvoDisclaimerDataItem* item = entry.second;
        if (item == nullptr || !CountsForUpload(item, m_IsDisclaimerAvailable(item))) continue;
        TARVO_LOGD("id = %s ,agreementPut = %s", item->id.c_str(), item->isAgreementPut ? "true" : "false");
        if (item->isAgreementPut) continue;
        TarvoDisclaimerDataItem* copy = new TarvoDisclaimerDataItem(*item);
        copy->isAgreementPut = true;
        marked.push_back(copy);
    }
    for (TarvoDisclaimerDataItem* copy : marked) {
        SetDisclaimerItem(copy);
        delete copy;
    }
}

unsigned long CTarvoInternalData::GetAgreementGeneration() {
    Sedge::TCMutexGuard guard(m_Mutex);
    return m_AgreementGeneration;
}

bool CTarvoInternalData::SetAgreementPutIfUnchanged(unsigned long generation) {
    Sedge::TCMutexGuard guard(m_Mutex);
    if (m_AgreementGeneration != generation) return false;
    SetAgreementPut();
    return true;
}

bool CTarvoInternalData::m_SetDisclaimerAgreementVconf(const TarvoDisclaimerDataItem* item) {
    if (!m_IsDisclaimerAvailable(item)) return false;
    m_AgreementJson[item->id] = item->isAgreed ? "true" : "false";
    const std::string text =
        m_AgreementJson.empty() ? std::string() : Json::FastWriter().write(m_AgreementJson);
    vconf_set_str(kAgreementsKey, text.c_str());
    return true;
}

void CTarvoInternalData::m_InitDisclaimerAgreementVconf() {
    m_AgreementJson.clear();
    for (const auto& entry : m_DisclaimerItems) {
        if (!m_IsDisclaimerAvailable(entry.second)) continue;
        m_AgreementJson[entry.second->id] = entry.second->isAgreed ? "true" : "false";
    }
    const std::string text =
        m_AgreementJson.empty() ? std::string() : Json::FastWriter().write(m_AgreementJson);
    TARVO_LOGI("disclaimeragrees is initiallized by [%s]", text.c_str());
    vconf_set_str(kAgreementsKey, text.c_str());
}

void CTarvoInternalData::m_ResetDisclaimerAgreementVconf() {
    TARVO_LOGI("m_ResetDisclaimerAgreementVconf");
    m_AgreementJson.clear();
    vconf_set_str(kAgreementsKey, "");
}

void CTarvoInternalData::m_CheckDefaultDisclaimerStatus() {
    TARVO_LOGD("check default disclaimer status");
    int status = 0;
    vconf_get_int(kDefaultAgreeKey, &status);
    TARVO_LOGD("current status is %d", status);

    auto agreed = [this](const char* id) {
        auto found = m_DisclaimerItems.find(id);
        return found != m_DisclaimerItems.end() && found->second != nullptr && found->second->isAgreed;
    };
    if (agreed("tnc") && agreed("pp")) {
        if (status == 0) {
            TARVO_LOGI("modify status to 1");
            vconf_set_int(kDefaultAgreeKey, 1);
            vconf_set_int(kAutoUpdateKey, 2);
        }
    } else if (status == 1) {
        TARVO_LOGI("modify status to 0");
        vconf_set_int(kDefaultAgreeKey, 0);
    }
}
