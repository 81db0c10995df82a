// Bytes as the logging policy file, read by the global logger's lazy set-up for one MOVETOPANEL
// event. The profile names a CA file that does not exist, so every POST fails before it connects:
// a URL from the input never reaches the network.
#include <TarvoExternalData.h>
#include <TarvoGlobalLogger.h>
#include <libxml/xmlerror.h>
#include <tarvo/platform.h>
#include <vconf.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace {

std::string g_policyPath;

// Parse errors of malformed inputs would flood stderr and slow every run.
void Silent(void*, const char*, ...) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
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
    profile["deployment"]["log_policy_namespace"] = "http://127.0.0.1/api/1.0";
    profile["deployment"]["log_production_host"] = "127.0.0.1:9";
    profile["deployment"]["log_staging_host"] = "127.0.0.1:9";
    profile["ca_file"] = root + "/no-such-ca.pem";
    if (!tarvo::platform::SaveDeviceProfile(profile)) abort();
    vconf_set_str("db/nimbra/countrycode", "US");
    vconf_set_str("db/nimbra/modelid", "TRV55Q9");
    vconf_set_str("db/nimbra/duid", "DUID-FUZZ");
    // A folder where the platform log file belongs: its lines are dropped instead of piling up.
    std::filesystem::create_directories(root + "/var/log/tarvo.log");
    g_policyPath = platform_path("/opt/down/common/LogPolicyConfig.xml");
    std::filesystem::create_directories(std::filesystem::path(g_policyPath).parent_path());
    xmlSetGenericErrorFunc(nullptr, &Silent);
    CTarvoExternalData::GetInstance();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        std::ofstream policy(g_policyPath, std::ios::binary | std::ios::trunc);
        policy.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    CTarvoGlobalLogger::GetInstance()->SendMoveToPanelLog("fuzz");
    // The set-up is lazy and kept, so each input needs a logger of its own.
    CTarvoGlobalLogger::Destroy();
    return 0;
}
