// Verbs that drive the emulated television itself through the platform library, as
// its settings store and its network manager would.
#include "verbs.h"
#include "wait_options.h"

#include <tarvo/platform.h>
#include <vconf.h>

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <mutex>

namespace tarvoctl {

namespace {

// A key's value with its type name, as the store keeps it.
Json::Value ReadKey(const std::string& key) {
    Json::Value out(Json::objectValue);
    out["key"] = key;
    if (char* text = vconf_get_str(key.c_str()); text != nullptr) {
        out["type"] = "string";
        out["value"] = text;
        std::free(text);
        return out;
    }
    int number = 0;
    double real = 0;
    if (vconf_get_int(key.c_str(), &number) == 0) {
        out["type"] = "int";
        out["value"] = number;
    } else if (vconf_get_bool(key.c_str(), &number) == 0) {
        out["type"] = "bool";
        out["value"] = number != 0;
    } else if (vconf_get_dbl(key.c_str(), &real) == 0) {
        out["type"] = "double";
        out["value"] = real;
    }
    return out;
}

Json::Value ReadNode(keynode_t* node) {
    Json::Value out(Json::objectValue);
    out["key"] = vconf_keynode_get_name(node);
    switch (vconf_keynode_get_type(node)) {
        case VCONF_TYPE_STRING: {
            const char* text = vconf_keynode_get_str(node);
            out["type"] = "string";
            out["value"] = text ? text : "";
            break;
        }
        case VCONF_TYPE_INT:
            out["type"] = "int";
            out["value"] = vconf_keynode_get_int(node);
            break;
        case VCONF_TYPE_BOOL:
            out["type"] = "bool";
            out["value"] = vconf_keynode_get_bool(node) != 0;
            break;
        case VCONF_TYPE_DOUBLE:
            out["type"] = "double";
            out["value"] = vconf_keynode_get_dbl(node);
            break;
        default:
            out["type"] = "none";
            break;
    }
    return out;
}

void PrintKey(const Context& context, const Json::Value& key) {
    if (context.json) {
        std::cout << CompactJson(key) << std::endl;
        return;
    }
    const Json::Value& value = key["value"];
    std::cout << key["key"].asString() << " = " << (value.isString() ? value.asString() : CompactJson(value))
              << " (" << key["type"].asString() << ")" << std::endl;
}

// Changes seen by the vconf notification thread, printed by the main thread.
struct WatchQueue {
    std::mutex mutex;  // guards changes
    std::condition_variable changed;
    std::deque<Json::Value> changes;
};

void OnKeyChanged(keynode_t* node, void* user_data) {
    auto* queue = static_cast<WatchQueue*>(user_data);
    Json::Value change = ReadNode(node);
    std::lock_guard<std::mutex> lock(queue->mutex);
    queue->changes.push_back(std::move(change));
    queue->changed.notify_one();
}

int SetValue(const std::string& key, const std::string& text, const std::string& type) {
    int result = -1;
    if (type == "int") {
        const auto value = ParseInt(text);
        if (!value) return UsageError("\"" + text + "\" is no integer");
        result = vconf_set_int(key.c_str(), *value);
    } else if (type == "bool") {
        if (text != "true" && text != "false" && text != "1" && text != "0") {
            return UsageError("a bool is true, false, 1 or 0");
        }
        result = vconf_set_bool(key.c_str(), text == "true" || text == "1");
    } else if (type == "double") {
        const auto value = ParseDouble(text);
        if (!value) return UsageError("\"" + text + "\" is no number");
        result = vconf_set_dbl(key.c_str(), *value);
    } else if (type == "string") {
        result = vconf_set_str(key.c_str(), text.c_str());
    } else {
        return UsageError("--type is int, string, bool or double");
    }
    return result == 0 ? kExitDone : Fail("cannot set " + key + " (see tarvoctl log --level error)");
}

// A usage error for a key the store cannot hold; 0 for a good key.
int CheckKey(const std::string& key) {
    const bool known_prefix =
        key.rfind("db/", 0) == 0 || key.rfind("file/", 0) == 0 || key.rfind("memory/", 0) == 0;
    if (!known_prefix) {
        return UsageError("\"" + key +
                          "\" is no vconf key: a key starts with db/ or file/ (kept across restarts) "
                          "or memory/ (gone at reboot), e.g. db/" +
                          key);
    }
    if (key.find("//") != std::string::npos || key.find("/.") != std::string::npos || key.back() == '/') {
        return UsageError("\"" + key + "\" is no vconf key: no part of it may be empty or start with '.'");
    }
    return 0;
}

int NetworkDone(const Context& context, bool done, const std::string& what) {
    if (!done)
        return Fail("cannot " + what + " (see tarvoctl --root " + context.Root() + " log --level error)");
    if (context.json) {
        Json::Value out(Json::objectValue);
        out["ok"] = true;
        out["network"] = what;
        std::cout << CompactJson(out) << std::endl;
    } else {
        std::cout << what << ": done" << std::endl;
    }
    return kExitDone;
}

}  // namespace

int RunVconfGet(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {});
    if (!split) return kExitUsage;
    if (split->positional.size() != 1) return UsageError("vconf get takes one KEY");
    if (const int bad = CheckKey(split->positional[0])) return bad;
    context.UsePlatformRoot();
    const Json::Value key = ReadKey(split->positional[0]);
    if (!key.isMember("value")) return Fail(split->positional[0] + " is not set");
    PrintKey(context, key);
    return kExitDone;
}

