// Error texts for a person about JSON values of the wrong type: for the frame members the
// host reads itself, and for a call that the module's JsonCpp conversions threw on.
// Stateless; any thread.
#pragma once

#include <json/json.h>

#include <string>

namespace tarvo {
namespace host {

// "a string", "a number", "an object", "an array", "null", "true" or "false".
std::string DescribeType(const Json::Value& value);
// member "NAME" must be WANT, got TYPE
std::string WrongMember(const std::string& name, const std::string& want, const Json::Value& got);
// The reason for a call whose module threw JsonCpp's `what` while reading `request`: names the
// member whose type is wrong when the request shows which one it must be.
std::string DescribeConversionFailure(const Json::Value& request, const std::string& what);

}  // namespace host
}  // namespace tarvo
