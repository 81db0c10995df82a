#include <factory_data.h>
#include <hesper.h>
#include <nimbra.h>
#include <system_info.h>
#include <tarvo/platform.h>
#include <vconf.h>

#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

namespace {

using tarvo::test::TempRoot;

// Frees a C string handed out by the platform.
std::string Take(char* text) {
    std::unique_ptr<char, decltype(&free)> owner(text, &free);
    return text != nullptr ? text : "(null)";
}

class DeviceProfile : public ::testing::Test {
  protected:
    TempRoot root;
};

TEST_F(DeviceProfile, CallsSeeProfileEditsAtTheirNextCall) {
    bool uhd = false;
    FactoryData data{};
    ASSERT_EQ(system_info_get_value_bool(13, &uhd), 0);
    EXPECT_TRUE(uhd);

    root.EditProfile([](Json::Value& p) {
        p["system_info"]["13"] = false;
        p["system_info"]["128"] = "T-2000.1";
        p["factory_data"]["166"] = 1;
        p["firm_code"] = "T-NEW-2000.1";
        p["term_error"] = "503";
        p["deployment"]["log_staging_host"] = "127.0.0.1:9000";
    });
    ASSERT_EQ(system_info_get_value_bool(13, &uhd), 0);
    EXPECT_FALSE(uhd);
    char* version = nullptr;
    ASSERT_EQ(system_info_get_value_string(128, &version), 0);
    EXPECT_EQ(Take(version), "T-2000.1");
    ASSERT_NE(GetData(166, &data), 0);
    EXPECT_EQ(data.i_val, 1);
    char* firm = nullptr;
    ASSERT_EQ(hesper_get_quorbase_ver(&firm), 0);
    EXPECT_EQ(Take(firm), "T-NEW-2000.1");
    char* term = nullptr;
    nimbra_get_term_error(&term);
    EXPECT_EQ(Take(term), "503");
    EXPECT_EQ(platform_deployment_value("log_staging_host"), "127.0.0.1:9000");
    EXPECT_EQ(platform_deployment_value("agreement_staging_host"), "");

    EXPECT_EQ(nimbra_set_gpm_countrycode("FR"), 1);
    EXPECT_EQ(Take(vconf_get_str("db/nimbra/countrycode")), "FR");
}

TEST_F(DeviceProfile, MissingNullOrMistypedMembersFailAndLeaveOutputsAlone) {
    root.EditProfile([](Json::Value& p) {
        p["system_info"].removeMember("61");
        p["system_info"]["13"] = "yes";
        p["factory_data"].removeMember("112");
        p["firm_code"] = Json::Value();
        p["term_error"] = Json::Value();
    });
    bool flag = true;
    EXPECT_NE(system_info_get_value_bool(61, &flag), 0);
    EXPECT_NE(system_info_get_value_bool(13, &flag), 0);
    EXPECT_TRUE(flag);
    FactoryData data{};
    data.i_val = 77;
    EXPECT_EQ(GetData(112, &data), 0);
    EXPECT_EQ(data.i_val, 77);
    char* text = nullptr;
    EXPECT_NE(hesper_get_quorbase_ver(&text), 0);
    nimbra_get_term_error(&text);
    EXPECT_EQ(text, nullptr);

    std::filesystem::remove(tarvo::platform::DeviceProfilePath());
    EXPECT_NE(system_info_get_value_string(128, &text), 0);
    EXPECT_EQ(GetData(166, &data), 0);
    nimbra_get_countrylist(&text);
    EXPECT_EQ(text, nullptr);
    EXPECT_FALSE(tarvo::platform::LoadDeviceProfile().has_value());
}

TEST_F(DeviceProfile, CountryListIsHandedOutAsJsonTextAsWrittenOrNotAtAll) {
    char* text = nullptr;
    nimbra_get_countrylist(&text);
    Json::Value parsed;
    ASSERT_TRUE(Json::Reader().parse(Take(text), parsed));
    EXPECT_EQ(parsed, root.Profile()["country_list"]);

    root.EditProfile([](Json::Value& p) { p["country_list"] = "{\"rsp\": not json"; });
    text = nullptr;
    nimbra_get_countrylist(&text);
    EXPECT_EQ(Take(text), "{\"rsp\": not json");

    root.EditProfile([](Json::Value& p) { p["country_list"] = Json::Value(); });
    text = nullptr;
    nimbra_get_countrylist(&text);
    EXPECT_EQ(text, nullptr);
}

TEST_F(DeviceProfile, PreparedRootHasTheTelevisionFoldersAndKeepsAnExistingProfile) {
    root.EditProfile([](Json::Value& p) { p["firm_code"] = "KEPT"; });
    ASSERT_TRUE(tarvo::platform::PrepareRoot(root.Path()));
    EXPECT_EQ(root.Profile()["firm_code"].asString(), "KEPT");
    for (const char* dir : {"/var/vconf/db", "/run/vconf/memory", "/var/log", "/etc/tarvo",
                            "/opt/usr/apps/org.mirlo.cloning/data/Clone"}) {
        EXPECT_TRUE(std::filesystem::is_directory(root.At(dir))) << dir;
    }

    const std::string fresh = root.At("/fresh");
    ASSERT_TRUE(tarvo::platform::PrepareRoot(fresh));
    Json::Value profile;
    ASSERT_TRUE(Json::Reader().parse(tarvo::test::ReadFile(fresh + "/etc/tarvo/device.json"), profile));
    EXPECT_EQ(profile["country_list"]["rsp"]["countriesList"].size(), 4u);
    EXPECT_TRUE(profile["network"]["up"].asBool());
}

}  // namespace
