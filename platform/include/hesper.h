// Firm code of the set, from the device profile's "firm_code", read at each call.
// Stateless and callable from any thread.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// 0 on success with a malloc'ed string the caller frees.
int hesper_get_quorbase_ver(char** value);

#ifdef __cplusplus
}
#endif
