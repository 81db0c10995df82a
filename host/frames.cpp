#include "frames.h"

#include <dlog.h>
#include <tarvo/platform.h>

#include <exception>
#include <memory>
#include <utility>

namespace tarvo {
namespace host {

namespace {

constexpr const char* kLogTag = "TarvoHost";
constexpr const char* kDefaultType = "tarvodatacontrol";

bool ParseObject(const std::string& line, Json::Value& out, std::string& reason) {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        if (!reader->parse(line.data(), line.data() + line.size(), &out, &errors)) {
            reason = "not JSON: " + errors;
            return false;
        }
    } catch (const std::exception& e) {
        // JsonCpp throws when nesting exceeds its stack limit.
        reason = std::string("not JSON: ") + e.what();
        return false;
    }
    if (!out.isObject()) {
        reason = "not a JSON object";
        return false;
    }
    return true;
}

Json::Value OkFrame(const Json::Value& id) {
    Json::Value frame(Json::objectValue);
    frame["id"] = id;
    frame["ok"] = true;
    return frame;
}

}  // namespace

FrameHandler::FrameHandler(bracken::ser::ServiceProxy* proxy, std::string service_name)
    : m_proxy(proxy), m_serviceName(std::move(service_name)) {}

FrameOutcome FrameHandler::Handle(const std::string& line) const {
    FrameOutcome outcome;
    Json::Value frame;
    std::string reason;
    if (!ParseObject(line, frame, reason)) {
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
            outcome.answer = ErrorFrame(id, "\"subscribe\" must be true");
        }
    } else if (frame.isMember("control")) {
        outcome.answer = m_Control(frame);
    } else {
        outcome.answer = ErrorFrame(id, "unknown frame: expected \"call\", \"subscribe\" or \"control\"");
    }
    return outcome;
}

Json::Value FrameHandler::m_Call(const Json::Value& frame) const {
    const Json::Value& id = frame["id"];
    if (!frame["call"].isObject()) return ErrorFrame(id, "\"call\" must be a JSON object");
    if (frame.isMember("type") && !frame["type"].isString())
        return ErrorFrame(id, "\"type\" must be a string");

    Sedge::TCMessage request;
    request.json = frame["call"];
    request.type = frame.isMember("type") ? frame["type"].asString() : kDefaultType;
    Sedge::TCMessage reply;
    try {
        reply = m_proxy->CallAPI(request);
    } catch (const std::exception& e) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "call threw: %s", e.what());
        return ErrorFrame(id, e.what());
    } catch (...) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "call threw something that is no std::exception");
        return ErrorFrame(id, "the call threw an unknown exception");
    }
    Json::Value answer(Json::objectValue);
    answer["id"] = id;
    // A reply without any key is an empty reply.
    const bool empty = reply.json.isNull() || (reply.json.isObject() && reply.json.empty());
    answer["reply"] = empty ? Json::Value() : reply.json;
    return answer;
}

Json::Value FrameHandler::m_Control(const Json::Value& frame) const {
    const Json::Value& id = frame["id"];
    const Json::Value& control = frame["control"];
    if (!control.isString()) return ErrorFrame(id, "\"control\" must be a string");
    const std::string name = control.asString();
    if (name == "ping") {
        Json::Value answer = OkFrame(id);
        answer["service"] = m_serviceName;
        return answer;
    }
    if (name != "power-off" && name != "wakeup") return ErrorFrame(id, "unknown control \"" + name + "\"");
    int state = 0;
    if (frame.isMember("state")) {
        if (!frame["state"].isInt()) return ErrorFrame(id, "\"state\" must be an integer");
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
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, frame) + "\n";
}

}  // namespace host
}  // namespace tarvo
