// The update verb: asks the service to bring its disclaimers up to date, waits for the outcome
// and lists what the store then holds.
#include "service_session.h"
#include "verbs.h"

#include <iostream>

namespace tarvoctl {

namespace {

// The service may wait 90 seconds for the device values and as long again for one server request.
constexpr double kDefaultUpdateTimeout = 200.0;

}  // namespace

int RunUpdate(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {"--from", "--timeout"});
    if (!split) return kExitUsage;
    if (!split->positional.empty()) return UsageError("update takes --from PAGE and --timeout S only");
    const auto from = split->options.find("--from");
    const auto timeout = ReadTimeout(*split, kDefaultUpdateTimeout);
    if (!timeout) return kExitUsage;

    {
        ServiceSession session(context);
        if (!session.Open()) return session.ExitCode();
        if (!session.Subscribe()) return session.ExitCode();
        Json::Value request(Json::objectValue);
        request["method"] = "request update disclaimers";
        request["request_from"] = from != split->options.end() ? from->second : std::string("tarvoctl");
        if (!session.Ask(request)) return session.ExitCode();
        const auto done = session.WaitForNotification("new_disclaimer_got", "the disclaimers", *timeout);
        if (!done) return session.ExitCode();
        if ((*done)["result"] != "success") {
            return session.Refuse("the disclaimers could not be updated (error_code " +
                                  CompactJson((*done)["error_code"]) + ", error_reason " +
                                  CompactJson((*done)["error_reason"]) + ")");
        }
        if (session.ExitCode() != kExitDone) return session.ExitCode();
    }
    return RunList(context, {});
}

}  // namespace tarvoctl
