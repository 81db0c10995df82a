// The host writes its frames with RapidJSON; a client must get the very bytes JsonCpp's
// StreamWriter wrote before, whatever the module put in its reply.
#include "frames.h"
#include "tarvo_test.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace tarvo::test {
namespace {

using host::FrameHandler;

void ExpectAlike(const Json::Value& value) {
    EXPECT_EQ(FrameHandler::Serialize(value), FrameHandler::SerializeWithJsonCpp(value))
        << FrameHandler::SerializeWithJsonCpp(value);
}

std::string AllControlBytes() {
    std::string text;
    for (int byte = 0; byte < 0x20; ++byte) text += static_cast<char>(byte);
    return text + "\x7f";
}

TEST(FrameWriter, WritesTheBytesJsonCppWritesForTrickyValues) {
    const std::string controls = AllControlBytes();
    Json::Value frame = ParseText(R"({"id": 7, "reply": {
        "unicode": "caf\u00e9 \u05e9\u05dc\u05d5\u05dd \u65e5\u672c \ud83d\udcfa",
        "tab, newline and friends": "a\tb\nc\rd\be\ff", "with nul": "before\u0000after",
        "escapes": "quote \" backslash \\ slash / \\u0041 not an escape",
        "big": -9223372036854775808, "bigger": 18446744073709551615, "negative": -1, "zero": 0,
        "flags": [true, false], "nested": {"deeper": [{"deepest": []}]}, "empty object": {},
        "empty array": [], "empty string": "", "": "an empty name", "null": null,
        "caf\u00e9 \ud83d\udcfa": "a name outside ASCII"}})");
    frame["reply"]["controls"] = controls;
    ExpectAlike(frame);

    // Each control byte alone, as a value and as a member's name, before and after plain text.
    for (char byte : controls) {
        Json::Value one(Json::objectValue);
        one["value"] = std::string(1, byte) + "0123456789abcdef" + std::string(1, byte);
        one[std::string("name") + byte] = 1;
        ExpectAlike(one);
    }
    // Doubles, which JsonCpp writes with 17 digits.
    for (double number :
         {0.1, -0.0, 1e300, -2.5, 3.0, 1.0 / 3.0, std::numeric_limits<double>::infinity(),
          std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::denorm_min()}) {
        Json::Value value(Json::objectValue);
        value["number"] = number;
        ExpectAlike(value);
    }
    // A sparse array: the gaps are nulls.
    Json::Value sparse(Json::arrayValue);
    sparse[3] = "fourth";
    ExpectAlike(sparse);
    ExpectAlike(Json::Value());
    ExpectAlike(Json::Value(Json::objectValue));
    ExpectAlike(Json::Value("a bare string"));
    // Bytes that are not UTF-8 become U+FFFD in both: overlong, surrogate, cut short, stray.
    for (const char* bad :
         {"\xc0\xaf", "\xed\xa0\x80", "\xe2\x82", "\x80", "ok \xff ok", "\xf4\x90\x80\x80"}) {
        Json::Value value(Json::objectValue);
        value["text"] = std::string("long enough plain text ") + bad + " and more after it";
        value[bad] = true;
        ExpectAlike(value);
    }
}

TEST(FrameWriter, WritesTheBytesJsonCppWritesForRandomValues) {
    std::mt19937 random(20261125);
    // Pieces that both writers write alike, and pieces that send a frame JsonCpp's way.
    std::vector<std::string> alike = {std::string(1, '\0'), "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x93\xba",
                                      "plain text long enough for a word at a time"};
    for (char c : std::string("aZ0 \"\\/{]:,\t\n\r\b\f\x01\x10\x7f")) alike.emplace_back(1, c);
    const std::vector<std::string> unlike = {"\x0b", "\x0e", "\x1a", "\x1f", "\xff", "\x80", "\xe2\x82"};
    bool with_unlike = false;
    const auto text = [&] {
        std::string result;
        for (size_t i = random() % 12; i > 0; --i) {
            const bool odd = with_unlike && random() % 8 == 0;
            result += odd ? unlike[random() % unlike.size()] : alike[random() % alike.size()];
        }
        return result;
    };
    std::function<Json::Value(int)> make = [&](int depth) -> Json::Value {
        switch (random() % (depth > 3 ? 4 : 6)) {
            case 0:
                return random() % 4 == 0 ? Json::Value() : Json::Value(random() % 2 == 0);
            case 1:
                if (with_unlike && random() % 8 == 0) return Json::Value(static_cast<double>(random()) / 7.0);
                return Json::Value(static_cast<Json::Int64>(random()) - Json::Int64{2147483648});
            case 2:
            case 3:
                return Json::Value(text());
            case 4: {
                Json::Value array(Json::arrayValue);
                for (size_t i = random() % 5; i > 0; --i) array.append(make(depth + 1));
                return array;
            }
            default: {
                Json::Value object(Json::objectValue);
                for (size_t i = random() % 5; i > 0; --i) object[text()] = make(depth + 1);
                return object;
            }
        }
    };
    for (int i = 0; i < 4000; ++i) {
        with_unlike = i % 2 == 1;
        Json::Value frame(Json::objectValue);
        frame["id"] = i;
        frame["reply"] = make(0);
        ExpectAlike(frame);
        if (HasFailure()) return;
    }
}

}  // namespace
}  // namespace tarvo::test
