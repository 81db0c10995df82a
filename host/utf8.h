// UTF-8 checks for the host's wire protocol: frames in must be valid UTF-8, and frames out
// are made valid whatever bytes the module put in its replies. Stateless, any thread.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>

namespace tarvo {
namespace host {

// True when `text` is well-formed UTF-8: no overlong form, no surrogate, nothing past U+10FFFF.
bool IsValidUtf8(const std::string& text);
// The length of the valid sequence at the start of `data` (of `left` bytes), 0 when none starts there.
size_t Utf8SequenceLength(const char* data, size_t left);
// True when every string and member name inside `value` is valid UTF-8 (a "\udc00"
// escape parses into bytes that are not).
bool HoldsValidUtf8(const Json::Value& value);
// `text` with each byte that starts no valid sequence replaced by U+FFFD.
std::string RepairUtf8(const std::string& text);

}  // namespace host
}  // namespace tarvo
