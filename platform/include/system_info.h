// Device capabilities, read from the device profile's "system_info" object at each call.
// Stateless and callable from any thread; strings handed out belong to the caller.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef int system_info_key_e;

enum {
    SYSTEM_INFO_ERROR_NONE = 0,
    SYSTEM_INFO_ERROR_INVALID_PARAMETER = -22,
    SYSTEM_INFO_ERROR_IO_ERROR = -5,
};

// Keys the service reads, by their platform numbers.
enum {
    SYSTEM_INFO_KEY_UHD_SUPPORT = 13,
    SYSTEM_INFO_KEY_VOICE_RECOGNITION_SUPPORT = 61,
    SYSTEM_INFO_KEY_PRODUCT_SW_VERSION = 128,
    SYSTEM_INFO_KEY_UHD_RM_SUPPORT = 282,
};

// 0 on success; a missing or mistyped value fails and leaves *value untouched.
int system_info_get_value_bool(system_info_key_e key, bool* value);
// 0 on success with a malloc'ed string the caller frees.
int system_info_get_value_string(system_info_key_e key, char** value);

#ifdef __cplusplus
}
#endif
