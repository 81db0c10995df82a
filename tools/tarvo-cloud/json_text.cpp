#include "json_text.h"

#include <exception>
#include <memory>

namespace tarvo {
namespace cloud {

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

bool ParseJson(const std::string& text, Json::Value* value, std::string* error) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(text.data(), text.data() + text.size(), value, error);
    } catch (const std::exception& e) {
        // JsonCpp throws when the nesting is deeper than its limit.
        *error = e.what();
        return false;
    }
}

}  // namespace cloud
}  // namespace tarvo
