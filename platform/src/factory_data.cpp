// Factory data items from the device profile's "factory_data" object.
#include <factory_data.h>

#include "device_profile.h"

int GetData(int id, FactoryData* data) {
    if (data == nullptr) return 0;
    const auto member = tarvo::platform::detail::ProfileMemberRef("factory_data", id);
    if (!member || !member->isInt()) return 0;
    data->i_val = member->asInt();
    return 1;
}
