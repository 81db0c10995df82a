// vconf getters and setters: one JSON file per key, replaced by rename.
#include <vconf.h>

#include "file_snapshot.h"
#include "file_util.h"
#include "vconf_store.h"

#include <dlog.h>
#include <tarvo/platform.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

namespace tarvo {
namespace platform {
namespace detail {

std::optional<std::string> VconfKeyPath(const char* key) {
    if (key == nullptr || *key == '\0') return std::nullopt;
    const std::string name(key);
    // Every component must be a plain name; a leading dot would collide with temp files.
    size_t start = 0;
    while (true) {
        size_t slash = name.find('/', start);
        const std::string part = name.substr(start, slash == std::string::npos ? slash : slash - start);
        if (part.empty() || part[0] == '.') return std::nullopt;
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    auto starts = [&](const char* prefix) { return name.compare(0, strlen(prefix), prefix) == 0; };
    if (starts("db/") || starts("file/")) return platform_path("/var/vconf/" + name);
    if (starts("memory/")) return platform_path("/run/vconf/" + name);
    return std::nullopt;
}

bool MakeKeyFolder(const std::string& key_path) {
    const std::string memory_tree = platform_path("/run/vconf");
    const bool memory = key_path.compare(0, memory_tree.size() + 1, memory_tree + "/") == 0;
    const std::string tree = memory ? memory_tree : platform_path("/var/vconf");
    // Folders above the key tree keep the process's own modes (ROOT/run stays private).
    return MakeDirs(DirName(tree)) && MakeDirs(DirName(key_path), kKeyFolderMode);
}

namespace {

// The type and value of a key file's content; type NONE when it is no key.
keynode_t ParseKeyFile(const std::string& text) {
    keynode_t node;
    auto json = ParseJson(text);
    if (!json || !json->isObject() || !(*json)["type"].isString()) return node;
    const std::string type = (*json)["type"].asString();
    const Json::Value& value = (*json)["value"];
    if (type == "int" && value.isInt()) {
        node.type = VCONF_TYPE_INT;
        node.int_value = value.asInt();
    } else if (type == "bool" && value.isBool()) {
        node.type = VCONF_TYPE_BOOL;
        node.int_value = value.asBool() ? 1 : 0;
    } else if (type == "double" && value.isNumeric()) {
        node.type = VCONF_TYPE_DOUBLE;
        node.dbl_value = value.asDouble();
    } else if (type == "string" && value.isString()) {
        node.type = VCONF_TYPE_STRING;
        node.str_value = value.asString();
    }
    return node;
}

// Key files as last read, kept while unchanged; never freed, as a key may be read while the
// process exits.
FileSnapshots<keynode_t>& KeyFiles() {
    static auto* keys = new FileSnapshots<keynode_t>();
    return *keys;
}

}  // namespace

keynode_t ReadVconfKey(const char* key) {
    keynode_t node;
    node.name = key != nullptr ? key : "";
    auto path = VconfKeyPath(key);
    if (!path) return node;
    const auto stored = KeyFiles().Get(
        *path, [](const std::string& text) { return std::make_shared<const keynode_t>(ParseKeyFile(text)); });
    if (stored == nullptr) return node;
    node.type = stored->type;
    node.int_value = stored->int_value;
    node.dbl_value = stored->dbl_value;
    node.str_value = stored->str_value;
    return node;
}

}  // namespace detail
}  // namespace platform
}  // namespace tarvo

namespace {

using tarvo::platform::detail::kPlatformTag;
using tarvo::platform::detail::ReadVconfKey;
using tarvo::platform::detail::VconfKeyPath;

int SetKey(const char* key, const char* type, const Json::Value& value) {
    auto path = VconfKeyPath(key);
    if (!path) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "vconf key %s is not valid",
                     key ? key : "(null)");
        return -1;
    }
    Json::Value content(Json::objectValue);
    content["type"] = type;
    content["value"] = value;
    // Two threads setting one key would share its temp file.
    static std::mutex* write_mutex = new std::mutex();  // guards the keys' temp files
    std::lock_guard<std::mutex> lock(*write_mutex);
    if (!tarvo::platform::detail::MakeKeyFolder(*path)) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "cannot create the folder of vconf key %s", key);
        return -1;
    }
    return tarvo::platform::detail::WriteFileAtomically(*path, tarvo::platform::detail::CompactJson(content),
                                                        tarvo::platform::detail::kKeyFileMode)
               ? 0
               : -1;
}

}  // namespace

extern "C" {

char* vconf_get_str(const char* key) {
    keynode_t node = ReadVconfKey(key);
    if (node.type != VCONF_TYPE_STRING) return nullptr;
    return tarvo::platform::detail::MallocCopy(node.str_value);
}

int vconf_get_int(const char* key, int* value) {
    keynode_t node = ReadVconfKey(key);
    if (value == nullptr || node.type != VCONF_TYPE_INT) return -1;
    *value = node.int_value;
    return 0;
}

int vconf_get_bool(const char* key, int* value) {
    keynode_t node = ReadVconfKey(key);
    if (value == nullptr || node.type != VCONF_TYPE_BOOL) return -1;
    *value = node.int_value;
    return 0;
}

int vconf_get_dbl(const char* key, double* value) {
    keynode_t node = ReadVconfKey(key);
    if (value == nullptr || node.type != VCONF_TYPE_DOUBLE) return -1;
    *value = node.dbl_value;
    return 0;
}

int vconf_set_str(const char* key, const char* value) {
    if (value == nullptr) return -1;
    return SetKey(key, "string", Json::Value(value));
}

int vconf_set_int(const char* key, int value) { return SetKey(key, "int", Json::Value(value)); }

int vconf_set_bool(const char* key, int value) { return SetKey(key, "bool", Json::Value(value != 0)); }

int vconf_set_dbl(const char* key, double value) { return SetKey(key, "double", Json::Value(value)); }

int vconf_unset(const char* key) {
    auto path = VconfKeyPath(key);
    if (!path) return -1;
    if (remove(path->c_str()) != 0) return -1;
    tarvo::platform::detail::NoteFileReplaced();
    return 0;
}

const char* vconf_keynode_get_name(keynode_t* node) { return node != nullptr ? node->name.c_str() : nullptr; }

int vconf_keynode_get_type(keynode_t* node) { return node != nullptr ? node->type : VCONF_TYPE_NONE; }

int vconf_keynode_get_int(keynode_t* node) {
    return node != nullptr && node->type == VCONF_TYPE_INT ? node->int_value : 0;
}

int vconf_keynode_get_bool(keynode_t* node) {
    return node != nullptr && node->type == VCONF_TYPE_BOOL ? node->int_value : 0;
}

double vconf_keynode_get_dbl(keynode_t* node) {
    return node != nullptr && node->type == VCONF_TYPE_DOUBLE ? node->dbl_value : 0.0;
}

const char* vconf_keynode_get_str(keynode_t* node) {
    return node != nullptr && node->type == VCONF_TYPE_STRING ? node->str_value.c_str() : nullptr;
}

}  // extern "C"
