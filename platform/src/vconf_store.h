// The vconf key files shared by the getters/setters and the notification thread.
// Stateless helpers; the key node is owned by whoever builds it.
#pragma once

#include <vconf.h>

#include <sys/types.h>

#include <optional>
#include <string>

struct _keynode_t {
    std::string name;
    int type = VCONF_TYPE_NONE;
    int int_value = 0;  // also the bool value
    double dbl_value = 0.0;
    std::string str_value;
};

namespace tarvo {
namespace platform {
namespace detail {

// The file of a key ("db/..." and "file/..." under var/vconf, "memory/..." under
// run/vconf); nullopt for a key outside those trees or with an unsafe component.
std::optional<std::string> VconfKeyPath(const char* key);
// Other applications read the keys, whatever the umask of the process that writes them.
constexpr mode_t kKeyFileMode = 0644;
constexpr mode_t kKeyFolderMode = 0755;
// Makes the folders of a key's file: those inside the vconf tree with kKeyFolderMode.
bool MakeKeyFolder(const std::string& key_path);
// The key's current type and value from its file (read again only when the file changed); type
// NONE when unset or unreadable.
keynode_t ReadVconfKey(const char* key);

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
