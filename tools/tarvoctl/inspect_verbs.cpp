// Verbs that show the emulated television as it is: its log and its device profile.
#include "outcome_words.h"
#include "service_log.h"
#include "service_session.h"
#include "terminal.h"
#include "verbs.h"

#include <tarvo/platform.h>
#include <vconf.h>

#include <cstdlib>
#include <iostream>
#include <thread>

namespace tarvoctl {

namespace {

struct NamedKey {
    const char* key;
    const char* name;
    const char* meaning;
};

// The system_info numbers the service reads, as platform/include/system_info.h names them.
const NamedKey kSystemInfo[] = {
    {"13", "UHD support", "disclaimers marked check_uhd apply only with it"},
    {"61", "voice recognition support", "disclaimers marked check_voice_rec apply only with it"},
    {"128", "product software version", "sent in the X-Device-Firmware header"},
    {"282", "UHD remote management support", "disclaimers marked check_uhdrm apply only with it"},
};

// The factory data ids the service reads, with what their i_val means to it.
const NamedKey kFactoryData[] = {
    {"112", "hotel mode", "non-zero: a hotel set, where only disclaimers visible at hotel apply"},
    {"166", "server mode", "0: the production servers, anything else: staging"},
    {"273", "take in the USB clone at start", "1: the store is copied from the USB clone folder at start"},
};

const char* LevelColour(char level) {
    switch (level) {
        case 'E':
        case 'F':
            return "\033[31m";
        case 'W':
            return "\033[33m";
        case 'I':
            return "\033[32m";
        default:
            return "\033[2m";
    }
}

void PrintEntry(const Context& context, const LogEntry& entry, bool colour) {
    if (context.json) {
        Json::Value out(Json::objectValue);
        out["time"] = entry.time;
        out["level"] = std::string(1, entry.level);
        out["tag"] = entry.tag;
        out["pid"] = entry.pid;
        if (!entry.function.empty()) out["function"] = entry.function;
        out["message"] = entry.message;
        PrintDocument(out);
        return;
    }
    const std::string who = entry.tag == kServiceTag ? entry.function : entry.tag;
    std::string message = entry.message;
    for (size_t at = 0; (at = message.find('\n', at)) != std::string::npos; at += 5)
        message.replace(at, 1, "\n    ");
    const std::string clock = entry.time.size() > 11 ? entry.time.substr(11) : entry.time;
    if (colour) {
        std::cout << "\033[2m" << clock << "\033[0m " << LevelColour(entry.level) << entry.level << "\033[0m "
                  << "\033[36m" << who << "\033[0m " << message << "\n";
    } else {
        std::cout << clock << " " << entry.level << " " << who << " " << message << "\n";
    }
}

std::string Shown(const Json::Value& value) {
    if (value.isNull()) return "(missing: the matching platform call fails)";
    if (value.isString()) return value.asString();
    if (value.isBool()) return YesNo(value.asBool());
    return CompactJson(value);
}

void PrintRow(const std::string& label, const std::string& value, const std::string& meaning = "") {
    std::cout << "  " << label << std::string(label.size() < 36 ? 36 - label.size() : 1, ' ') << value;
    if (!meaning.empty()) std::cout << "  (" << meaning << ")";
    std::cout << "\n";
}

}  // namespace

int RunLog(Context& context, const std::vector<std::string>& args) {
    std::vector<std::string> rest;
    bool follow = false;
    for (const auto& word : args) {
        if (word == "--follow") {
            follow = true;
        } else {
            rest.push_back(word);
        }
    }
    const auto split = SplitArguments(rest, {"--level"});
    if (!split) return kExitUsage;
    if (!split->positional.empty()) return UsageError("log takes --follow and --level L only");
    int level = 0;
    if (const auto it = split->options.find("--level"); it != split->options.end()) {
        const auto parsed = ParseLevel(it->second);
        if (!parsed) return UsageError("--level is debug, info, warn or error");
        level = *parsed;
    }
    LogCursor log(context.Root() + "/var/log/tarvo.log", true);
    if (!log.Exists() && !follow) return Fail("there is no log at " + log.Path() + " yet");
    const bool colour = StdoutIsTerminal() && !context.json;
    CatchInterrupts();
    do {
        for (const auto& entry : log.ReadAll()) {
            if (LevelRank(entry.level) >= level) PrintEntry(context, entry, colour);
        }
        std::cout << std::flush;
        if (follow) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    } while (follow && !Interrupted());
    return kExitDone;
}

int RunDevice(Context& context, const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("device takes no arguments");
    context.UsePlatformRoot();
    const auto profile = tarvo::platform::LoadDeviceProfile();
    const std::string path = tarvo::platform::DeviceProfilePath();
    if (!profile) return Fail("no device profile at " + path + " (or it is no JSON object)");
    const Json::Value& p = *profile;
    Json::Value vconf(Json::objectValue);
    for (const auto& value : DeviceValues()) {
        char* text = vconf_get_str(value.key);
        vconf[value.key] = text != nullptr ? Json::Value(text) : Json::Value();
        std::free(text);
    }
    if (char* text = vconf_get_str("db/menu_widget/language")) {
        vconf["db/menu_widget/language"] = text;
        std::free(text);
    }
    if (context.json) {
        Json::Value out(Json::objectValue);
        out["path"] = path;
        out["profile"] = p;
        for (const auto& key : kSystemInfo) {
            out["names"]["system_info"][key.key] = key.name;
        }
        for (const auto& key : kFactoryData) {
            out["names"]["factory_data"][key.key] = key.name;
        }
        out["vconf"] = vconf;
        PrintDocument(out);
        return kExitDone;
    }
    std::cout << "device profile " << path << "\n";
    std::cout << "system_info (read with system_info_get_value_*)\n";
    for (const auto& key : kSystemInfo) {
        PrintRow(std::string(key.key) + std::string(5 - std::string(key.key).size(), ' ') + key.name,
                 Shown(p["system_info"][key.key]), key.meaning);
    }
    std::cout << "factory_data (read with GetData; the value is i_val)\n";
    for (const auto& key : kFactoryData) {
        PrintRow(std::string(key.key) + std::string(5 - std::string(key.key).size(), ' ') + key.name,
                 Shown(p["factory_data"][key.key]), key.meaning);
    }
    std::cout << "other members\n";
    PrintRow("firm_code", Shown(p["firm_code"]), "the firm code in the server requests");
    std::string countries;
    for (const auto& country : p["country_list"]["rsp"]["countriesList"]) {
        countries += (countries.empty() ? "" : ", ") + country["countryCode"].asString();
    }
    PrintRow("country_list", p["country_list"].isObject() ? countries : Shown(p["country_list"]),
             "what tarvoctl countries --refresh fetches");
    PrintRow("term_error", Shown(p["term_error"]),
             "the error code of a failure that the device values caused");
    const Json::Value& network = p["network"];
    PrintRow("network", network.isObject() ? std::string(network["up"].asBool() ? "up" : "down") + ", " +
                                                 network["profile"].asString() + ", mac " +
                                                 Shown(network["mac"]) + ", dns " + Shown(network["dns"])
                                           : Shown(network));
    if (!p["deployment"].isObject())
        PrintRow("deployment", "(missing: the service knows no agreement or log host)");
    for (const auto& name : p["deployment"].getMemberNames()) {
        PrintRow("deployment." + name, Shown(p["deployment"][name]));
    }
    PrintRow("ca_file",
             p["ca_file"].isNull() ? "(not set: the system's CA store is trusted)" : Shown(p["ca_file"]));
    PrintRow("curl.write_block",
             p["curl"]["write_block"].isNull() ? "16384 (default)" : Shown(p["curl"]["write_block"]));
    PrintRow("curl.max_body",
             p["curl"]["max_body"].isNull() ? "8 MiB (default)" : Shown(p["curl"]["max_body"]));
    std::cout << "device values in vconf\n";
    for (const auto& key : vconf.getMemberNames()) {
        PrintRow(key, vconf[key].isNull() ? "(not set)" : vconf[key].asString());
    }
    std::cout << std::flush;
    return kExitDone;
}

}  // namespace tarvoctl
