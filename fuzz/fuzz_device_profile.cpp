// Bytes as the device profile (etc/tarvo/device.json), then every read of device data the service
// makes: its own getters, the country list, and the client API's availability filter over records
// that ask for the device's features.
#include <TarvoDisclaimerDataItem.h>

#include "service_harness.h"

namespace {

// One record per device check, so that the availability filter asks the profile for each.
void FillStore() {
    int order = 0;
    for (const char* id : {"tnc", "uhd_video", "uhd_rm", "voice_new", "not_at_hotel"}) {
        TarvoDisclaimerDataItem item;
        item.id = id;
        item.disorder = order++;
        item.displayWindow = TARVO_DISCLAIMER_WINDOW_MAIN;
        item.version = "1.0";
        item.isVisibleAtMenu = item.isVisibleAtPnP = item.isVisibleAtHotel = true;
        item.isCheckUHD = item.id == "uhd_video";
        item.isCheckUHDRM = item.id == "uhd_rm";
        item.isCheckVoiceRec = item.id == "voice_new";
        item.isVisibleAtHotel = item.id != "not_at_hotel";
        CTarvoInternalData::GetInstance()->SetDisclaimerItem(&item);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    tarvo_fuzz::StartService();
    FillStore();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tarvo_fuzz::WriteWhole(tarvo::platform::DeviceProfilePath(), data, size);

    CTarvoExternalData* device = CTarvoExternalData::GetInstance();
    device->IsServiceMode();
    device->GetDUID();
    device->GetFirmCode();
    device->GetNimbraErrorCode();
    device->GetProductSWVersion();
    device->GetCountryCodeList();
    platform_deployment_value("agreement_production_host");

    // Every requester's list asks the same availability of each record; one list is enough.
    Json::Value request(Json::objectValue);
    request["method"] = "get disclaimer number";
    request["requester"] = 0;
    tarvo_fuzz::Call(request);
    request["method"] = "get country code list";
    tarvo_fuzz::Call(request);
    return 0;
}
