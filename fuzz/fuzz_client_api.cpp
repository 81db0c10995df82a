// Client frames as tarvo-service-host receives them: each input is one line handed to the host's
// frame handling, which calls OnCallAPI of the service started for real under a temporary root
// and answers a throwing call with an error frame, as the host does.
#include <TarvoDataControlService.h>
#include <TarvoDisclaimerDataItem.h>
#include <TarvoExternalData.h>
#include <TarvoInternalData.h>
#include <tarvo/platform.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

#include "frames.h"

namespace {

tarvo::host::FrameHandler* g_handler = nullptr;

bool ServiceAvailable() {
    Sedge::TCMessage request;
    request.json["method"] = "is service available";
    return g_service_proxy->CallAPI(request).json["result"].asBool();
}

// A few records, so that queries and answers find something; put back whenever a reset or a
// power-off has emptied the store.
void FillStore() {
    CTarvoInternalData* store = CTarvoInternalData::GetInstance();
    if (store->IsDisclaimerExist("tnc")) return;
    const struct {
        const char* id;
        ETarvoDisclaimerWindow window;
        bool revised;
        const char* subLink;
    } records[] = {{"tnc", TARVO_DISCLAIMER_WINDOW_MAIN, false, ""},
                   {"pp", TARVO_DISCLAIMER_WINDOW_MAIN, true, ""},
                   {"voice_new", TARVO_DISCLAIMER_WINDOW_SUB, false, ""},
                   {"viewing", TARVO_DISCLAIMER_WINDOW_MENU, false, "tnc/pp"},
                   {"main_common", TARVO_DISCLAIMER_WINDOW_MAIN, false, ""}};
    int order = 0;
    for (const auto& record : records) {
        TarvoDisclaimerDataItem item;
        item.id = record.id;
        item.disorder = order++;
        item.displayWindow = record.window;
        item.version = "1.0";
        item.title = record.id;
        item.isVisibleAtMenu = item.isVisibleAtPnP = item.isVisibleAtHotel = true;
        item.hasRevised = record.revised;
        item.subLink = record.subLink;
        item.countryCode = "US";
        store->SetDisclaimerItem(&item);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static char root[] = "/tmp/tarvo-fuzz-client-XXXXXX";
    if (mkdtemp(root) == nullptr) abort();
    atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    });
    setenv("TARVO_ROOT", root, 1);
    if (!tarvo::platform::PrepareRoot(root)) abort();
    // A set that has started before: the store's folder is there, so its first open succeeds.
    std::error_code ignored;
    std::filesystem::create_directories(
        std::string(root) + "/opt/usr/apps/org.mirlo.tarvodatacontrol-service/data", ignored);
    // Offline and without server values, so that no input starts a server request.
    Json::Value profile = tarvo::platform::LoadDeviceProfile().value_or(Json::Value(Json::objectValue));
    profile["network"]["up"] = false;
    tarvo::platform::SaveDeviceProfile(profile);

    // Singletons are made without a lock on their first call; make them here, before the worker
    // and this thread can race to make two.
    CTarvoExternalData::GetInstance();
    CTarvoInternalData::GetInstance();
    if (!g_service->Start()) abort();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!ServiceAvailable()) {
        if (std::chrono::steady_clock::now() > deadline) abort();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    g_handler = new tarvo::host::FrameHandler(g_service_proxy, g_service_name);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The host never hands on a longer line.
    if (size > tarvo::host::kMaxLineBytes) return 0;
    FillStore();
    const std::string line(reinterpret_cast<const char*>(data), size);
    const tarvo::host::FrameOutcome outcome = g_handler->Handle(line);
    const std::string written = tarvo::host::FrameHandler::Serialize(outcome.answer);
    if (written.empty() || written.back() != '\n') abort();
    return 0;
}
