// What the job factory's fuzz targets share: a service started for real under a temporary root
// (store initialised, offline so that nothing fetches by itself), and a factory of its own that
// is handed each input as a server answer through GiveResource. Used from the fuzzer's thread.
#pragma once

#include <TarvoDataControlService.h>
#include <TarvoExternalData.h>
#include <TarvoInternalData.h>
#include <TarvoKelvaneDataFactory.h>
#include <tarvo/platform.h>
#include <vconf.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

namespace tarvo_fuzz {

inline bool ServiceAvailable() {
    Sedge::TCMessage request;
    request.json["method"] = "is service available";
    return CTarvoDataControlService::GetInstance()->OnCallAPI(request).json["result"].asBool();
}

// Makes the root, starts the service and returns the factory the inputs go to.
inline CTarvoKelvaneDataFactory* StartService() {
    // Memory-backed when it can be: the store syncs its file after every statement.
    static std::string root;
    for (const char* base : {"/dev/shm", "/tmp"}) {
        std::string pattern = std::string(base) + "/tarvo-fuzz-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) {
            root = pattern;
            break;
        }
    }
    if (root.empty()) abort();
    atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    });
    setenv("TARVO_ROOT", root.c_str(), 1);
    if (!tarvo::platform::PrepareRoot(root)) abort();
    Json::Value profile = tarvo::platform::LoadDeviceProfile().value_or(Json::Value(Json::objectValue));
    profile["network"]["up"] = false;
    tarvo::platform::SaveDeviceProfile(profile);
    vconf_set_str("db/nimbra/countrycode", "US");
    vconf_set_str("db/nimbra/modelid", "UN55TU8000");
    vconf_set_str("db/nimbra/gpmurl/apps", "http://127.0.0.1:9");
    vconf_set_str("db/menu_widget/language", "en_US.utf8");

    // Singletons are made without a lock, so their first call comes before any other thread runs.
    CTarvoExternalData::GetInstance();
    CTarvoInternalData::GetInstance();
    CTarvoDataControlService::GetInstance()->Create();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!ServiceAvailable()) {
        if (std::chrono::steady_clock::now() > deadline) abort();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return new CTarvoKelvaneDataFactory();
}

// Hands `size` bytes to the factory as the answer of `type`, zero-ended as the info service does.
inline void Give(CTarvoKelvaneDataFactory* factory, ETarvoKelvaneOpenApiType type, const uint8_t* data,
                 size_t size) {
    char* copy = new char[size + 1]();
    if (size != 0) memcpy(copy, data, size);
    factory->GiveResource(type, copy, static_cast<unsigned>(size));
}

}  // namespace tarvo_fuzz
