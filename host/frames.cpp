#include "frames.h"

#include "fast_writer.h"
#include "type_errors.h"
#include "utf8.h"

#include <dlog.h>
#include <tarvo/platform.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <utility>

namespace tarvo {
namespace host {

namespace {

constexpr const char* kLogTag = "TarvoHost";
constexpr const char* kDefaultType = "tarvodatacontrol";

// JsonCpp's "* Line 1, Column 5\n  Syntax error: ...\n" as one sentence.
std::string ReadableParseError(const std::string& errors) {
    const auto column = errors.find("Column ");
    const auto newline = errors.find('\n', column == std::string::npos ? 0 : column);
    if (column == std::string::npos || newline == std::string::npos) return "the line is not JSON";
    const std::string at =
        errors.substr(column + 7, errors.find_first_not_of("0123456789", column + 7) - column - 7);
    auto start = errors.find_first_not_of(" \t", newline + 1);
    auto end = errors.find('\n', start);
    if (start == std::string::npos) return "the line is not JSON (at column " + at + ")";
    std::string detail = errors.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (!detail.empty() && detail[0] >= 'A' && detail[0] <= 'Z')
        detail[0] = static_cast<char>(detail[0] - 'A' + 'a');
    return "the line is not JSON at column " + at + ": " + detail;
}

// True when `data` is valid UTF-8 that RapidJSON escapes as JsonCpp does. Both name \b \f \n \r
// \t and write other control bytes as \u00XX, JsonCpp with lower-case hex digits and RapidJSON
// with upper-case ones, so a control byte with a letter in its hex form goes JsonCpp's way.
bool WritesAlike(const char* data, size_t size) {
    constexpr uint64_t kOnes = 0x0101010101010101ULL;
    constexpr uint64_t kHighBits = 0x8080808080808080ULL;
    size_t at = 0;
    while (at < size) {
        if (size - at >= 8) {
            uint64_t word;
            std::memcpy(&word, data + at, sizeof(word));
            // Eight bytes of plain ASCII: no high bit set and none below 0x20.
            if (((word | ((word - kOnes * 0x20) & ~word)) & kHighBits) == 0) {
                at += 8;
                continue;
            }
        }
        const auto byte = static_cast<unsigned char>(data[at]);
        if (byte < 0x80) {
            if (byte == 0x0b || byte == 0x0e || byte == 0x0f || (byte >= 0x1a && byte < 0x20)) return false;
            ++at;
            continue;
        }
        const size_t length = Utf8SequenceLength(data + at, size - at);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

bool WriteString(const char* begin, const char* end, FastWriter& writer, bool key) {
    const auto size = static_cast<size_t>(end - begin);
    if (size > std::numeric_limits<rapidjson::SizeType>::max() || !WritesAlike(begin, size)) return false;
    const auto length = static_cast<rapidjson::SizeType>(size);
    return key ? writer.Key(begin, length) : writer.String(begin, length);
}

// Writes `value` as JsonCpp's StreamWriter would; false where the two would differ (a double,
// which JsonCpp writes with 17 digits, or a string that WritesAlike turns away).
bool WriteValue(const Json::Value& value, FastWriter& writer) {
    switch (value.type()) {
        case Json::nullValue:
            return writer.Null();
        case Json::intValue:
            return writer.Int64(value.asLargestInt());
        case Json::uintValue:
            return writer.Uint64(value.asLargestUInt());
        case Json::booleanValue:
            return writer.Bool(value.asBool());
        case Json::realValue:
            return false;
        case Json::stringValue: {
            const char* begin = nullptr;
            const char* end = nullptr;
            return value.getString(&begin, &end) && WriteString(begin, end, writer, false);
        }
        case Json::arrayValue: {
            writer.StartArray();
            // By index, as JsonCpp does: a gap in a sparse array is written as null.
            const Json::ArrayIndex size = value.size();
            for (Json::ArrayIndex i = 0; i < size; ++i) {
                if (!WriteValue(value[i], writer)) return false;
            }
            return writer.EndArray();
        }
        case Json::objectValue: {
            writer.StartObject();
            for (auto it = value.begin(); it != value.end(); ++it) {
                const char* end = nullptr;
                const char* begin = it.memberName(&end);
                if (begin == nullptr || !WriteString(begin, end, writer, true) || !WriteValue(*it, writer))
                    return false;
            }
            return writer.EndObject();
        }
    }
    return false;
}

Json::Value OkFrame(const Json::Value& id) {
    Json::Value frame(Json::objectValue);
    frame["id"] = id;
    frame["ok"] = true;
    return frame;
}

// Frames of up to this size keep their writer's buffer for the next frame of the thread.
constexpr size_t kKeptBufferBytes = 1024 * 1024;

}  // namespace

LineParser::LineParser() {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    builder["collectComments"] = false;
    m_reader.reset(builder.newCharReader());
}

bool LineParser::Parse(const std::string& line, Json::Value& out, std::string& reason) {
    // JsonCpp passes any bytes through, so a frame is checked before it is read.
    if (!IsValidUtf8(line)) {
        reason = "the line is not valid UTF-8";
        return false;
    }
    std::string errors;
    try {
        if (!m_reader->parse(line.data(), line.data() + line.size(), &out, &errors)) {
            reason = ReadableParseError(errors);
            return false;
        }
    } catch (const std::exception&) {
        // JsonCpp throws when nesting exceeds its stack limit.
        reason = "the line is not JSON the host reads: it nests too deeply";
        return false;
    }
    if (!out.isObject()) {
        reason = "the frame must be a JSON object, got " + DescribeType(out);
        return false;
    }
    if (!HoldsValidUtf8(out)) {
        reason = "the frame is not valid UTF-8: a \\u escape names half of a surrogate pair";
        return false;
    }
    return true;
}

FrameHandler::FrameHandler(bracken::ser::ServiceProxy* proxy, std::string service_name)
    : m_proxy(proxy), m_serviceName(std::move(service_name)) {}

FrameOutcome FrameHandler::Handle(const std::string& line) const {
    LineParser parser;
    return Handle(line, parser);
}

FrameOutcome FrameHandler::Handle(const std::string& line, LineParser& parser) const {
    FrameOutcome outcome;
    Json::Value frame;
    std::string reason;
    if (!parser.Parse(line, frame, reason)) {
        outcome.answer = ErrorFrame(Json::Value(), reason);
        return outcome;
    }
    const Json::Value id = frame.isMember("id") ? frame["id"] : Json::Value();
    if (frame.isMember("call")) {
        outcome.answer = m_Call(frame);
    } else if (frame.isMember("subscribe")) {
        if (frame["subscribe"].isBool() && frame["subscribe"].asBool()) {
            outcome.answer = OkFrame(id);
            outcome.subscribe = true;
        } else {
            outcome.answer = ErrorFrame(id, WrongMember("subscribe", "true", frame["subscribe"]));
        }
    } else if (frame.isMember("control")) {
        outcome.answer = m_Control(frame);
    } else {
        outcome.answer =
            ErrorFrame(id, "the frame has none of the members \"call\", \"subscribe\" and \"control\"");
    }
    return outcome;
}

Json::Value FrameHandler::m_Call(Json::Value& frame) const {
    const Json::Value& id = frame["id"];
    if (!frame["call"].isObject()) return ErrorFrame(id, WrongMember("call", "an object", frame["call"]));
    if (frame.isMember("type") && !frame["type"].isString())
        return ErrorFrame(id, WrongMember("type", "a string", frame["type"]));

    Sedge::TCMessage request;
    request.json.swap(frame["call"]);
    request.type = frame.isMember("type") ? frame["type"].asString() : kDefaultType;
    Json::Value answer(Json::objectValue);
    try {
        Sedge::TCMessage reply = m_proxy->CallAPI(request);
        answer["id"] = id;
        // A reply without any key is an empty reply.
        const bool empty = reply.json.isNull() || (reply.json.isObject() && reply.json.empty());
        answer["reply"] = empty ? Json::Value() : std::move(reply.json);
    } catch (const Json::LogicError& e) {
        // JsonCpp's own words name neither the member nor the type it found.
        const std::string reason = DescribeConversionFailure(request.json, e.what());
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "call threw: %s (%s)", e.what(), reason.c_str());
        return ErrorFrame(id, reason);
    } catch (const std::exception& e) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "call threw: %s", e.what());
        return ErrorFrame(id, e.what());
    } catch (...) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "call threw something that is no std::exception");
        return ErrorFrame(id, "the call threw an unknown exception");
    }
    return answer;
}

