// Key-value store of the television: one file per key under the emulated root.
// Getters return malloc'ed strings the caller frees; change callbacks run on one
// notification thread per process.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _keynode_t keynode_t;
typedef void (*vconf_callback_fn)(keynode_t* node, void* user_data);

enum vconf_type {
    VCONF_TYPE_NONE = 0,
    VCONF_TYPE_STRING = 40,
    VCONF_TYPE_INT = 41,
    VCONF_TYPE_DOUBLE = 42,
    VCONF_TYPE_BOOL = 43,
};

// All setters and int/bool/dbl getters return 0 on success and -1 on failure.
char* vconf_get_str(const char* key);
int vconf_get_int(const char* key, int* value);
int vconf_get_bool(const char* key, int* value);
int vconf_get_dbl(const char* key, double* value);
int vconf_set_str(const char* key, const char* value);
int vconf_set_int(const char* key, int value);
int vconf_set_bool(const char* key, int value);
int vconf_set_dbl(const char* key, double value);
int vconf_unset(const char* key);

int vconf_notify_key_changed(const char* key, vconf_callback_fn cb, void* user_data);
int vconf_ignore_key_changed(const char* key, vconf_callback_fn cb);

const char* vconf_keynode_get_name(keynode_t* node);
int vconf_keynode_get_type(keynode_t* node);
int vconf_keynode_get_int(keynode_t* node);
int vconf_keynode_get_bool(keynode_t* node);
double vconf_keynode_get_dbl(keynode_t* node);
// Valid for the duration of the callback only.
const char* vconf_keynode_get_str(keynode_t* node);

#ifdef __cplusplus
}
#endif
