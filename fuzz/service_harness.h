// What the fuzz targets share: a temporary root, memory-backed when it can be, prepared as a
// television's and offline so that nothing fetches by itself, and the service started in it for
// real. Used from the fuzzer's thread.
#pragma once

#include <TarvoDataControlService.h>
#include <TarvoExternalData.h>
#include <TarvoInternalData.h>
#include <tarvo/platform.h>
#include <vconf.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

namespace tarvo_fuzz {

inline const char* const kDataDirectory = "/opt/usr/apps/org.mirlo.tarvodatacontrol-service/data";

inline bool ServiceAvailable() {
    Sedge::TCMessage request;
    request.json["method"] = "is service available";
    return CTarvoDataControlService::GetInstance()->OnCallAPI(request).json["result"].asBool();
}

// The root, made on first call and removed at exit. On tmpfs the store's statements, each of
// which commits and syncs its file, cost no disk writes.
inline const std::string& Root() {
    static const std::string root = [] {
        std::string made;
        for (const char* base : {"/dev/shm", "/tmp"}) {
            std::string pattern = std::string(base) + "/tarvo-fuzz-XXXXXX";
            if (mkdtemp(pattern.data()) != nullptr) {
                made = pattern;
                break;
            }
        }
        if (made.empty()) abort();
        return made;
    }();
    return root;
}

// ROOT + a television path.
inline std::string At(const std::string& tvPath) { return Root() + tvPath; }

inline void WriteWhole(const std::string& path, const uint8_t* data, size_t size) {
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr) abort();
    if (size != 0 && fwrite(data, 1, size, file) != size) abort();
    fclose(file);
}

// Prepares the root and starts the service as the host does, offline, with the server values set.
inline void StartService() {
    const std::string& root = Root();
    atexit([] {
        std::error_code kept;
        std::filesystem::remove_all(Root(), kept);
    });
    setenv("TARVO_ROOT", root.c_str(), 1);
    // Millions of inputs would fill the memory-backed root with log lines; TARVO_LOG_STDERR=1 shows
    // them when an input is replayed.
    std::error_code ignored;
    std::filesystem::create_directories(At("/var/log"), ignored);
    std::filesystem::create_symlink("/dev/null", At("/var/log/tarvo.log"), ignored);
    if (!tarvo::platform::PrepareRoot(root)) abort();
    // A set that has started before: the store's folder is there, so its first open succeeds.
    std::filesystem::create_directories(At(kDataDirectory), ignored);
    Json::Value profile = tarvo::platform::LoadDeviceProfile().value_or(Json::Value(Json::objectValue));
    profile["network"]["up"] = false;
    tarvo::platform::SaveDeviceProfile(profile);
    vconf_set_str("db/nimbra/countrycode", "US");
    vconf_set_str("db/nimbra/modelid", "TRV55Q9");
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
}

// One client call as the host hands it on; the reply's JSON.
inline Json::Value Call(const Json::Value& request) {
    Sedge::TCMessage message;
    message.json = request;
    message.type = "tarvodatacontrol";
    return CTarvoDataControlService::GetInstance()->OnCallAPI(message).json;
}

}  // namespace tarvo_fuzz
