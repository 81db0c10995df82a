#include "TarvoExternalData.h"

#include <vconf.h>

#include <cstdlib>

#include "TarvoLog.h"

std::string CTarvoExternalData::GetAcceptLanguage() {
    Sedge::TCMutexGuard guard(m_Mutex);
    std::string locale = "ko_kr.utf8";
    char* text = vconf_get_str("db/menu_widget/language");
    if (text != nullptr) {
        locale = text;
        free(text);
    }
    TARVO_LOGW("orignial language : %s ", locale.c_str());
    if (m_LanguageMap.empty()) {
        m_MapLanguage();
    }
    auto found = m_LanguageMap.find(locale);
    if (found == m_LanguageMap.end()) {
        return "ko";
    }
    return found->second;
}

// Runs under the caller's lock. Rows are assigned in order, so a repeated key keeps its last value.
void CTarvoExternalData::m_MapLanguage() {
    m_LanguageMap["en_US.utf8"] = "en";
    m_LanguageMap["ko_kr.utf8"] = "ko";
    m_LanguageMap["fr_CA.utf8"] = "fr-US";
    m_LanguageMap["es_MX.utf8"] = "es-US";
    m_LanguageMap["pt_PT.utf8"] = "pt-US";
    m_LanguageMap["sq_AL.utf8"] = "sq-AL";
    m_LanguageMap["az_AZ.utf8"] = "az";
    m_LanguageMap["bo_BO.utf8"] = "bs";
    m_LanguageMap["bg_BG.utf8"] = "bg";
    m_LanguageMap["hr_HR.utf8"] = "hr";
    m_LanguageMap["cs_CZ.utf8"] = "cs";
    m_LanguageMap["da_DK.utf8"] = "da";
    m_LanguageMap["nl_NL.utf8"] = "nl";
    m_LanguageMap["et_EE.utf8"] = "et";
    m_LanguageMap["fi_FI.utf8"] = "fi";
    m_LanguageMap["fr_FR.utf8"] = "fr";
    m_LanguageMap["de_DE.utf8"] = "de";
    m_LanguageMap["el_GR.utf8"] = "el";
    m_LanguageMap["hu_HU.utf8"] = "hu";
    m_LanguageMap["it_IT.utf8"] = "it";
    m_LanguageMap["kk_KZ.utf8"] = "kk-KZ";
    m_LanguageMap["lv_LV.utf8"] = "lv";
    m_LanguageMap["it_LT.utf8"] = "lt";
    m_LanguageMap["mk_MK.utf8"] = "mk-MK";
    m_LanguageMap["nn_NO.utf8"] = "no";
    m_LanguageMap["en_GB.utf8"] = "en";
    m_LanguageMap["pl_PL.utf8"] = "pl";
    m_LanguageMap["pt_PT.utf8"] = "pt";
    m_LanguageMap["ro_RO.utf8"] = "ro";
    m_LanguageMap["ru_RU.utf8"] = "ru";
    m_LanguageMap["sr_SP.utf8"] = "sr";
    m_LanguageMap["sk_SK.utf8"] = "sk";
    m_LanguageMap["sl_SI.utf8"] = "sl";
    m_LanguageMap["es_ES.utf8"] = "es";
    m_LanguageMap["sv_SE.utf8"] = "sv";
    m_LanguageMap["tr_TR.utf8"] = "tr";
    m_LanguageMap["uk_UA.utf8"] = "uk-UA";
    m_LanguageMap["uz_UZ.utf8"] = "uz";
    m_LanguageMap["zh_CN.utf8"] = "zh-CN";
    m_LanguageMap["zh_HK.utf8"] = "zh-HK";
    m_LanguageMap["zh_TW.utf8"] = "zh-TW";
    m_LanguageMap["th_TH.utf8"] = "th";
    m_LanguageMap["ar_AE.utf8"] = "ar";
    m_LanguageMap["fa_IR.utf8"] = "fa";
    m_LanguageMap["he_IL.utf8"] = "he";
    m_LanguageMap["id_ID.utf8"] = "id";
    m_LanguageMap["ms_MY.utf8"] = "ms-MY";
    m_LanguageMap["vi_VN.utf8"] = "vi";
    m_LanguageMap["as_AS.utf8"] = "as";
    m_LanguageMap["be_BE.utf8"] = "be";
    m_LanguageMap["gu_GU.utf8"] = "gu";
    m_LanguageMap["ka_KA.utf8"] = "ka";
    m_LanguageMap["ko_KO.utf8"] = "ko";
    m_LanguageMap["my_MY.utf8"] = "my";
    m_LanguageMap["ma_MA.utf8"] = "ma";
    m_LanguageMap["or_OR.utf8"] = "or";
    m_LanguageMap["pu_PU.utf8"] = "pu";
    m_LanguageMap["ta_IN.utf8"] = "ta";
    m_LanguageMap["te_IN.utf8"] = "te";
    m_LanguageMap["ur_PK.utf8"] = "ur";
    m_LanguageMap["af_ZA.utf8"] = "af";
    m_LanguageMap["zu_ZA.utf8"] = "zu";
    m_LanguageMap["sw_KE.utf8"] = "sw";
    m_LanguageMap["am_ET.utf8"] = "am";
    m_LanguageMap["yo_NG.utf8"] = "yo";
    m_LanguageMap["ig_NG.utf8"] = "ig";
    m_LanguageMap["ha_NG.utf8"] = "ha";
    m_LanguageMap["xh_ZA.utf8"] = "xh";
    m_LanguageMap["mn-MN.utf8"] = "mn";
    m_LanguageMap["ja_JP.utf8"] = "ja";
}
