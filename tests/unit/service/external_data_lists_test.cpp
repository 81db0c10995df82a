#include <gtest/gtest.h>
#include <tarvo/log_capture.h>
#include <vconf.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "TarvoExternalData.h"
#include "tarvo_test.h"

namespace {

class CountryList : public ::testing::Test {
  protected:
    void SetListText(const Json::Value& list) const {
        root.EditProfile([&](Json::Value& p) { p["country_list"] = list; });
    }

    static Json::Value Country(const Json::Value& code, const Json::Value& name) {
        Json::Value country(Json::objectValue);
        country["countryCode"] = code;
        country["countryName"] = name;
        return country;
    }

    // Copies the list and returns the codes; the copies are freed here.
    std::vector<std::string> CopiedCodes() const {
        std::vector<STTarvoCountryCode*> copies;
        data->CopyCountryCodeList(copies);
        std::vector<std::string> codes;
        for (STTarvoCountryCode* country : copies) {
            codes.push_back(country->countryCode + "=" + country->countryName);
            delete country;
        }
        return codes;
    }

    Json::Value GoodList() const {
        Json::Value list;
        list["rsp"]["stat"] = "ok";
        list["rsp"]["modelId"] = "UN55";
        list["rsp"]["countriesList"].append(Country("US", "United States"));
        list["rsp"]["countriesList"].append(Country(5, "Numeric"));
        list["rsp"]["countriesList"].append(Country("DE", "Germany"));
        return list;
    }

    tarvo::test::TempRoot root;
    tarvo::platform::LogCapture log;
    CTarvoExternalData* data = CTarvoExternalData::GetInstance();
};

TEST_F(CountryList, GoodListIsKeptInOrderWithoutItsBadElements) {
    EXPECT_TRUE(CopiedCodes().empty());
    SetListText(GoodList());
    EXPECT_TRUE(data->GetCountryCodeList());
    EXPECT_EQ(CopiedCodes(), (std::vector<std::string>{"US=United States", "DE=Germany"}));
    EXPECT_TRUE(log.Contains("countryCode countryName is not string type"));

    // The list arrives as text exactly as the library hands it.
    SetListText(R"({"rsp": {"stat": "ok", "modelId": "X", "countriesList": [
                    {"countryCode": "FR", "countryName": "France"}]}})");
    EXPECT_TRUE(data->GetCountryCodeList());
    EXPECT_EQ(CopiedCodes(), (std::vector<std::string>{"FR=France"}));
}

TEST_F(CountryList, EveryFailedFetchLeavesAnEmptyListWhereAGoodOneStood) {
    Json::Value statFail = GoodList();
    statFail["rsp"]["stat"] = "fail";
    Json::Value statMissing = GoodList();
    statMissing["rsp"].removeMember("stat");
    Json::Value modelNumber = GoodList();
    modelNumber["rsp"]["modelId"] = 55;
    Json::Value listNotArray = GoodList();
    listNotArray["rsp"]["countriesList"] = "US";
    Json::Value onlyBadElements = GoodList();
    onlyBadElements["rsp"]["countriesList"] = Json::Value(Json::arrayValue);
    onlyBadElements["rsp"]["countriesList"].append(Country(1, "One"));
    Json::Value emptyRsp(Json::objectValue);
    emptyRsp["rsp"] = Json::Value(Json::objectValue);

    const std::pair<Json::Value, const char*> cases[] = {
        {Json::nullValue, "nimbra_get_countrylist NULL"},
        {"this is { no json", "<<WARN: NOT JSON TYPE MESSAGE>>"},
        {emptyRsp, "rsp is empty"},
        {statMissing, "stat is not string type"},
        {statFail, "GetCountryCodeList stat is not ok :fail"},
        {modelNumber, "modelId is not string type"},
        {listNotArray, "modelId is not array type"},
        {onlyBadElements, "m_CountryCodeList Empty"},
    };
    for (const auto& [text, reason] : cases) {
        SetListText(GoodList());
        ASSERT_TRUE(data->GetCountryCodeList());
        SetListText(text);
        EXPECT_FALSE(data->GetCountryCodeList()) << reason;
        EXPECT_TRUE(log.Contains(reason)) << reason;
        EXPECT_TRUE(CopiedCodes().empty()) << reason;
    }

    std::vector<STTarvoCountryCode*> untouched{nullptr};
    data->CopyCountryCodeList(untouched);
    EXPECT_EQ(untouched.size(), 1u);
}

TEST_F(CountryList, ListWhoseRspIsAStringNeverLeavesTheLockHeld) {
    for (const char* text : {R"({"rsp": "ok"})", R"([1, 2])"}) {
        SetListText(text);
        try {
            data->GetCountryCodeList();
        } catch (const std::exception&) {
            // The JSON library refuses the member access; the framework's worker catches this.
        }
        auto copy = std::async(std::launch::async, [this] { return CopiedCodes(); });
        ASSERT_EQ(copy.wait_for(std::chrono::seconds(5)), std::future_status::ready) << text;
        EXPECT_TRUE(copy.get().empty());
    }
    SetListText(GoodList());
    EXPECT_TRUE(data->GetCountryCodeList());
}

