// The host writes its frames with RapidJSON; a client must get the very bytes JsonCpp's
// StreamWriter wrote before, whatever the module put in its reply.
#include "frames.h"

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
    Json::Value frame(Json::objectValue);
    frame["id"] = 7;
    frame["reply"]["unicode"] =
        "caf\xc3\xa9 \xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x93\xba";
    frame["reply"]["controls"] = controls;
    frame["reply"]["tab, newline and friends"] = "a\tb\nc\rd\be\ff";
    frame["reply"]["escapes"] = R"(quote " backslash \ slash / \u0041 not an escape)";
    frame["reply"]["with nul"] = std::string("before\0after", 12);
    frame["reply"]["big"] = Json::Value(std::numeric_limits<Json::Int64>::min());
    frame["reply"]["bigger"] = Json::Value(std::numeric_limits<Json::UInt64>::max());
    frame["reply"]["negative"] = -1;
    frame["reply"]["zero"] = 0;
    frame["reply"]["flags"].append(true);
    frame["reply"]["flags"].append(false);
    frame["reply"]["nested"]["deeper"][0]["deepest"] = Json::Value(Json::arrayValue);
    frame["reply"]["empty object"] = Json::Value(Json::objectValue);
    frame["reply"]["empty array"] = Json::Value(Json::arrayValue);
    frame["reply"]["empty string"] = "";
    frame["reply"][""] = "an empty name";
    frame["reply"]["null"] = Json::Value();
    frame["reply"]["caf\xc3\xa9 \xf0\x9f\x93\xba"] = "a name outside ASCII";
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
