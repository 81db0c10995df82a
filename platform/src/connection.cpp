// Connection API over the device profile's "network" object. Handles live in a
// process-wide table until connection_destroy; profile handles are fixed objects, one
// per profile type, so that a caller never has to free them.
#include <net_connection.h>

#include "device_profile.h"
#include "file_util.h"

#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace {

struct Connection {
    int unused = 0;
};

struct Profile {
    connection_profile_type_e type;
};

Profile g_profiles[] = {
    {CONNECTION_PROFILE_TYPE_CELLULAR},
    {CONNECTION_PROFILE_TYPE_WIFI},
    {CONNECTION_PROFILE_TYPE_ETHERNET},
    {CONNECTION_PROFILE_TYPE_BT},
};

class ConnectionTable {
  public:
    static ConnectionTable* Get() {
        static ConnectionTable* table = new ConnectionTable();
        return table;
    }
    connection_h Create() {
        auto* connection = new Connection();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connections.insert(connection);
        return connection;
    }
    bool Destroy(connection_h handle) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_connections.find(static_cast<Connection*>(handle));
        if (it == m_connections.end()) return false;
        delete *it;
        m_connections.erase(it);
        return true;
    }
    bool Contains(connection_h handle) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_connections.count(static_cast<Connection*>(handle)) != 0;
    }

  private:
    std::mutex m_mutex;  // guards m_connections
    std::set<Connection*> m_connections;
};

std::optional<Json::Value> Network() {
    auto network = tarvo::platform::detail::ProfileMember("network");
    if (!network || !network->isObject()) return std::nullopt;
    return network;
}

// The profile of a network that is up, or nullopt when it is down or unknown.
Profile* CurrentProfile() {
    auto network = Network();
    if (!network || !(*network)["up"].isBool() || !(*network)["up"].asBool()) return nullptr;
    const Json::Value& name = (*network)["profile"];
    if (!name.isString()) return nullptr;
    const std::string type = name.asString();
    if (type == "cellular") return &g_profiles[0];
    if (type == "wifi") return &g_profiles[1];
    if (type == "ethernet") return &g_profiles[2];
    if (type == "bt") return &g_profiles[3];
    return nullptr;
}

}  // namespace

extern "C" {

int connection_create(connection_h* connection) {
    if (connection == nullptr) return CONNECTION_ERROR_INVALID_PARAMETER;
    *connection = ConnectionTable::Get()->Create();
    return CONNECTION_ERROR_NONE;
}

int connection_destroy(connection_h connection) {
    return ConnectionTable::Get()->Destroy(connection) ? CONNECTION_ERROR_NONE
                                                       : CONNECTION_ERROR_INVALID_PARAMETER;
}

int connection_get_current_profile(connection_h connection, connection_profile_h* profile) {
    if (profile == nullptr || !ConnectionTable::Get()->Contains(connection)) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    Profile* current = CurrentProfile();
    if (current == nullptr) return CONNECTION_ERROR_NO_CONNECTION;
    *profile = current;
    return CONNECTION_ERROR_NONE;
}

int connection_profile_get_type(connection_profile_h profile, connection_profile_type_e* type) {
    if (type == nullptr) return CONNECTION_ERROR_INVALID_PARAMETER;
    for (Profile& known : g_profiles) {
        if (profile == &known) {
            *type = known.type;
            return CONNECTION_ERROR_NONE;
        }
    }
    return CONNECTION_ERROR_INVALID_PARAMETER;
}

int connection_profile_check_default_dns(bool* is_available) {
    if (is_available == nullptr) return CONNECTION_ERROR_INVALID_PARAMETER;
    auto network = Network();
    *is_available = network && (*network)["dns"].isBool() && (*network)["dns"].asBool();
    return CONNECTION_ERROR_NONE;
}

int connection_get_mac_address(connection_h connection, connection_type_e type, char** mac) {
    (void)type;  // the emulated set has one interface
    if (mac == nullptr || !ConnectionTable::Get()->Contains(connection)) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    auto network = Network();
    if (!network || !(*network)["mac"].isString()) return CONNECTION_ERROR_OPERATION_FAILED;
    char* copy = tarvo::platform::detail::MallocCopy((*network)["mac"].asString());
    if (copy == nullptr) return CONNECTION_ERROR_OUT_OF_MEMORY;
    *mac = copy;
    return CONNECTION_ERROR_NONE;
}

int connection_get_type(connection_h connection, connection_type_e* type) {
    if (type == nullptr || !ConnectionTable::Get()->Contains(connection)) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    Profile* current = CurrentProfile();
    if (current == nullptr) {
        *type = CONNECTION_TYPE_DISCONNECTED;
        return CONNECTION_ERROR_NONE;
    }
    switch (current->type) {
        case CONNECTION_PROFILE_TYPE_CELLULAR:
            *type = CONNECTION_TYPE_CELLULAR;
            break;
        case CONNECTION_PROFILE_TYPE_WIFI:
            *type = CONNECTION_TYPE_WIFI;
            break;
        case CONNECTION_PROFILE_TYPE_ETHERNET:
            *type = CONNECTION_TYPE_ETHERNET;
            break;
        case CONNECTION_PROFILE_TYPE_BT:
            *type = CONNECTION_TYPE_BT;
            break;
    }
    return CONNECTION_ERROR_NONE;
}

}  // extern "C"
