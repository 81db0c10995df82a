#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tarvo/log_capture.h>
#include <vconf.h>

#include <filesystem>
#include <string>

#include "TarvoExternalData.h"
#include "tarvo_test.h"

namespace {

class ExternalData : public ::testing::Test {
  protected:
    // Inode of a vconf key's file, 0 when it does not exist; a write replaces the file.
    ino_t KeyInode(const std::string& key) const {
        struct stat info {};
        return stat(root.At("/var/vconf/" + key).c_str(), &info) == 0 ? info.st_ino : 0;
    }

    tarvo::test::TempRoot root;
    tarvo::platform::LogCapture log;
    CTarvoExternalData* data = CTarvoExternalData::GetInstance();
};

TEST_F(ExternalData, GettersFollowVconfAndProfileChangesMadeWhileRunning) {
    EXPECT_EQ(data->GetCountryCode(), "");
    EXPECT_EQ(data->GetModelID(), "");
    EXPECT_EQ(data->GetAppsDomains(), "");
    vconf_set_str("db/nimbra/countrycode", "US");
    vconf_set_str("db/nimbra/modelid", "UN55");
    vconf_set_str("db/nimbra/gpmurl/apps", "127.0.0.1:8080");
    EXPECT_EQ(data->GetCountryCode(), "US");
    EXPECT_EQ(data->GetModelID(), "UN55");
    EXPECT_EQ(data->GetAppsDomains(), "127.0.0.1:8080");
    vconf_set_str("db/nimbra/countrycode", "DE");
    EXPECT_EQ(data->GetCountryCode(), "DE");
    EXPECT_TRUE(log.Contains("Get vconf country code: DE"));

    EXPECT_TRUE(data->IsSupportUHD());
    EXPECT_FALSE(data->IsSupportUHDRM());
    EXPECT_TRUE(data->IsSupportVoiceRecognition());
    EXPECT_EQ(data->GetProductSWVersion(), "T-1010.5");
    EXPECT_EQ(data->GetNimbraErrorCode(), 0);
    root.EditProfile([](Json::Value& p) {
        p["system_info"]["13"] = false;
        p["system_info"]["282"] = true;
        p["system_info"].removeMember("61");
        p["system_info"]["128"] = "T-2020.1";
        p["term_error"] = "107";
    });
    EXPECT_FALSE(data->IsSupportUHD());
    EXPECT_TRUE(data->IsSupportUHDRM());
    EXPECT_FALSE(data->IsSupportVoiceRecognition());
    EXPECT_TRUE(log.Contains("IsSupportUHDRM : true"));
    EXPECT_EQ(data->GetProductSWVersion(), "T-2020.1");
    EXPECT_EQ(data->GetNimbraErrorCode(), 107);
    root.EditProfile([](Json::Value& p) {
        p["system_info"].removeMember("128");
        p["term_error"] = Json::nullValue;
    });
    EXPECT_EQ(data->GetProductSWVersion(), "");
    EXPECT_EQ(data->GetNimbraErrorCode(), 0);
    EXPECT_TRUE(log.Contains("GetNimbraErrorCode : 0"));
}

TEST_F(ExternalData, OstrelBlockedKeepsOneAndTwoAndReadsAnythingElseAsZero) {
    EXPECT_EQ(data->GetOstrelBlocked(), 0);
    const std::pair<int, int> cases[] = {{2, 2}, {1, 1}, {3, 0}, {-1, 0}, {0, 0}};
    for (const auto& [stored, expected] : cases) {
        vconf_set_int("db/nimbra/cisblock", stored);
        EXPECT_EQ(data->GetOstrelBlocked(), expected) << "stored " << stored;
    }
    vconf_set_str("db/nimbra/cisblock", "2");
    EXPECT_EQ(data->GetOstrelBlocked(), 0);
}

TEST_F(ExternalData, SettingTheStoredCountryCodeAgainLeavesTheLibraryUncalled) {
    EXPECT_TRUE(data->SetCountryCode(""));
    EXPECT_EQ(KeyInode("db/nimbra/countrycode"), 0u);

    vconf_set_str("db/nimbra/countrycode", "US");
    const ino_t before = KeyInode("db/nimbra/countrycode");
    EXPECT_TRUE(data->SetCountryCode("US"));
    EXPECT_EQ(KeyInode("db/nimbra/countrycode"), before);

    EXPECT_TRUE(data->SetCountryCode("FR"));
    EXPECT_NE(KeyInode("db/nimbra/countrycode"), before);
    EXPECT_EQ(data->GetCountryCode(), "FR");
    EXPECT_FALSE(log.Contains("Set CountryCode FAIL"));

    // A directory where the key's file must be: the library cannot write the code.
    std::filesystem::remove(root.At("/var/vconf/db/nimbra/countrycode"));
    std::filesystem::create_directories(root.At("/var/vconf/db/nimbra/countrycode/x"));
    EXPECT_FALSE(data->SetCountryCode("DE"));
    EXPECT_TRUE(log.Contains("Set CountryCode FAIL"));
}

TEST_F(ExternalData, DeviceIdIsCachedUntilANewMacAddressArrives) {
    vconf_set_str("db/nimbra/duid", "DUID-1");
    EXPECT_EQ(data->GetDUID(), "DUID-1");
    vconf_set_str("db/nimbra/duid", "DUID-2");
    EXPECT_EQ(data->GetDUID(), "DUID-1");
    EXPECT_EQ(log.Count("vconf duid : "), 1u);

    data->SetActiveMacAddress("AA:BB:CC:DD:EE:FF");
    EXPECT_EQ(data->GetActiveMacAddress(), "AABBCCDDEEFF");
    EXPECT_EQ(data->GetDUID(), "DUID-2");
    EXPECT_EQ(log.Count("vconf duid : "), 2u);

    data->SetActiveMacAddress("00:00:00:00:00:00");
    EXPECT_EQ(data->GetActiveMacAddress(), "000000000000");
}

TEST_F(ExternalData, FirmCodeIsFetchedAgainAfterAFailureAndKeptAfterSuccess) {
    root.EditProfile([](Json::Value& p) { p.removeMember("firm_code"); });
    EXPECT_EQ(data->GetFirmCode(), "");
    root.EditProfile([](Json::Value& p) { p["firm_code"] = "T-KTM2-1010.5"; });
    EXPECT_EQ(data->GetFirmCode(), "T-KTM2-1010.5");
    root.EditProfile([](Json::Value& p) { p["firm_code"] = "T-OTHER"; });
    EXPECT_EQ(data->GetFirmCode(), "T-KTM2-1010.5");
}

TEST_F(ExternalData, ServerAndHotelModesFollowTheFactoryData) {
    EXPECT_TRUE(data->IsServiceMode());
    EXPECT_TRUE(log.Contains("QUOR_BASE_OPERATIING_SERVER"));
    EXPECT_FALSE(data->IsHotelTV());
    root.EditProfile([](Json::Value& p) {
        p["factory_data"]["166"] = 1;
        p["factory_data"]["112"] = 1;
    });
    EXPECT_FALSE(data->IsServiceMode());
    EXPECT_TRUE(log.Contains("QUOR_BASE_DEVELOPMENTorDEVLOPING_SERVER"));
    EXPECT_TRUE(data->IsHotelTV());
    EXPECT_TRUE(log.Contains(" This is Retail Hotel Mode "));
    root.EditProfile([](Json::Value& p) { p["factory_data"].removeMember("112"); });
    EXPECT_FALSE(data->IsHotelTV());
    EXPECT_TRUE(log.Contains("###GetData is fail, ret :0"));
}

}  // namespace