int RunVconfSet(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {"--type"});
    if (!split) return kExitUsage;
    if (split->positional.size() != 2) return UsageError("vconf set takes KEY and VALUE");
    const std::string& key = split->positional[0];
    const std::string& text = split->positional[1];
    if (const int bad = CheckKey(key)) return bad;
    std::string type = ParseInt(text) ? "int" : "string";
    if (auto it = split->options.find("--type"); it != split->options.end()) type = it->second;
    context.UsePlatformRoot();
    const int code = SetValue(key, text, type);
    if (code != kExitDone) return code;
    PrintKey(context, ReadKey(key));
    return kExitDone;
}

int RunVconfWatch(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {"--count", "--timeout"});
    if (!split) return kExitUsage;
    if (split->positional.empty()) return UsageError("vconf watch takes at least one KEY");
    for (const auto& key : split->positional) {
        if (const int bad = CheckKey(key)) return bad;
    }
    const auto wait = ReadWaitOptions(*split);
    if (!wait) return kExitUsage;
    context.UsePlatformRoot();
    CatchInterrupts();

    // Lives to the process's end: the notification thread may still hold it.
    auto* queue = new WatchQueue;
    for (const auto& key : split->positional) {
        if (vconf_notify_key_changed(key.c_str(), OnKeyChanged, queue) != 0)
            return Fail("cannot watch " + key);
    }
    if (!context.json) std::cerr << "watching " << split->positional.size() << " key(s)" << std::endl;

    int seen = 0;
    std::unique_lock<std::mutex> lock(queue->mutex);
    while (!Interrupted() && !wait->Expired() && (!wait->count || seen < *wait->count)) {
        if (queue->changes.empty()) {
            // Short slices, so that a signal is noticed soon.
            queue->changed.wait_for(lock, std::chrono::milliseconds(100));
            continue;
        }
        const Json::Value change = queue->changes.front();
        queue->changes.pop_front();
        lock.unlock();
        PrintKey(context, change);
        ++seen;
        lock.lock();
    }
    lock.unlock();
    for (const auto& key : split->positional) vconf_ignore_key_changed(key.c_str(), OnKeyChanged);
    return wait->Finish(seen, "changes");
}

int RunNetworkUp(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {});
    if (!split) return kExitUsage;
    if (split->positional.size() > 1) return UsageError("network up takes at most one profile");
    const std::string profile = split->positional.empty() ? "ethernet" : split->positional[0];
    if (profile != "wifi" && profile != "ethernet" && profile != "cellular" && profile != "bt") {
        return UsageError("the profile is wifi, ethernet, cellular or bt");
    }
    context.UsePlatformRoot();
    return NetworkDone(context, tarvo::platform::SetNetworkUp(profile), "network up " + profile);
}

int RunNetworkDown(Context& context, const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("network down takes no arguments");
    context.UsePlatformRoot();
    return NetworkDone(context, tarvo::platform::SetNetworkDown(), "network down");
}

int RunNetworkDns(Context& context, const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("network dns takes no arguments");
    context.UsePlatformRoot();
    return NetworkDone(context, tarvo::platform::NotifyDnsChanged(), "network dns");
}

}  // namespace tarvoctl
