#include "utf8.h"

#include <cstddef>

namespace tarvo {
namespace host {

size_t Utf8SequenceLength(const char* data, size_t left) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(data[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return 1;
    size_t length = 0;
    unsigned char low = 0x80;  // bounds of the second byte rule out overlongs and surrogates
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (length > left) return 0;
    if (byte(1) < low || byte(1) > high) return 0;
    for (size_t i = 2; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
    }
    return length;
}

bool IsValidUtf8(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const size_t length = Utf8SequenceLength(text.data() + at, text.size() - at);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

bool HoldsValidUtf8(const Json::Value& value) {
    if (value.isString()) return IsValidUtf8(value.asString());
    if (value.isArray()) {
        for (const Json::Value& element : value) {
            if (!HoldsValidUtf8(element)) return false;
        }
    } else if (value.isObject()) {
        for (auto it = value.begin(); it != value.end(); ++it) {
            if (!IsValidUtf8(it.name()) || !HoldsValidUtf8(*it)) return false;
        }
    }
    return true;
}

std::string RepairUtf8(const std::string& text) {
    std::string repaired;
    repaired.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const size_t length = Utf8SequenceLength(text.data() + at, text.size() - at);
        if (length == 0) {
            repaired += "\xEF\xBF\xBD";
            ++at;
        } else {
            repaired.append(text, at, length);
            at += length;
        }
    }
    return repaired;
}

}  // namespace host
}  // namespace tarvo
