// Small file and JSON helpers shared by the device-side platform components.
// Stateless; safe to call from any thread.
#pragma once

#include <json/json.h>

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tarvo {
namespace platform {
namespace detail {

// Tag of the platform's own log lines.
constexpr const char* kPlatformTag = "TarvoPlatform";

// mkdir -p; true when the folder exists afterwards. With `mode`, the folders it creates get
// exactly that mode whatever the process's umask.
bool MakeDirs(const std::string& dir, std::optional<mode_t> mode = std::nullopt);
// Folder part of a path ("" for a bare name).
std::string DirName(const std::string& path);
// Last component of a path.
std::string BaseName(const std::string& path);

// The whole file, or nullopt when it cannot be read.
std::optional<std::string> ReadWholeFile(const std::string& path);
// Writes `.NAME.tmp` beside `path`, then renames it over `path`, so that a reader
// never sees half a file. Creates the folder when needed. With `mode`, the file gets exactly
// that mode whatever the process's umask. Logs the reason on failure.
bool WriteFileAtomically(const std::string& path, const std::string& content,
                         std::optional<mode_t> mode = std::nullopt);
// How many files this process has replaced or removed through these helpers; NoteFileReplaced
// counts one more. Lets a reader that keeps what it read know when to look again.
std::uint64_t FilesReplaced();
void NoteFileReplaced();
// Opens `path` to append, creating it with exactly `mode` (and missing folders with exactly
// `folder_mode`) whatever the process's umask; -1 on failure.
int OpenForAppend(const std::string& path, mode_t mode, mode_t folder_mode);

// Parses a JSON text; nullopt when it is no JSON.
std::optional<Json::Value> ParseJson(const std::string& text);
// One-line JSON text without a trailing newline.
std::string CompactJson(const Json::Value& value);
// Indented JSON text for files people read.
std::string StyledJson(const Json::Value& value);

// malloc'ed copy of `text` (the C APIs hand out strings the caller frees).
char* MallocCopy(const std::string& text);

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
