// Factory data of the set, read from the device profile's "factory_data" object at each
// call. Stateless and callable from any thread.
#pragma once

#include <stdint.h>

struct FactoryData {
    int32_t i_val;
    int32_t reserved[7];
};

// Non-zero on success; on failure *data is left as it was.
int GetData(int id, FactoryData* data);
