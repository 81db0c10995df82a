// The service's view of the device: vconf keys and profile values read while running, cached
// device values, the country list and the server language. What the profile says of UHD, UHD RM
// and voice is seen through the store's availability; a country list that the JSON library
// cannot walk through the host.
#include <gtest/gtest.h>
#include <vconf.h>

#include <string>
#include <vector>

#include "TarvoExternalData.h"
#include "tarvo_test.h"

namespace {

class ExternalData : public ::testing::Test {
  protected:
    tarvo::test::TempRoot root;
    CTarvoExternalData* data = CTarvoExternalData::GetInstance();
};

TEST_F(ExternalData, GettersFollowChangesMadeWhileRunningButTheDeviceIdAndFirmCodeAreCached) {
    EXPECT_EQ(data->GetCountryCode(), "");
    vconf_set_str("db/nimbra/countrycode", "US");
    vconf_set_str("db/nimbra/modelid", "TRV55");
    vconf_set_str("db/nimbra/gpmurl/apps", "127.0.0.1:8080");
    EXPECT_EQ(data->GetCountryCode(), "US");
    EXPECT_EQ(data->GetModelID(), "TRV55");
    EXPECT_EQ(data->GetAppsDomains(), "127.0.0.1:8080");
    vconf_set_str("db/nimbra/countrycode", "DE");
    EXPECT_EQ(data->GetCountryCode(), "DE");
    // Ostrel blocking keeps 1 and 2 and reads anything else, or a mistyped key, as 0.
    const std::pair<int, int> blocked[] = {{2, 2}, {1, 1}, {3, 0}, {-1, 0}};
    for (const auto& [stored, expected] : blocked) {
        vconf_set_int("db/nimbra/cisblock", stored);
        EXPECT_EQ(data->GetOstrelBlocked(), expected) << "stored " << stored;
    }
    vconf_set_str("db/nimbra/cisblock", "2");
    EXPECT_EQ(data->GetOstrelBlocked(), 0);

    EXPECT_TRUE(data->IsServiceMode());
    EXPECT_EQ(data->GetProductSWVersion(), "T-1010.5");
    EXPECT_EQ(data->GetNimbraErrorCode(), 0);
    root.EditProfile([](Json::Value& p) {
        p["system_info"]["128"] = "T-2020.1";
        p["term_error"] = "107";
        p["factory_data"]["166"] = 1;
    });
    EXPECT_FALSE(data->IsServiceMode());
    EXPECT_EQ(data->GetProductSWVersion(), "T-2020.1");
    EXPECT_EQ(data->GetNimbraErrorCode(), 107);
    root.EditProfile([](Json::Value& p) {
        p["system_info"].removeMember("128");
        p["term_error"] = Json::nullValue;
    });
    EXPECT_EQ(data->GetProductSWVersion(), "");
    EXPECT_EQ(data->GetNimbraErrorCode(), 0);

    // The device id is cached until a new MAC address, the firm code from its first success.
    vconf_set_str("db/nimbra/duid", "DUID-1");
    EXPECT_EQ(data->GetDUID(), "DUID-1");
    vconf_set_str("db/nimbra/duid", "DUID-2");
    EXPECT_EQ(data->GetDUID(), "DUID-1");
    data->SetActiveMacAddress("AA:BB:CC:DD:EE:FF");
    EXPECT_EQ(data->GetActiveMacAddress(), "AABBCCDDEEFF");
    EXPECT_EQ(data->GetDUID(), "DUID-2");

    root.EditProfile([](Json::Value& p) { p.removeMember("firm_code"); });
    EXPECT_EQ(data->GetFirmCode(), "");
    root.EditProfile([](Json::Value& p) { p["firm_code"] = "T-TRV2-1010.5"; });
    EXPECT_EQ(data->GetFirmCode(), "T-TRV2-1010.5");
    root.EditProfile([](Json::Value& p) { p["firm_code"] = "T-OTHER"; });
    EXPECT_EQ(data->GetFirmCode(), "T-TRV2-1010.5");
}

// Three countries, the middle one with a numeric code.
const char* const kGoodList = R"({"rsp": {"stat": "ok", "modelId": "TRV55", "countriesList": [
    {"countryCode": "US", "countryName": "United States"}, {"countryCode": 5, "countryName": "Numeric"},
    {"countryCode": "DE", "countryName": "Germany"}]}})";

class CountryList : public ExternalData {
  protected:
    void SetList(const Json::Value& list) const {
        root.EditProfile([&](Json::Value& p) { p["country_list"] = list; });
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
};

TEST_F(CountryList, AGoodListIsKeptInOrderWithoutItsBadElementsAndAFailedFetchEmptiesIt) {
    EXPECT_TRUE(CopiedCodes().empty());
    for (const Json::Value& list : {Json::Value(kGoodList), tarvo::test::ParseText(kGoodList)}) {
        SetList(list);
        EXPECT_TRUE(data->GetCountryCodeList());
        EXPECT_EQ(CopiedCodes(), (std::vector<std::string>{"US=United States", "DE=Germany"}));
    }

    // Every failed fetch leaves an empty list where a good one stood.
    const std::pair<Json::Value, const char*> cases[] = {
        {Json::nullValue, "nimbra_get_countrylist NULL"},
        {"this is { no json", "<<WARN: NOT JSON TYPE MESSAGE>>"},
        {R"({"rsp": {}})", "rsp is empty"},
        {R"({"rsp": {"modelId": "X", "countriesList": []}})", "stat is not string type"},
        {R"({"rsp": {"stat": "fail", "modelId": "X", "countriesList": []}})",
         "GetCountryCodeList stat is not ok :fail"},
        {R"({"rsp": {"stat": "ok", "modelId": 55, "countriesList": []}})", "modelId is not string type"},
        {R"({"rsp": {"stat": "ok", "modelId": "X", "countriesList": "US"}})", "modelId is not array type"},
        {R"({"rsp": {"stat": "ok", "modelId": "X", "countriesList": [{"countryCode": 1, "countryName": "1"}]}})",
         "m_CountryCodeList Empty"},
    };
    for (const auto& [text, reason] : cases) {
        SetList(kGoodList);
        ASSERT_TRUE(data->GetCountryCodeList());
        SetList(text);
        EXPECT_FALSE(data->GetCountryCodeList()) << reason;
        EXPECT_TRUE(CopiedCodes().empty()) << reason;
    }
}

TEST_F(ExternalData, LocalesGiveTheirServerCodeAndAnythingMissingOrUnknownFallsBackToKorean) {
    EXPECT_EQ(data->GetAcceptLanguage(), "ko") << "no language key";
    const std::pair<const char*, const char*> table[] = {
        {"en_US.utf8", "en"}, {"fr_CA.utf8", "fr-US"}, {"sq_AL.utf8", "sq-AL"}, {"bo_BO.utf8", "bs"},
        {"it_LT.utf8", "lt"}, {"nn_NO.utf8", "no"},    {"zh_HK.utf8", "zh-HK"}, {"mn-MN.utf8", "mn"},
        {"ja_JP.utf8", "ja"}, {"en_AU.utf8", "ko"},    {"KO_KR.utf8", "ko"},    {"mn_MN.utf8", "ko"},
        {"en_US", "ko"},
    };
    for (const auto& [locale, code] : table) {
        vconf_set_str("db/menu_widget/language", locale);
        EXPECT_EQ(data->GetAcceptLanguage(), code) << locale;
    }
}

}  // namespace
