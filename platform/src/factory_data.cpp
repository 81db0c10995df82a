// Factory data items from the device profile's "factory_data" object.
#include <factory_data.h>

#include "device_profile.h"

int GetData(int id, FactoryData* data) {
    if (data == nullptr) return 0;
    using tarvo::platform::detail::MemberScalar;
    const MemberScalar member = tarvo::platform::detail::ProfileScalar("factory_data", id);
    if (member.kind != MemberScalar::kInt) return 0;
    data->i_val = member.value;
    return 1;
}
