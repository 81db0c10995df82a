// Friendly verbs that change something on the service: answers, the country code, the
// reset and the clone copies.
#include "disclaimer_view.h"
#include "power_marker.h"
#include "terminal.h"
#include "verbs.h"

#include <tarvo/platform.h>
#include <vconf.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iostream>
#include <set>

namespace tarvoctl {

namespace {

std::string State(bool agreed) { return agreed ? "agreed" : "not agreed"; }

// The ids an agreement notification names ("a:true;b:false;"). A sub-link record's change names
// each linked id with ":true;" whichever way it went, so only the ids are taken from it.
std::vector<std::string> NamedIds(const std::string& text) {
    std::vector<std::string> ids;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(';', start);
        if (end == std::string::npos) end = text.size();
        const std::string entry = text.substr(start, end - start);
        const std::string id = entry.substr(0, entry.rfind(':'));
        if (!id.empty() && std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
        start = end + 1;
    }
    return ids;
}

// Sends an agreement request and tells, for each id it asked about or the service named, the
// answer before and the answer read back after the call.
int SendAgreements(Context& context, const Json::Value& request, const std::vector<std::string>& asked) {
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    if (!session.Subscribe()) return session.ExitCode();
    const auto before = Locate(session);
    if (!before) return session.ExitCode();

    std::vector<std::pair<std::string, std::string>> refused;  // id, reason
    for (const auto& id : asked) {
        if (before->records.count(id) == 0) {
            refused.emplace_back(id, "\"" + id + "\" is no disclaimer any requester lists");
        } else if (id == "main_common" || id == "sub_common") {
            refused.emplace_back(id, "\"" + id + "\" is a common item of the wizard and takes no answer");
        }
    }
    if (!refused.empty()) {
        for (const auto& [id, reason] : refused) {
            if (session.JsonOutput()) {
                Json::Value out(Json::objectValue);
                out["id"] = id;
                out["error"] = reason;
                PrintDocument(out);
            }
            Fail(reason);
        }
        return Fail("nothing was sent" + KnownIdsWords(*before, refused.front().first) +
                    ClosedStoreNote(context.SocketPath()));
    }

    if (!session.Ask(request)) return session.ExitCode();
    std::vector<std::string> ids = asked;
    // The change notification is written before the reply, so it has arrived with the reply.
    for (const auto& body : session.TakeNotifications("new_disclaimer_agree_changed")) {
        for (const auto& id : NamedIds(body["agreements"].asString())) {
            if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
        }
    }
    const auto after = Locate(session);
    if (!after) return session.ExitCode();

    std::vector<std::vector<std::string>> rows;
    int changed = 0;
    for (const auto& id : ids) {
        const auto was = before->records.find(id);
        const auto now = after->records.find(id);
        if (now == after->records.end()) continue;
        const bool was_agreed = was != before->records.end() && was->second["is_agreed"].asBool();
        const bool is_agreed = now->second["is_agreed"].asBool();
        changed += was_agreed != is_agreed ? 1 : 0;
        if (session.JsonOutput()) {
            Json::Value out(Json::objectValue);
            out["id"] = id;
            out["was_agreed"] = was_agreed;
            out["is_agreed"] = is_agreed;
            out["changed"] = was_agreed != is_agreed;
            PrintDocument(out);
        }
        rows.push_back({id, State(was_agreed), State(is_agreed)});
    }
    if (session.JsonOutput()) return session.ExitCode();
    if (rows.empty()) {
        std::cout << "nothing changed" << std::endl;
        return session.ExitCode();
    }
    PrintTable({"ID", "BEFORE", "NOW"}, rows);
    std::cout << (changed == 0
                      ? std::string("nothing changed")
                      : std::to_string(changed) + (changed == 1 ? " answer" : " answers") + " changed")
              << std::endl;
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
    return SendAgreements(context, request, split->positional);
}

// Sends `request`; `done` when the reply's "result" is true. Under --json one document with
// "result" and "message".
int SimpleCall(Context& context, const Json::Value& request, const std::string& done,
               const std::string& refused, Json::Value document = Json::Value(Json::objectValue)) {
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    const auto reply = session.Ask(request);
    if (!reply) return session.ExitCode();
    const bool result = (*reply)["result"].asBool();
    if (session.JsonOutput()) {
        document["result"] = result;
        document["message"] = result ? done : refused;
        PrintDocument(document);
    }
    if (!result) return session.Refuse(refused);
    if (!session.JsonOutput()) PrintWrapped(done, "");
    return session.ExitCode();
}

// The codes of the country list the service holds, else of the one the television would hand it.
std::vector<std::string> KnownCountries(Context& context, std::string& source) {
    std::vector<std::string> codes;
    ServiceSession session(context);
    if (session.Open()) {
        if (const auto reply = session.AskMethod("get country code list"); reply && reply->isObject()) {
            for (const auto& country : (*reply)["countries"])
                codes.push_back(country["country_code"].asString());
            source = "the service's country list";
            return codes;
        }
    }
    const auto profile = tarvo::platform::LoadDeviceProfile();
    if (profile && (*profile)["country_list"]["rsp"]["countriesList"].isArray()) {
        for (const auto& country : (*profile)["country_list"]["rsp"]["countriesList"]) {
            if (country["countryCode"].isString()) codes.push_back(country["countryCode"].asString());
        }
        source = "the television's country list";
    }
    return codes;
}

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) text += (text.empty() ? "" : ", ") + word;
    return text;
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
    return SendAgreements(context, request, {});
}

int RunSetCountry(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {});
    if (!split) return kExitUsage;
    if (split->positional.size() != 1) return UsageError("set-country takes one country CODE");
    const std::string& code = split->positional[0];
    const bool two_capitals = code.size() == 2 && std::isupper(static_cast<unsigned char>(code[0])) &&
                              std::isupper(static_cast<unsigned char>(code[1]));
    if (!two_capitals) {
        return UsageError("a country CODE is two capital letters, such as US or DE (not \"" + code + "\")");
    }
    context.UsePlatformRoot();
    char* stored = vconf_get_str("db/nimbra/countrycode");
    const std::string previous = stored != nullptr ? stored : "";
    std::free(stored);
    std::string source;
    const auto known = KnownCountries(context, source);
    const bool listed = std::find(known.begin(), known.end(), code) != known.end();
    if (source.empty()) {
        Fail("warning: the television has no country list to check " + code + " against", kExitDone);
    } else if (!listed) {
        Fail("warning: " + code + " is not in " + source + " (" + Joined(known) +
                 "); the service takes it all the same, and the server may have no disclaimers for it",
             kExitDone);
    }
    Json::Value document(Json::objectValue);
    document["country_code"] = code;
    document["previous"] = previous;
    document["in_country_list"] = listed;
    std::string done = "country code set to " + code + (previous.empty() ? "" : " (was " + previous + ")");
    if (previous != code) {
        done +=
            "\nThe next update asks the server for " + code +
            "; when the stored disclaimers are for another country, the service first clears every stored "
            "disclaimer and answer.";
    }
    Json::Value request(Json::objectValue);
    request["method"] = "set country code";
    request["country_code"] = code;
    return SimpleCall(context, request, done, "the country code was not taken", document);
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
    Json::Value document(Json::objectValue);
    document["clone"] = split->positional[0];
    return SimpleCall(context, request,
                      toUsb ? "copied the store to the USB clone folder"
                            : "copied the USB clone to the television; it is taken at the next start",
                      toUsb ? "the copy to the USB clone folder failed (see tarvoctl log)"
                            : "the copy from the USB clone folder failed (see tarvoctl log)",
                      document);
}

}  // namespace tarvoctl
