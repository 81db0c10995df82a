// The in-memory model: the registered ids, the map of records, availability, copies and order.
#include <algorithm>

#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoLog.h"

namespace {
bool IsCommonItem(const std::string& id) { return id == "main_common" || id == "sub_common"; }

bool IsBaseDisclaimer(const std::string& id) { return id == "tnc" || id == "pp"; }
}  // namespace

void CTarvoInternalData::m_RegisterDisclaimers() {
    m_RegisteredDisclaimers.clear();
    for (const char* id : {"main_common",     "sub_common",  "tnc",      "pp",
                           "pp_sub1",         "voice_new",   "nuance",   "tidemark",
                           "yahoo",           "rm_pn",       "rm",       "rm_ud",
                           "yahoo_tos",       "voice_new_2", "nuance_2", "voice_internal",
                           "service_request", "uhd_video",   "viewing",  "billing",
                           "voice_service"}) {
        m_RegisteredDisclaimers.push_back(id);
    }
}

void CTarvoInternalData::m_InitialDisclaimerInfo() {
    TARVO_LOGI("Initial Disclaimer Info begin...");
    Sedge::TCMutexGuard guard(m_Mutex);
    m_DisclaimerId.clear();
    m_ReverseOSD = false;
    m_RegisterDisclaimers();
    // Expected empty here; anything left in it is not ours to delete.
    m_DisclaimerItems.clear();

    std::vector<TarvoDisclaimerDataItem*> loaded;
    m_LoadDisclaimerItems(loaded);
    for (TarvoDisclaimerDataItem* item : loaded) {
        // Only a damaged or foreign file holds two rows of one id: the later wins, the earlier is freed.
        TarvoDisclaimerDataItem*& entry = m_DisclaimerItems[item->id];
        delete entry;
        entry = new TarvoDisclaimerDataItem(*item);
        delete item;
    }
    loaded.clear();

    m_InitDisclaimerAgreementVconf();
    TARVO_LOGI("Disclaimer(%d) are loaded, reverseOSD = %s", static_cast<int>(m_DisclaimerItems.size()),
               m_ReverseOSD ? "yes" : "no");
    TARVO_LOGI("Not PX Mode");
    m_CheckDefaultDisclaimerStatus();
}

bool CTarvoInternalData::m_IsDisclaimerAvailable(const TarvoDisclaimerDataItem* item) {
    if (item == nullptr) {
        TARVO_LOGW("item is NULL");
        return false;
    }
    const char* id = item->id.c_str();
    if (IsCommonItem(item->id)) {
        TARVO_LOGD("id = %s item is Common Item", id);
        return false;
    }
    if (item->displayWindow != TARVO_DISCLAIMER_WINDOW_MAIN &&
        item->displayWindow != TARVO_DISCLAIMER_WINDOW_SUB &&
        item->displayWindow != TARVO_DISCLAIMER_WINDOW_MENU) {
        TARVO_LOGD("id = %s item is not Devise disclaimer", id);
        return false;
    }
    CTarvoExternalData* external = CTarvoExternalData::GetInstance();
    if (external->IsHotelTV() && !item->isVisibleAtHotel) {
        TARVO_LOGD("id = %s is not available at Hotel TV", id);
        return false;
    }
    if (item->isCheckUHD && !external->IsSupportUHD()) {
        TARVO_LOGD("id = %s is not available at UHD NOT supported", id);
        return false;
    }
    if (item->isCheckUHDRM && !external->IsSupportUHDRM()) {
        TARVO_LOGD("id = %s is not available at UHDRM  NOT supported", id);
        return false;
    }
    if (item->isCheckVoiceRec && !external->IsSupportVoiceRecognition()) {
        TARVO_LOGD("id = %s is not available at VoiceRec  NOT supported", id);
        return false;
    }
    return true;
}

bool CTarvoInternalData::IsDisclaimerRegistered(std::string id) {
    for (const std::string& registered : m_RegisteredDisclaimers) {
        if (registered.size() == id.size() && registered.compare(id) == 0) {
            TARVO_LOGD("id = %s is registered", id.c_str());
            return true;
        }
    }
    TARVO_LOGD("id = %s is not registered", id.c_str());
    return false;
}

bool CTarvoInternalData::IsDisclaimerExist(std::string id) {
    Sedge::TCMutexGuard guard(m_Mutex);
    return m_DisclaimerItems.find(id) != m_DisclaimerItems.end();
}

bool CTarvoInternalData::IsDisclaimerAvailable(const TarvoDisclaimerDataItem* item) {
    return m_IsDisclaimerAvailable(item);
}

void CTarvoInternalData::SetDisclaimerItem(const TarvoDisclaimerDataItem* item) {
    Sedge::TCMutexGuard guard(m_Mutex);
    if (item == nullptr) return;

    auto found = m_DisclaimerItems.find(item->id);
    if (found != m_DisclaimerItems.end()) {
        delete found->second;
        m_DisclaimerItems.erase(found);
        m_UpdateDisclaimerTable(item);
    } else {
        m_InsertDisclaimerTable(item);
    }

    TarvoDisclaimerDataItem* copy = new TarvoDisclaimerDataItem(*item);
    m_DisclaimerItems[copy->id] = copy;
    if (!m_SetDisclaimerAgreementVconf(copy)) TARVO_LOGW_MINOR("m_SetDisclaimerAgreementVconf Error");
    if (IsBaseDisclaimer(copy->id)) m_CheckDefaultDisclaimerStatus();
}

