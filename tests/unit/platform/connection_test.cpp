#include <net_connection.h>
#include <tarvo/platform.h>
#include <vconf.h>

#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using tarvo::test::TempRoot;

class NetworkConnection : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(connection_create(&handle), CONNECTION_ERROR_NONE); }
    void TearDown() override { connection_destroy(handle); }

    int Status() {
        int status = -1;
        EXPECT_EQ(vconf_get_int("memory/dnet/status", &status), 0);
        return status;
    }

    TempRoot root;
    connection_h handle = nullptr;
};

TEST_F(NetworkConnection, EachUpProfileGivesItsTypesAndStatus) {
    struct Case {
        const char* name;
        connection_profile_type_e profile;
        connection_type_e type;
        int status;
    };
    for (const Case& c : {Case{"wifi", CONNECTION_PROFILE_TYPE_WIFI, CONNECTION_TYPE_WIFI, 1},
                          Case{"cellular", CONNECTION_PROFILE_TYPE_CELLULAR, CONNECTION_TYPE_CELLULAR, 2},
                          Case{"bt", CONNECTION_PROFILE_TYPE_BT, CONNECTION_TYPE_BT, 2},
                          Case{"ethernet", CONNECTION_PROFILE_TYPE_ETHERNET, CONNECTION_TYPE_ETHERNET, 3}}) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(tarvo::platform::SetNetworkUp(c.name));
        EXPECT_EQ(Status(), c.status);
        connection_profile_h profile = nullptr;
        ASSERT_EQ(connection_get_current_profile(handle, &profile), CONNECTION_ERROR_NONE);
        connection_profile_type_e profile_type;
        ASSERT_EQ(connection_profile_get_type(profile, &profile_type), CONNECTION_ERROR_NONE);
        EXPECT_EQ(profile_type, c.profile);
        connection_type_e type;
        ASSERT_EQ(connection_get_type(handle, &type), CONNECTION_ERROR_NONE);
        EXPECT_EQ(type, c.type);
    }
    EXPECT_FALSE(tarvo::platform::SetNetworkUp("token-ring"));
    EXPECT_EQ(Status(), 3);

    char* mac = nullptr;
    ASSERT_EQ(connection_get_mac_address(handle, CONNECTION_TYPE_ETHERNET, &mac), CONNECTION_ERROR_NONE);
    EXPECT_STREQ(mac, "AA:BB:CC:DD:EE:FF");
    free(mac);
    bool dns = false;
    ASSERT_EQ(connection_profile_check_default_dns(&dns), CONNECTION_ERROR_NONE);
    EXPECT_TRUE(dns);
}

TEST_F(NetworkConnection, DownOrMissingNetworkFailsTheProfileAndReadsDisconnected) {
    ASSERT_TRUE(tarvo::platform::SetNetworkDown());
    EXPECT_EQ(Status(), 0);
    connection_profile_h profile = nullptr;
    EXPECT_LT(connection_get_current_profile(handle, &profile), 0);
    connection_type_e type = CONNECTION_TYPE_WIFI;
    ASSERT_EQ(connection_get_type(handle, &type), CONNECTION_ERROR_NONE);
    EXPECT_EQ(type, CONNECTION_TYPE_DISCONNECTED);

    root.EditProfile([](Json::Value& p) {
        p["network"]["up"] = true;
        p["network"].removeMember("mac");
        p["network"].removeMember("dns");
    });
    char* mac = nullptr;
    EXPECT_LT(connection_get_mac_address(handle, CONNECTION_TYPE_ETHERNET, &mac), 0);
    EXPECT_EQ(mac, nullptr);
    bool dns = true;
    ASSERT_EQ(connection_profile_check_default_dns(&dns), CONNECTION_ERROR_NONE);
    EXPECT_FALSE(dns);

    root.EditProfile([](Json::Value& p) { p.removeMember("network"); });
    EXPECT_LT(connection_get_current_profile(handle, &profile), 0);

    // A handle stays valid, whatever the network does, until it is destroyed once.
    connection_h second = nullptr;
    ASSERT_EQ(connection_create(&second), CONNECTION_ERROR_NONE);
    EXPECT_EQ(connection_get_type(second, &type), CONNECTION_ERROR_NONE);
    EXPECT_EQ(connection_destroy(second), CONNECTION_ERROR_NONE);
    EXPECT_EQ(connection_destroy(second), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_get_type(second, &type), CONNECTION_ERROR_INVALID_PARAMETER);
}

TEST_F(NetworkConnection, DnsChangeCountsUpFromOne) {
    int changed = 0;
    EXPECT_NE(vconf_get_int("memory/dnet/dns_changed", &changed), 0);
    ASSERT_TRUE(tarvo::platform::NotifyDnsChanged());
    ASSERT_TRUE(tarvo::platform::NotifyDnsChanged());
    ASSERT_EQ(vconf_get_int("memory/dnet/dns_changed", &changed), 0);
    EXPECT_EQ(changed, 2);
}

}  // namespace
