#include "tarvo_test.h"

#include <tarvo/platform.h>
#include <vconf.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

namespace tarvo::test {

TempRoot::TempRoot() {
    std::string pattern = (fs::temp_directory_path() / "tarvo-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed";
    }
    m_path = pattern;
    setenv("TARVO_ROOT", m_path.c_str(), 1);
    EXPECT_TRUE(tarvo::platform::PrepareRoot(m_path));
    WriteProfile(DefaultProfile());
}

TempRoot::~TempRoot() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

std::string TempRoot::At(const std::string& tv_path) const { return m_path + tv_path; }

Json::Value TempRoot::Profile() const {
    auto profile = tarvo::platform::LoadDeviceProfile();
    return profile ? *profile : Json::Value(Json::objectValue);
}

void TempRoot::WriteProfile(const Json::Value& profile) const {
    EXPECT_TRUE(tarvo::platform::SaveDeviceProfile(profile));
}

void TempRoot::EditProfile(const std::function<void(Json::Value&)>& edit) const {
    Json::Value profile = Profile();
    edit(profile);
    WriteProfile(profile);
}

Json::Value DefaultProfile() {
    return ParseText(R"({"system_info": {"13": true, "282": false, "61": true, "128": "T-1010.5"},
        "factory_data": {"112": 0, "166": 0, "273": 0}, "firm_code": "T-TRV2-1010.5", "term_error": "0",
        "country_list": {"rsp": {"stat": "ok", "modelId": "TRV55",
            "countriesList": [{"countryCode": "US", "countryName": "United States"}]}},
        "network": {"up": true, "profile": "ethernet", "mac": "AA:BB:CC:DD:EE:FF", "dns": true},
        "curl": {"write_block": 16384}})");
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

void WriteFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

Json::Value ParseText(const std::string& text) {
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    std::string errors;
    if (text.empty() || !reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return {};
    return value;
}

std::string VconfText(const std::string& key) {
    char* value = vconf_get_str(key.c_str());
    const std::string text = value != nullptr ? value : "<unset>";
    std::free(value);
    return text;
}

int VconfNumber(const std::string& key) {
    int value = -99;
    vconf_get_int(key.c_str(), &value);
    return value;
}

}  // namespace tarvo::test
