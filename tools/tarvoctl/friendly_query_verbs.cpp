// Friendly verbs that read from the service: status, list, show, revised and countries.
#include "disclaimer_view.h"
#include "outcome_words.h"
#include "power_marker.h"
#include "service_log.h"
#include "verbs.h"

#include <iostream>

namespace tarvoctl {

namespace {

// Shown when --requester is not given: every available disclaimer, in display order.
constexpr int kDefaultRequester = 4;
// A little longer than the service's own 90-second limit for a server request.
constexpr double kDefaultCountriesTimeout = 100.0;

}  // namespace

int RunStatus(Context& context, const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("status takes no arguments");
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    const auto available = session.AskMethod("is service available");
    if (!available) return session.ExitCode();

    Json::Value document(Json::objectValue);
    document["service_available"] = (*available)["result"].asBool();
    std::string numbers;
    for (const auto& requester : Requesters()) {
        Json::Value request(Json::objectValue);
        request["method"] = "get disclaimer number";
        request["requester"] = requester.value;
        const auto reply = session.Ask(request);
        if (!reply) return session.ExitCode();
        const Json::UInt number = (*reply)["number"].asUInt();
        document["disclaimers"][requester.name] = number;
        numbers += std::string(numbers.empty() ? "" : ", ") + requester.name + " " + std::to_string(number);
    }
    const auto revised = session.AskMethod("get revised disclaimers");
    if (!revised) return session.ExitCode();
    document["revised"] = Json::Value(Json::arrayValue);
    for (const auto& d : (*revised)["disclaimers"]) document["revised"].append(d["id"]);

    const auto closed = StoreClosedMark(context.SocketPath());
    document["store_open"] = !closed.has_value();
    std::string store = "open";
    if (closed) {
        document["store_closed_by"] = *closed;
        document["store_closed_by"].removeMember("socket_identity");
        store = "closed since 'power off " + std::to_string((*closed)["state"].asInt()) + "' at " +
                (*closed)["at"].asString() +
                ": the lists are empty and answers given now are not kept; a restart of the service "
                "(tarvo-service-host) opens it";
    }
    context.UsePlatformRoot();
    const NetworkState network = ReadNetworkState();
    document["network_up"] = network.up;
    document["network_profile"] = network.profile;
    if (session.JsonOutput()) {
        PrintDocument(document);
        return session.ExitCode();
    }
    std::cout << "service available   " << YesNo(document["service_available"].asBool()) << "\n"
              << "store               " << store << "\n"
              << "network             " << NetworkWords(network) << "\n"
              << "disclaimers         " << numbers << "\n"
              << "revised             " << document["revised"].size() << std::endl;
    return session.ExitCode();
}

int RunList(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {"--requester"});
    if (!split) return kExitUsage;
    if (!split->positional.empty()) return UsageError("list takes no arguments but --requester");
    int requester = kDefaultRequester;
    if (auto it = split->options.find("--requester"); it != split->options.end()) {
        const auto parsed = ParseInt(it->second);
        if (!parsed) return UsageError("--requester needs an integer (0 menu, 1 app, 2 pnp, 3 none, 4 all)");
        requester = *parsed;
    }
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    const auto placement = Locate(session);
    if (!placement) return session.ExitCode();
    std::vector<Json::Value> disclaimers;
    if (const auto it = placement->lists.find(requester); it != placement->lists.end()) {
        disclaimers = it->second;
    } else if (auto collected = CollectDisclaimers(session, requester)) {
        disclaimers = std::move(*collected);
    } else {
        return session.ExitCode();
    }
    if (session.JsonOutput()) {
        for (const auto& d : disclaimers) PrintDocument(DisclaimerDocument(d, *placement));
    } else if (disclaimers.empty()) {
        std::cout << "no disclaimers for requester " << requester << ClosedStoreNote(context.SocketPath())
                  << std::endl;
    } else {
        PrintDisclaimerTable(disclaimers, *placement);
    }
    return session.ExitCode();
}