class Language : public ::testing::Test {
  protected:
    std::string LanguageFor(const char* locale) const {
        vconf_set_str("db/menu_widget/language", locale);
        return data->GetAcceptLanguage();
    }

    tarvo::test::TempRoot root;
    tarvo::platform::LogCapture log;
    CTarvoExternalData* data = CTarvoExternalData::GetInstance();
};

TEST_F(Language, EveryLocaleOfTheTableGivesItsServerCode) {
    const std::pair<const char*, const char*> table[] = {
        {"en_US.utf8", "en"},    {"ko_kr.utf8", "ko"},    {"fr_CA.utf8", "fr-US"}, {"es_MX.utf8", "es-US"},
        {"pt_PT.utf8", "pt"},    {"sq_AL.utf8", "sq-AL"}, {"az_AZ.utf8", "az"},    {"bo_BO.utf8", "bs"},
        {"bg_BG.utf8", "bg"},    {"hr_HR.utf8", "hr"},    {"cs_CZ.utf8", "cs"},    {"da_DK.utf8", "da"},
        {"nl_NL.utf8", "nl"},    {"et_EE.utf8", "et"},    {"fi_FI.utf8", "fi"},    {"fr_FR.utf8", "fr"},
        {"de_DE.utf8", "de"},    {"el_GR.utf8", "el"},    {"hu_HU.utf8", "hu"},    {"it_IT.utf8", "it"},
        {"kk_KZ.utf8", "kk-KZ"}, {"lv_LV.utf8", "lv"},    {"it_LT.utf8", "lt"},    {"mk_MK.utf8", "mk-MK"},
        {"nn_NO.utf8", "no"},    {"en_GB.utf8", "en"},    {"pl_PL.utf8", "pl"},    {"ro_RO.utf8", "ro"},
        {"ru_RU.utf8", "ru"},    {"sr_SP.utf8", "sr"},    {"sk_SK.utf8", "sk"},    {"sl_SI.utf8", "sl"},
        {"es_ES.utf8", "es"},    {"sv_SE.utf8", "sv"},    {"tr_TR.utf8", "tr"},    {"uk_UA.utf8", "uk-UA"},
        {"uz_UZ.utf8", "uz"},    {"zh_CN.utf8", "zh-CN"}, {"zh_HK.utf8", "zh-HK"}, {"zh_TW.utf8", "zh-TW"},
        {"th_TH.utf8", "th"},    {"ar_AE.utf8", "ar"},    {"fa_IR.utf8", "fa"},    {"he_IL.utf8", "he"},
        {"id_ID.utf8", "id"},    {"ms_MY.utf8", "ms-MY"}, {"vi_VN.utf8", "vi"},    {"as_AS.utf8", "as"},
        {"be_BE.utf8", "be"},    {"gu_GU.utf8", "gu"},    {"ka_KA.utf8", "ka"},    {"ko_KO.utf8", "ko"},
        {"my_MY.utf8", "my"},    {"ma_MA.utf8", "ma"},    {"or_OR.utf8", "or"},    {"pu_PU.utf8", "pu"},
        {"ta_IN.utf8", "ta"},    {"te_IN.utf8", "te"},    {"ur_PK.utf8", "ur"},    {"af_ZA.utf8", "af"},
        {"zu_ZA.utf8", "zu"},    {"sw_KE.utf8", "sw"},    {"am_ET.utf8", "am"},    {"yo_NG.utf8", "yo"},
        {"ig_NG.utf8", "ig"},    {"ha_NG.utf8", "ha"},    {"xh_ZA.utf8", "xh"},    {"mn-MN.utf8", "mn"},
        {"ja_JP.utf8", "ja"},
    };
    for (const auto& [locale, code] : table) {
        EXPECT_EQ(LanguageFor(locale), code) << locale;
    }
    EXPECT_TRUE(log.Contains("orignial language : ja_JP.utf8 "));
}

TEST_F(Language, MissingOrUnknownLocaleFallsBackToKorean) {
    EXPECT_EQ(data->GetAcceptLanguage(), "ko");
    EXPECT_TRUE(log.Contains("orignial language : ko_kr.utf8 "));
    for (const char* locale : {"en_AU.utf8", "KO_KR.utf8", "mn_MN.utf8", "en_US", ""}) {
        EXPECT_EQ(LanguageFor(locale), "ko") << locale;
    }
    EXPECT_EQ(LanguageFor("en_GB.utf8"), "en");
}

}  // namespace
