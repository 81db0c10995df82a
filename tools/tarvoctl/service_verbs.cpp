// Verbs that reach the service through the host's socket.
#include "power_marker.h"
#include "verbs.h"
#include "wait_options.h"

#include <algorithm>
#include <iostream>
#include <memory>

namespace tarvoctl {

namespace {

// A power-off state with this bit leaves the service's store open.
constexpr int kKeepStoreOpen = 0x40000000;

// The methods whose reply is empty by design: their outcome comes as a notification, or (the
// country list) an empty reply says that there is no list.
bool AnswersWithNothing(const std::string& method) {
    static const char* const kMethods[] = {"request country code list", "set agreements", "set all agreement",
                                           "get country code list"};
    return std::any_of(std::begin(kMethods), std::end(kMethods), [&](const char* m) { return method == m; });
}

// Prints an answer that reports failure; returns kExitRefused.
int ReportRefusal(const Context& context, const Json::Value& answer) {
    if (context.json) {
        Json::Value out(Json::objectValue);
        if (answer.isMember("error")) {
            out["error"] = answer["error"];
        } else {
            out = answer["reply"];
        }
        std::cout << CompactJson(out) << std::endl;
    } else if (answer.isMember("reply")) {
        std::cout << PrettyJson(answer["reply"]) << std::endl;
    }
    if (answer.isMember("error")) return Fail("the service failed: " + answer["error"].asString());
    return Fail("the service said no");
}

int RunPower(Context& context, const std::vector<std::string>& args, const std::string& control) {
    const auto split = SplitArguments(args, {});
    if (!split) return kExitUsage;
    if (split->positional.size() > 1) return UsageError("power takes at most one STATE");
    int state = 0;
    if (!split->positional.empty()) {
        const auto parsed = ParseInt(split->positional[0]);
        if (!parsed) return UsageError("STATE must be an integer");
        state = *parsed;
    }
    auto client = context.Connect();
    if (!client) return kExitNoService;
    const auto answer = client->Control(control, state);
    if (!answer) return LostService(context);
    if (answer->isMember("error")) return ReportRefusal(context, *answer);
    const bool closes_store = control == "power-off" && (state & kKeepStoreOpen) == 0;
    if (closes_store) MarkStoreClosed(context.SocketPath(), state);
    if (context.json) {
        Json::Value out(Json::objectValue);
        out["ok"] = true;
        out["control"] = control;
        out["state"] = state;
        if (control == "power-off") out["store_closed"] = closes_store;
        std::cout << CompactJson(out) << std::endl;
    } else {
        std::cout << control << " " << state << " done" << std::endl;
        if (closes_store) {
            std::cout
                << "the service closed its store as on a real power-off: until a restart of the service "
                   "(tarvo-service-host) opens it, the lists are empty and answers given are not kept "
                   "('power off 1073741824' keeps it open)"
                << std::endl;
        }
    }
    return kExitDone;
}

void PrintNotification(const Context& context, const Json::Value& frame) {
    if (context.json) {
        std::cout << CompactJson(frame) << std::endl;
        return;
    }
    const Json::Value& body = frame["notification"];
    if (body.isObject() && body["name"].isString()) {
        std::cout << body["name"].asString();
        if (body["result"].isString()) std::cout << " (" << body["result"].asString() << ")";
        std::cout << ": ";
    }
    std::cout << CompactJson(body) << std::endl;
}

}  // namespace

int RunCall(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {"--type"});
    if (!split) return kExitUsage;
    if (split->positional.size() != 1) return UsageError("call takes one JSON object");
    const std::string& text = split->positional[0];
    Json::Value parsed;
    std::string why;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &why)) {
        // JsonCpp's "* Line 1, Column 2\n  Missing '}'..." on one line.
        std::string reason;
        for (char c : why) {
            if (c == '\n') {
                reason += ": ";
            } else if (c != '*' && !(c == ' ' && (reason.empty() || reason.back() == ' '))) {
                reason += c;
            }
        }
        while (!reason.empty() && (reason.back() == ' ' || reason.back() == ':')) reason.pop_back();
        return UsageError("the request is not valid JSON (" + reason + ")");
    }
    if (!parsed.isObject())
        return UsageError("the request is valid JSON but not an object: it must be {\"method\": ...}");
    const std::optional<Json::Value> request = parsed;
    const auto type = split->options.count("--type") ? split->options.at("--type") : std::string();

    auto client = context.Connect();
    if (!client) return kExitNoService;
    const auto answer = client->Call(*request, type);
    if (!answer) return LostService(context);
    if (IsRefusal(*answer)) return ReportRefusal(context, *answer);
    const Json::Value& reply = (*answer)["reply"];
    if (reply.isNull() && !request->isMember("method")) {
        const std::string words =
            "no reply: the request has no \"method\" member (the service reads a missing method as \"\", "
            "which names no method)";
        if (context.json) {
            Json::Value out(Json::objectValue);
            out["reply"] = Json::Value();
            out["error"] = words;
            std::cout << CompactJson(out) << std::endl;
        }
        return Fail(words);
    }
    if (reply.isNull()) {
        const Json::Value& named = (*request)["method"];
        const std::string method = named.isString() ? named.asString() : CompactJson(named);
        const bool by_design = AnswersWithNothing(method);
        const std::string words = by_design
                                      ? "no reply: \"" + method + "\" answers with nothing" +
                                            (method == "get country code list"
                                                 ? " while the service holds no country list"
                                                 : "; its outcome comes as a notification (tarvoctl listen)")
                                      : "no reply (unknown method or a method without a reply): \"" + method +
                                            "\" is none of the service's methods (see docs/API.md)";
        if (context.json) {
            Json::Value out(Json::objectValue);
            out["reply"] = Json::Value();
            out[by_design ? "note" : "error"] = words;
            std::cout << CompactJson(out) << std::endl;
        }
        return Fail(words, by_design ? kExitDone : kExitRefused);
    }
    std::cout << (context.json ? CompactJson(reply) : PrettyJson(reply)) << std::endl;
    return kExitDone;
}