int RunShow(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {});
    if (!split) return kExitUsage;
    if (split->positional.size() != 1) return UsageError("show takes one disclaimer ID");
    const std::string& id = split->positional[0];
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    Json::Value request(Json::objectValue);
    request["method"] = "get disclaimer by term id";
    request["request_item"] = id;
    const auto reply = session.Ask(request);
    if (!reply) return session.ExitCode();
    const auto placement = Locate(session);
    if (!placement) return session.ExitCode();
    Json::Value disclaimer = *reply;
    // The common items are not available for the lookup by id, yet requester 2 lists them.
    if (!disclaimer["result"].asBool()) {
        const auto found = placement->records.find(id);
        if (found == placement->records.end()) {
            return session.Refuse("no disclaimer \"" + id + "\"" + KnownIdsWords(*placement, id) +
                                  ClosedStoreNote(context.SocketPath()));
        }
        disclaimer = found->second;
    }
    // Found after all: a false "result" of the lookup is no failure of this verb.
    if (session.JsonOutput()) {
        PrintDocument(DisclaimerDocument(disclaimer, *placement));
    } else {
        PrintDisclaimerPage(disclaimer, *placement);
    }
    return kExitDone;
}

int RunRevised(Context& context, const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("revised takes no arguments");
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    const auto reply = session.AskMethod("get revised disclaimers");
    if (!reply) return session.ExitCode();
    const auto placement = Locate(session);
    if (!placement) return session.ExitCode();
    std::vector<Json::Value> disclaimers;
    for (const auto& d : (*reply)["disclaimers"]) disclaimers.push_back(d);
    if (session.JsonOutput()) {
        for (const auto& d : disclaimers) PrintDocument(DisclaimerDocument(d, *placement));
    } else if (disclaimers.empty()) {
        std::cout << "no revised disclaimers" << std::endl;
    } else {
        PrintDisclaimerTable(disclaimers, *placement);
    }
    return session.ExitCode();
}

int RunCountries(Context& context, const std::vector<std::string>& args) {
    // --refresh is a flag, so it is taken out before the valued options are split.
    std::vector<std::string> rest;
    bool refresh = false;
    for (const auto& word : args) {
        if (word == "--refresh") {
            refresh = true;
        } else {
            rest.push_back(word);
        }
    }
    const auto split = SplitArguments(rest, {"--timeout"});
    if (!split) return kExitUsage;
    if (!split->positional.empty()) return UsageError("countries takes --refresh and --timeout S only");
    const auto timeout = ReadTimeout(*split, kDefaultCountriesTimeout);
    if (!timeout) return kExitUsage;
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    if (refresh) {
        LogCursor log(context.Root() + "/var/log/tarvo.log");
        if (!session.Subscribe()) return session.ExitCode();
        if (!session.AskMethod("request country code list")) return session.ExitCode();
        const auto done = session.WaitForNotification("new_country_list_got", *timeout,
                                                      [] { return std::string("the country list"); });
        if (!done) return session.ExitCode();
        if ((*done)["result"] != "success") {
            const std::string words = DescribeCountryListFailure(*done, log.ReadService());
            if (session.JsonOutput()) {
                Json::Value out(Json::objectValue);
                out["error"] = words;
                out["notification"] = *done;
                PrintDocument(out);
            }
            return session.Refuse(words);
        }
    }
    const auto reply = session.AskMethod("get country code list");
    if (!reply) return session.ExitCode();
    if (reply->isNull()) {
        if (!session.JsonOutput()) {
            std::cout << "no country list yet" << (refresh ? "" : " (fetch one with --refresh)") << std::endl;
        }
        return session.ExitCode();
    }
    std::vector<std::vector<std::string>> rows;
    for (const auto& country : (*reply)["countries"]) {
        if (session.JsonOutput()) PrintDocument(country);
        rows.push_back({country["country_code"].asString(), country["country_name"].asString()});
    }
    if (!session.JsonOutput()) PrintTable({"CODE", "NAME"}, rows);
    return session.ExitCode();
}

}  // namespace tarvoctl
