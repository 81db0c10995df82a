// JSON text helpers shared by the cloud's servers: plain functions without state, called
// from any thread; a text that is no JSON is a returned false, never an exception.
#pragma once

#include <json/json.h>

#include <string>

namespace tarvo {
namespace cloud {

// Compact JSON on one line, non-ASCII text written as UTF-8.
std::string CompactJson(const Json::Value& value);
// False with the parser's reason in `error` when `text` is no JSON.
bool ParseJson(const std::string& text, Json::Value* value, std::string* error);

}  // namespace cloud
}  // namespace tarvo