int RunListen(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {"--count", "--timeout"});
    if (!split) return kExitUsage;
    if (!split->positional.empty()) return UsageError("listen takes no arguments");
    const auto wait = ReadWaitOptions(*split);
    if (!wait) return kExitUsage;

    auto client = context.Connect();
    if (!client) return kExitNoService;
    CatchInterrupts();
    if (!client->Subscribe()) return LostService(context);
    if (!context.json) std::cerr << "listening on " << context.SocketPath() << std::endl;

    int seen = 0;
    while (!Interrupted() && !wait->Expired() && (!wait->count || seen < *wait->count)) {
        const auto frame = client->ReadFrame(wait->Left());
        if (!frame) {
            if (client->Closed()) return LostService(context);
            continue;
        }
        if (!frame->isMember("notification")) continue;
        PrintNotification(context, *frame);
        ++seen;
    }
    return wait->Finish(seen, "notifications");
}

int RunPing(Context& context, const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("ping takes no arguments");
    auto client = context.Connect();
    if (!client) return kExitNoService;
    const auto answer = client->Control("ping");
    if (!answer) return LostService(context);
    if (answer->isMember("error")) return ReportRefusal(context, *answer);
    const Json::Value& name = (*answer)["service"];
    const std::string service = name.isString() ? name.asString() : std::string("the service");
    if (context.json) {
        Json::Value out(Json::objectValue);
        out["ok"] = true;
        out["service"] = service;
        out["socket"] = context.SocketPath();
        std::cout << CompactJson(out) << std::endl;
    } else {
        std::cout << service << " is running at " << context.SocketPath() << std::endl;
    }
    return kExitDone;
}

int RunPowerOff(Context& context, const std::vector<std::string>& args) {
    return RunPower(context, args, "power-off");
}

int RunPowerWakeup(Context& context, const std::vector<std::string>& args) {
    return RunPower(context, args, "wakeup");
}

}  // namespace tarvoctl
