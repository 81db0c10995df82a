// Friendly verbs that read from the service: status, list, show, revised and countries.
#include "service_session.h"
#include "verbs.h"

#include <iostream>

namespace tarvoctl {

namespace {

// Requesters of the ordered lists, with the names people know them by.
const struct {
    int value;
    const char* name;
} kRequesters[] = {{0, "menu"}, {1, "app"}, {2, "pnp"}, {3, "none"}, {4, "all"}};

// Shown when --requester is not given: every available disclaimer, in display order.
constexpr int kDefaultRequester = 4;
// A little longer than the service's own 90-second limit for a server request.
constexpr double kDefaultCountriesTimeout = 100.0;

std::vector<std::string> DisclaimerRow(const Json::Value& d) {
    return {std::to_string(d["order"].asInt()),
            d["id"].asString(),
            d["version"].asString(),
            YesNo(d["is_agreed"].asBool()),
            YesNo(d["only_notice"].asBool()),
            d["title"].asString()};
}

const std::vector<std::string> kDisclaimerHeader = {"ORDER", "ID", "VERSION", "AGREED", "NOTICE", "TITLE"};

void PrintDisclaimer(const Json::Value& d) {
    auto field = [](const char* label, const std::string& value) {
        std::cout << label << std::string(18 - std::string(label).size(), ' ') << value << "\n";
    };
    field("id", d["id"].asString());
    field("order", std::to_string(d["order"].asInt()));
    field("version", d["version"].asString());
    field("title", d["title"].asString());
    field("agreed", YesNo(d["is_agreed"].asBool()));
    field("only notice", YesNo(d["only_notice"].asBool()));
    field("pp used", YesNo(d["ppused"].asBool()));
    field("reverse", YesNo(d["reverse"].asBool()));
    field("agree dependency", d["agree_dependency"].asString());
    for (int i = 1; i <= 10; ++i) {
        const std::string key = "button" + std::to_string(i);
        if (!d[key].asString().empty()) field(key.c_str(), d[key].asString());
    }
    for (const char* block : {"intro", "details"}) {
        std::cout << block << ":\n";
        const std::string text = d[block].asString();
        size_t start = 0;
        while (start < text.size()) {
            const size_t end = std::min(text.find('\n', start), text.size());
            std::cout << "  " << text.substr(start, end - start) << "\n";
            start = end + 1;
        }
    }
    std::cout << std::flush;
}

}  // namespace

int RunStatus(Context& context, const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("status takes no arguments");
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    const auto available = session.AskMethod("is service available");
    if (!available) return session.ExitCode();

    std::string numbers;
    for (const auto& requester : kRequesters) {
        Json::Value request(Json::objectValue);
        request["method"] = "get disclaimer number";
        request["requester"] = requester.value;
        const auto reply = session.Ask(request);
        if (!reply) return session.ExitCode();
        numbers += std::string(numbers.empty() ? "" : ", ") + requester.name + " " +
                   std::to_string((*reply)["number"].asUInt());
    }
    const auto revised = session.AskMethod("get revised disclaimers");
    if (!revised) return session.ExitCode();

    if (!session.JsonOutput()) {
        std::cout << "service available   " << YesNo((*available)["result"].asBool()) << "\n"
                  << "disclaimers         " << numbers << "\n"
                  << "revised             " << (*revised)["disclaimers"].size() << std::endl;
    }
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
    Json::Value request(Json::objectValue);
    request["method"] = "get disclaimer number";
    request["requester"] = requester;
    const auto number = session.Ask(request);
    if (!number) return session.ExitCode();

    std::vector<std::vector<std::string>> rows;
    request["method"] = "get disclaimer by order";
    for (Json::UInt i = 0; i < (*number)["number"].asUInt(); ++i) {
        request["request_index"] = i;
        const auto reply = session.Ask(request);
        if (!reply) return session.ExitCode();
        // A record withdrawn since the count was taken answers false: left out, and the exit code says so.
        if ((*reply)["result"].asBool()) rows.push_back(DisclaimerRow(*reply));
    }
    if (!session.JsonOutput()) {
        if (rows.empty()) {
            std::cout << "no disclaimers for requester " << requester << std::endl;
        } else {
            PrintTable(kDisclaimerHeader, rows);
        }
    }
    return session.ExitCode();
}

int RunShow(Context& context, const std::vector<std::string>& args) {
    const auto split = SplitArguments(args, {});
    if (!split) return kExitUsage;
    if (split->positional.size() != 1) return UsageError("show takes one disclaimer ID");
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    Json::Value request(Json::objectValue);
    request["method"] = "get disclaimer by term id";
    request["request_item"] = split->positional[0];
    const auto reply = session.Ask(request);
    if (!reply) return session.ExitCode();
    if (!(*reply)["result"].asBool()) {
        return session.Refuse("no available disclaimer \"" + split->positional[0] + "\"");
    }
    if (!session.JsonOutput()) PrintDisclaimer(*reply);
    return session.ExitCode();
}

int RunRevised(Context& context, const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("revised takes no arguments");
    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    const auto reply = session.AskMethod("get revised disclaimers");
    if (!reply) return session.ExitCode();
    if (session.JsonOutput()) return session.ExitCode();
    const Json::Value& disclaimers = (*reply)["disclaimers"];
    if (disclaimers.empty()) {
        std::cout << "no revised disclaimers" << std::endl;
        return session.ExitCode();
    }
    std::vector<std::vector<std::string>> rows;
    for (const auto& d : disclaimers) rows.push_back(DisclaimerRow(d));
    PrintTable(kDisclaimerHeader, rows);
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
        if (!session.Subscribe()) return session.ExitCode();
        if (!session.AskMethod("request country code list")) return session.ExitCode();
        const auto done = session.WaitForNotification("new_country_list_got", "the country list", *timeout);
        if (!done) return session.ExitCode();
        if ((*done)["result"] != "success") {
            return session.Refuse("the country list could not be fetched (error_code " +
                                  CompactJson((*done)["error_code"]) + ", error_reason " +
                                  CompactJson((*done)["error_reason"]) + ")");
        }
    }
    const auto reply = session.AskMethod("get country code list");
    if (!reply) return session.ExitCode();
    if (session.JsonOutput()) return session.ExitCode();
    if (reply->isNull()) {
        std::cout << "no country list yet" << (refresh ? "" : " (fetch one with --refresh)") << std::endl;
        return session.ExitCode();
    }
    std::vector<std::vector<std::string>> rows;
    for (const auto& country : (*reply)["countries"]) {
        rows.push_back({country["country_code"].asString(), country["country_name"].asString()});
    }
    PrintTable({"CODE", "NAME"}, rows);
    return session.ExitCode();
}

}  // namespace tarvoctl