Json::Value FrameHandler::m_Control(const Json::Value& frame) const {
    const Json::Value& id = frame["id"];
    const Json::Value& control = frame["control"];
    if (!control.isString()) return ErrorFrame(id, WrongMember("control", "a string", control));
    const std::string name = control.asString();
    if (name == "ping") {
        Json::Value answer = OkFrame(id);
        answer["service"] = m_serviceName;
        return answer;
    }
    if (name != "power-off" && name != "wakeup")
        return ErrorFrame(id,
                          "unknown control \"" + name + "\": expected \"ping\", \"power-off\" or \"wakeup\"");
    int state = 0;
    if (frame.isMember("state")) {
        if (!frame["state"].isInt())
            return ErrorFrame(
                id, WrongMember("state", "a whole number from -2147483648 to 2147483647", frame["state"]));
        state = frame["state"].asInt();
    }
    const bool done =
        name == "power-off" ? tarvo::platform::RunPowerOff(state) : tarvo::platform::RunWakeup(state);
    if (!done) return ErrorFrame(id, "the power control " + name + " failed");
    return OkFrame(id);
}

Json::Value FrameHandler::ErrorFrame(const Json::Value& id, const std::string& reason) {
    Json::Value frame(Json::objectValue);
    frame["id"] = id;
    frame["error"] = reason;
    return frame;
}

Json::Value FrameHandler::NotificationFrame(const Sedge::TCMessage& message) {
    Json::Value frame(Json::objectValue);
    frame["notification"] = message.json;
    frame["type"] = message.type.empty() ? std::string(kDefaultType) : message.type;
    return frame;
}

std::string FrameHandler::Serialize(const Json::Value& frame) {
    thread_local rapidjson::StringBuffer buffer;
    thread_local FastWriter writer(buffer);
    buffer.Clear();
    writer.Reset(buffer);
    if (!WriteValue(frame, writer)) return SerializeWithJsonCpp(frame);
    std::string text;
    text.reserve(buffer.GetSize() + 1);
    text.assign(buffer.GetString(), buffer.GetSize());
    text += '\n';
    if (buffer.GetSize() > kKeptBufferBytes) {
        buffer.Clear();
        buffer.ShrinkToFit();
    }
    return text;
}

std::string FrameHandler::SerializeWithJsonCpp(const Json::Value& frame) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    // The module's replies may carry any bytes; a client gets valid UTF-8 whatever they are.
    std::string text = Json::writeString(builder, frame) + "\n";
    return IsValidUtf8(text) ? text : RepairUtf8(text);
}

}  // namespace host
}  // namespace tarvo
