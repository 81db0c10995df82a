// Friendly verbs that change something on the service: answers, the country code, the
// reset and the clone copies.
#include "service_session.h"
#include "verbs.h"

#include <iostream>

namespace tarvoctl {

namespace {

// Sends an agreement request on a subscribed connection and tells what the service changed:
// its change notification is written before the reply, so it has arrived with the reply.
int SendAgreements(Context& context, const Json::Value& request) {
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    if (!session.Subscribe()) return session.ExitCode();
    if (!session.Ask(request)) return session.ExitCode();
    std::vector<std::string> changed;
    for (const auto& body : session.TakeNotifications("new_disclaimer_agree_changed")) {
        const auto entries = DescribeAgreements(body["agreements"].asString());
        changed.insert(changed.end(), entries.begin(), entries.end());
    }
    if (!session.JsonOutput()) {
        if (changed.empty()) {
            std::cout << "nothing changed" << std::endl;
        } else {
            std::cout << "changed:" << std::endl;
            for (const auto& entry : changed) std::cout << "  " << entry << std::endl;
        }
    }
    return session.ExitCode();
}

int RunAgreement(Context& context, const std::vector<std::string>& args, bool agreed) {
    const auto split = SplitArguments(args, {});
    if (!split) return kExitUsage;
    if (split->positional.empty()) return UsageError("give at least one disclaimer ID");
    Json::Value request(Json::objectValue);
    request["method"] = "set agreements";
    request["agreements"] = Json::Value(Json::arrayValue);
    for (const auto& id : split->positional) {
        Json::Value item(Json::objectValue);
        item["request_item"] = id;
        item["is_agreed"] = agreed;
        request["agreements"].append(item);
    }
    return SendAgreements(context, request);
}

// Prints `done` when the reply's "result" is true; the exit code tells the rest.
int SimpleCall(Context& context, const Json::Value& request, const std::string& done,
               const std::string& refused) {
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    const auto reply = session.Ask(request);
    if (!reply) return session.ExitCode();
    if (!(*reply)["result"].asBool()) return session.Refuse(refused);
    if (!session.JsonOutput()) std::cout << done << std::endl;
    return session.ExitCode();
}

}  // namespace

int RunAgree(Context& context, const std::vector<std::string>& args) {
    return RunAgreement(context, args, true);
}

int RunDisagree(Context& context, const std::vector<std::string>& args) {
    return RunAgreement(context, args, false);
}

int RunAgreeAll(Context& context, const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("agree-all takes no arguments");
    Json::Value request(Json::objectValue);
    request["method"] = "set all agreement";
    request["is_agreed"] = true;
    return SendAgreements(context, request);
}

int RunSetCountry(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {});
    if (!split) return kExitUsage;
    if (split->positional.size() != 1) return UsageError("set-country takes one country CODE");
    Json::Value request(Json::objectValue);
    request["method"] = "set country code";
    request["country_code"] = split->positional[0];
    return SimpleCall(context, request,
                      "country code set to " + split->positional[0] + "; the next server request uses it",
                      "the country code was not taken");
}

int RunReset(Context& context, const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("reset takes no arguments");
    Json::Value request(Json::objectValue);
    request["method"] = "request reset ostrel";
    return SimpleCall(context, request,
                      "reset requested: the stored disclaimers and answers are being cleared",
                      "the reset was refused");
}

int RunClone(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {});
    if (!split) return kExitUsage;
    if (split->positional.size() != 1 ||
        (split->positional[0] != "to-usb" && split->positional[0] != "from-usb")) {
        return UsageError("clone takes to-usb or from-usb");
    }
    const bool toUsb = split->positional[0] == "to-usb";
    Json::Value request(Json::objectValue);
    request["method"] = toUsb ? "Copy Clone Data TV to USB" : "Copy Clone Data USB to TV";
    return SimpleCall(context, request,
                      toUsb ? "copied the store to the USB clone folder"
                            : "copied the USB clone to the television; it is taken at the next start",
                      toUsb ? "the copy to the USB clone folder failed (see the service log)"
                            : "the copy from the USB clone folder failed (see the service log)");
}

}  // namespace tarvoctl
