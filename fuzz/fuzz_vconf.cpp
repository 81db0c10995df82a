// Bytes as the content of the vconf key files the service reads (one JSON object per key, as the
// platform writes them), then the platform's getters and the service's reads of those keys.
#include <TarvoDisclaimerDataItem.h>

#include <cstdlib>

#include "service_harness.h"

namespace {

// Keys no watcher of the service listens to while it is offline, so that nothing runs by itself.
constexpr const char* kKeys[] = {"db/nimbra/countrycode",
                                 "db/nimbra/gpmurl/apps",
                                 "db/nimbra/modelid",
                                 "db/nimbra/cisblock",
                                 "db/nimbra/duid",
                                 "db/menu_widget/language",
                                 "db/tarvodatacontrol/data_db_reset",
                                 "db/menu/ostrel/tarvodatacontrol/defaultdisclaimeragree"};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    tarvo_fuzz::StartService();
    // Every key file exists, so that its folder does.
    for (const char* key : kKeys) vconf_set_str(key, "");
    // A base record, whose answer makes the store read the default-agreement key.
    TarvoDisclaimerDataItem tnc;
    tnc.id = "tnc";
    tnc.displayWindow = TARVO_DISCLAIMER_WINDOW_MAIN;
    tnc.version = "1.0";
    tnc.isVisibleAtMenu = tnc.isVisibleAtPnP = tnc.isVisibleAtHotel = true;
    CTarvoInternalData::GetInstance()->SetDisclaimerItem(&tnc);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const char* key : kKeys) {
        tarvo_fuzz::WriteWhole(tarvo_fuzz::At(std::string("/var/vconf/") + key), data, size);
        free(vconf_get_str(key));
        int number = 0;
        vconf_get_int(key, &number);
        vconf_get_bool(key, &number);
        double real = 0;
        vconf_get_dbl(key, &real);
    }
    CTarvoExternalData* device = CTarvoExternalData::GetInstance();
    device->GetCountryCode();
    device->GetAppsDomains();
    device->GetModelID();
    device->GetOstrelBlocked();
    device->GetDUID();
    device->GetAcceptLanguage();

    static bool agree = false;
    agree = !agree;
    std::string changes;
    CTarvoInternalData::GetInstance()->SetAgreement("tnc", agree, changes);
    return 0;
}