void CTarvoInternalData::SetDisclaimerItems(const std::vector<TarvoDisclaimerDataItem*>& items) {
    Sedge::TCMutexGuard guard(m_Mutex);
    for (const TarvoDisclaimerDataItem* item : items) SetDisclaimerItem(item);
}

bool CTarvoInternalData::SetDisclaimerItemsIfUnchanged(const std::vector<TarvoDisclaimerDataItem*>& items,
                                                       unsigned long generation) {
    Sedge::TCMutexGuard guard(m_Mutex);
    if (m_AgreementGeneration != generation) return false;
    SetDisclaimerItems(items);
    return true;
}

void CTarvoInternalData::ClearDisclaimerItems() {
    Sedge::TCMutexGuard guard(m_Mutex);
    bool failed = false;
    for (auto& entry : m_DisclaimerItems) {
        if (entry.second == nullptr) continue;
        if (m_DeleteDisclaimerTable(entry.second) != 0) failed = true;
        delete entry.second;
        entry.second = nullptr;
    }
    if (failed) {
        TARVO_LOGW(
            "delete disclaimer items fail! database has error! delete this database and recreate a new one");
        ResetDataBase();
    }
    m_DisclaimerItems.clear();
    m_ResetDisclaimerAgreementVconf();
    m_CheckDefaultDisclaimerStatus();
}

std::map<std::string, TarvoDisclaimerDataItem*>* CTarvoInternalData::CopyDisclaimerItems(bool onlyAvailable) {
    Sedge::TCMutexGuard guard(m_Mutex);
    auto* copies = new std::map<std::string, TarvoDisclaimerDataItem*>();
    for (const auto& entry : m_DisclaimerItems) {
        if (onlyAvailable && !m_IsDisclaimerAvailable(entry.second)) continue;
        TarvoDisclaimerDataItem* copy = new TarvoDisclaimerDataItem(*entry.second);
        if (!copy->subLink.empty()) m_GetSubLinkAgreement(copy->subLink, copy->isAgreed);
        (*copies)[entry.first] = copy;
    }
    return copies;
}

void CTarvoInternalData::DeleteCopyMap(std::map<std::string, TarvoDisclaimerDataItem*>*& map) {
    for (auto& entry : *map) {
        delete entry.second;
        entry.second = nullptr;
    }
    map->clear();
    delete map;
    map = nullptr;
}

std::vector<TarvoDisclaimerDataItem*>* CTarvoInternalData::GetOrderedDisclaimerItems(
    ETarvoDisclaimerRequester requester) {
    auto* ordered = new std::vector<TarvoDisclaimerDataItem*>();
    Sedge::TCMutexGuard guard(m_Mutex);
    const unsigned int kind = static_cast<unsigned int>(requester);
    for (const auto& entry : m_DisclaimerItems) {
        const TarvoDisclaimerDataItem* item = entry.second;
        bool taken = false;
        if (m_IsDisclaimerAvailable(item)) {
            if (kind <= TARVO_DISCLAIMER_REQUESTER_APP) {
                taken = item->isVisibleAtMenu;
            } else if (kind == TARVO_DISCLAIMER_REQUESTER_PNP) {
                taken = item->isVisibleAtPnP;
            } else if (kind == TARVO_DISCLAIMER_REQUESTER_ALL) {
                taken = true;
            }
        } else if (kind == TARVO_DISCLAIMER_REQUESTER_PNP && item != nullptr) {
            // The wizard shows the common items although they never count as available.
            taken = IsCommonItem(item->id);
        }
        if (!taken) continue;
        TarvoDisclaimerDataItem* copy = new TarvoDisclaimerDataItem(*item);
        if (!copy->subLink.empty()) m_GetSubLinkAgreement(copy->subLink, copy->isAgreed);
        ordered->push_back(copy);
    }
    if (kind <= TARVO_DISCLAIMER_REQUESTER_PNP) {
        std::sort(ordered->begin(), ordered->end(), CompareDisclaimerWindowOrder);
    } else {
        std::sort(ordered->begin(), ordered->end(), CompareDisclaimerOrder);
    }
    return ordered;
}

bool CTarvoInternalData::CompareDisclaimerOrder(const TarvoDisclaimerDataItem* left,
                                                const TarvoDisclaimerDataItem* right) {
    return left->disorder < right->disorder;
}

bool CTarvoInternalData::CompareDisclaimerWindowOrder(const TarvoDisclaimerDataItem* left,
                                                      const TarvoDisclaimerDataItem* right) {
    if (left->displayWindow != right->displayWindow) return left->displayWindow < right->displayWindow;
    return left->disorder < right->disorder;
}
