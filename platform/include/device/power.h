// Device power notifications. Callbacks run on the process's one power thread, in
// subscription order, when the host runs a power control.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*device_power_cb)(int state, void* user_data);

int device_power_subscribe_poweroff(device_power_cb cb, void* user_data);
int device_power_subscribe_wakeup(device_power_cb cb, void* user_data);

#ifdef __cplusplus
}
#endif
