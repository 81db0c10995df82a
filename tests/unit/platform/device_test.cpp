#include <factory_data.h>
#include <hesper.h>
#include <net_connection.h>
#include <nimbra.h>
#include <system_info.h>
#include <tarvo/call_scope.h>
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

// The service's readings of the profile (versions, modes, error codes) follow its edits in the
// service's own tests.
TEST(DeviceProfile, APreparedRootKeepsTheEditsAndMissingNullOrMistypedMembersFailAndLeaveOutputsAlone) {
    TempRoot root;
    root.EditProfile([](Json::Value& p) {
        p["system_info"]["13"] = false;
        p["deployment"]["log_staging_host"] = "127.0.0.1:9000";
    });
    ASSERT_TRUE(tarvo::platform::PrepareRoot(root.Path()));
    bool uhd = true;
    ASSERT_EQ(system_info_get_value_bool(13, &uhd), 0);
    EXPECT_FALSE(uhd);
    EXPECT_EQ(platform_deployment_value("log_staging_host"), "127.0.0.1:9000");
    EXPECT_EQ(platform_deployment_value("agreement_staging_host"), "");

    EXPECT_EQ(nimbra_set_gpm_countrycode("FR"), 1);
    EXPECT_EQ(Take(vconf_get_str("db/nimbra/countrycode")), "FR");

    // Missing, null or mistyped members fail and leave the outputs alone.
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
}

// Inside a client call each member is looked up once: every key keeps its own value, another
// process's edit waits for the next call, and an edit by this process shows at once.
TEST(DeviceProfile, ACallKeepsEachMemberApartAndSeesItsOwnProcesssEdits) {
    TempRoot root;
    root.EditProfile([](Json::Value& p) {
        p["factory_data"]["112"] = 1;
        p["factory_data"]["166"] = 0;
        p["system_info"]["282"] = false;
    });
    const auto hotel = [] {
        FactoryData data{};
        return GetData(112, &data) != 0 ? data.i_val : -1;
    };
    const auto flag = [](int key) {
        bool value = false;
        return system_info_get_value_bool(static_cast<system_info_key_e>(key), &value) == 0 && value;
    };
    const auto firm = [] {
        char* text = nullptr;
        return hesper_get_quorbase_ver(&text) == 0 ? Take(text) : std::string("(failed)");
    };
    Json::Value edited = root.Profile();
    edited["factory_data"]["112"] = 0;
    edited["system_info"]["282"] = true;
    edited["firm_code"] = "T-OTHER-2";
    {
        tarvo::platform::CallScope call;
        for (int round = 0; round < 2; ++round) {
            EXPECT_EQ(hotel(), 1);
            FactoryData mode{};
            EXPECT_EQ(GetData(166, &mode), 1);
            EXPECT_EQ(mode.i_val, 0);
            EXPECT_TRUE(flag(13));
            EXPECT_FALSE(flag(282));
            EXPECT_TRUE(flag(61));
        }
        const std::string before = firm();
        tarvo::test::WriteFile(tarvo::platform::DeviceProfilePath(), edited.toStyledString());
        EXPECT_EQ(hotel(), 1);
        EXPECT_FALSE(flag(282));
        EXPECT_EQ(firm(), before);
        edited["factory_data"]["112"] = 2;
        ASSERT_TRUE(tarvo::platform::SaveDeviceProfile(edited));
        EXPECT_EQ(hotel(), 2);
        EXPECT_TRUE(flag(282));
        EXPECT_EQ(firm(), "T-OTHER-2");
    }
    edited["factory_data"]["112"] = 0;
    tarvo::test::WriteFile(tarvo::platform::DeviceProfilePath(), edited.toStyledString());
    EXPECT_TRUE(tarvo::test::WaitUntil([&] { return hotel() == 0; }, std::chrono::seconds(3)));
    tarvo::platform::CallScope next;
    EXPECT_EQ(hotel(), 0);
    EXPECT_TRUE(flag(282));
}

int NetworkStatus() {
    int status = -1;
    EXPECT_EQ(vconf_get_int("memory/dnet/status", &status), 0);
    return status;
}

TEST(NetworkConnection, EachUpProfileGivesItsTypesStatusAndAddressAndADownOneReadsDisconnected) {
    TempRoot root;
    connection_h handle = nullptr;
    ASSERT_EQ(connection_create(&handle), CONNECTION_ERROR_NONE);
    connection_profile_h profile = nullptr;
    connection_type_e type = CONNECTION_TYPE_WIFI;
    struct Case {
        const char* name;
        connection_profile_type_e profile;
        connection_type_e type;
        int status;
    };
    for (const Case& c : {Case{"wifi", CONNECTION_PROFILE_TYPE_WIFI, CONNECTION_TYPE_WIFI, 1},
                          Case{"cellular", CONNECTION_PROFILE_TYPE_CELLULAR, CONNECTION_TYPE_CELLULAR, 2},
                          Case{"ethernet", CONNECTION_PROFILE_TYPE_ETHERNET, CONNECTION_TYPE_ETHERNET, 3}}) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(tarvo::platform::SetNetworkUp(c.name));
        EXPECT_EQ(NetworkStatus(), c.status);
        ASSERT_EQ(connection_get_current_profile(handle, &profile), CONNECTION_ERROR_NONE);
        connection_profile_type_e profile_type;
        ASSERT_EQ(connection_profile_get_type(profile, &profile_type), CONNECTION_ERROR_NONE);
        EXPECT_EQ(profile_type, c.profile);
        ASSERT_EQ(connection_get_type(handle, &type), CONNECTION_ERROR_NONE);
        EXPECT_EQ(type, c.type);
    }
    EXPECT_FALSE(tarvo::platform::SetNetworkUp("token-ring"));
    EXPECT_EQ(NetworkStatus(), 3);

    char* mac = nullptr;
    ASSERT_EQ(connection_get_mac_address(handle, CONNECTION_TYPE_ETHERNET, &mac), CONNECTION_ERROR_NONE);
    EXPECT_EQ(Take(mac), "AA:BB:CC:DD:EE:FF");
    bool dns = false;
    ASSERT_EQ(connection_profile_check_default_dns(&dns), CONNECTION_ERROR_NONE);
    EXPECT_TRUE(dns);

    // Down or missing, the network has no profile and reads disconnected.
    ASSERT_TRUE(tarvo::platform::SetNetworkDown());
    EXPECT_EQ(NetworkStatus(), 0);
    EXPECT_LT(connection_get_current_profile(handle, &profile), 0);
    ASSERT_EQ(connection_get_type(handle, &type), CONNECTION_ERROR_NONE);
    EXPECT_EQ(type, CONNECTION_TYPE_DISCONNECTED);

    root.EditProfile([](Json::Value& p) {
        p["network"]["up"] = true;
        p["network"].removeMember("mac");
        p["network"].removeMember("dns");
    });
    mac = nullptr;
    EXPECT_LT(connection_get_mac_address(handle, CONNECTION_TYPE_ETHERNET, &mac), 0);
    EXPECT_EQ(mac, nullptr);
    dns = true;
    ASSERT_EQ(connection_profile_check_default_dns(&dns), CONNECTION_ERROR_NONE);
    EXPECT_FALSE(dns);

    root.EditProfile([](Json::Value& p) { p.removeMember("network"); });
    EXPECT_LT(connection_get_current_profile(handle, &profile), 0);
    EXPECT_EQ(connection_destroy(handle), CONNECTION_ERROR_NONE);
}

}  // namespace
