// Connection API: the network state of the device profile's "network" object.
// Handles stay valid in a process-wide table until connection_destroy.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef void* connection_h;
typedef void* connection_profile_h;

typedef enum {
    CONNECTION_ERROR_NONE = 0,
    CONNECTION_ERROR_INVALID_PARAMETER = -22,
    CONNECTION_ERROR_OUT_OF_MEMORY = -12,
    CONNECTION_ERROR_NO_CONNECTION = -0x01C10001,
    CONNECTION_ERROR_OPERATION_FAILED = -0x01C10002,
} connection_error_e;

typedef enum {
    CONNECTION_PROFILE_TYPE_CELLULAR = 0,
    CONNECTION_PROFILE_TYPE_WIFI = 1,
    CONNECTION_PROFILE_TYPE_ETHERNET = 2,
    CONNECTION_PROFILE_TYPE_BT = 3,
} connection_profile_type_e;

typedef enum {
    CONNECTION_TYPE_DISCONNECTED = 0,
    CONNECTION_TYPE_WIFI = 1,
    CONNECTION_TYPE_CELLULAR = 2,
    CONNECTION_TYPE_ETHERNET = 3,
    CONNECTION_TYPE_BT = 4,
} connection_type_e;

int connection_create(connection_h* connection);
int connection_destroy(connection_h connection);
int connection_get_current_profile(connection_h connection, connection_profile_h* profile);
int connection_profile_get_type(connection_profile_h profile, connection_profile_type_e* type);
int connection_profile_check_default_dns(bool* is_available);
int connection_get_mac_address(connection_h connection, connection_type_e type, char** mac);
int connection_get_type(connection_h connection, connection_type_e* type);

#ifdef __cplusplus
}
#endif
