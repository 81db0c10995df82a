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
    double seconds = kDefaultUpdateTimeout;
    if (auto it = split->options.find("--timeout"); it != split->options.end()) {
        const auto parsed = ParseDouble(it->second);
        if (!parsed || *parsed < 0) return UsageError("--timeout needs a number of seconds");
        seconds = *parsed;
    }

    {
        ServiceSession session(context);
        if (!session.Open()) return session.ExitCode();
        if (!session.Subscribe()) return session.ExitCode();
        Json::Value request(Json::objectValue);
        request["method"] = "request update disclaimers";
        request["request_from"] = from != split->options.end() ? from->second : std::string("tarvoctl");
        if (!session.Ask(request)) return session.ExitCode();
        const auto done =
            session.WaitForNotification("new_disclaimer_got", "the disclaimers",
                                        std::chrono::milliseconds(static_cast<long long>(seconds * 1000.0)));
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
