// The update verb: asks the service to bring its disclaimers up to date (after a wake-up, when
// asked to), waits for the outcome, tells from the service's log where the answer came from,
// and lists what the store then holds.
#include "disclaimer_view.h"
#include "outcome_words.h"
#include "power_marker.h"
#include "revision_words.h"
#include "service_log.h"
#include "terminal.h"
#include "verbs.h"

#include <iostream>
#include <thread>

namespace tarvoctl {

namespace {

// The service may wait 90 seconds for the device values and as long again for one server request.
constexpr double kDefaultUpdateTimeout = 200.0;
// How long a wake-up may take to reach the service's worker before it counts as having started nothing.
constexpr std::chrono::seconds kWakeupStart{5};
// How long a service that is still starting may take to make its info service.
constexpr std::chrono::seconds kServiceStart{20};

const char* const kHowNewVersionsCome =
    "A newly published version reaches the stored set at a wake-up (tarvoctl update --wakeup), at the "
    "service's start, or when the language or the country changes.";

// What is awaited now, for the progress line.
std::string Awaited(const RunReport& report) {
    if (report.waited_for_values) {
        const auto missing = MissingDeviceValues(true);
        if (!missing.empty()) return "device values missing: " + NameValues(missing);
        return "the service to notice the device values";
    }
    if (!report.steps.empty()) return "the server (" + report.steps.back() + ")";
    return "the disclaimers";
}

// Sends the wake-up control and waits until the run it starts has ended, so that the request
// after it sees what the run stored. False when the wait ended the verb.
bool WakeUp(ServiceSession& session, LogCursor& log, std::chrono::steady_clock::time_point deadline,
            RunReport& wake) {
    if (!session.Control("wakeup", 0)) return false;
    Progress progress(
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()));
    const auto sent = std::chrono::steady_clock::now();
    bool network_down = false, started = false;
    CatchInterrupts();
    while (!Interrupted() && std::chrono::steady_clock::now() < deadline) {
        const auto entries = log.ReadService();
        network_down = network_down || Contains(entries, "network connect fail!");
        started = started || Contains(entries, "MESSAGE_KELVANE_INFO_SERVICE_START_FACTORY requester type 2");
        ReadRun(entries, wake);
        if (network_down || (started && (wake.run_ended || wake.waited_for_values))) break;
        if (!started && std::chrono::steady_clock::now() - sent > kWakeupStart) break;
        progress.Show("the wake-up's run (" + Awaited(wake) + ")");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    progress.Clear();
    if (Interrupted()) {
        session.Refuse("interrupted while waiting for the wake-up's run");
        return false;
    }
    if (network_down) {
        wake.steps.push_back(
            "the network is down, so the wake-up fetched nothing (it fetches when the network "
            "comes up)");
    } else if (!started) {
        wake.steps.push_back("the wake-up started no run (see tarvoctl log)");
    } else if (wake.waited_for_values) {
        wake.steps.push_back("the wake-up's run waits for device values: " +
                             NameValues(MissingDeviceValues(true)));
    }
    return true;
}

void PrintSteps(const char* title, const std::vector<std::string>& steps) {
    if (steps.empty()) return;
    std::cout << title << "\n";
    const size_t width = OutputWidth() > 14 ? OutputWidth() - 4 : 10;
    for (const auto& step : steps) {
        const auto lines = Wrap(step, width);
        for (size_t i = 0; i < lines.size(); ++i) std::cout << (i == 0 ? "  - " : "    ") << lines[i] << "\n";
    }
}

// Where the answer came from, in words.
std::string Source(const RunReport& report) {
    if (report.from_store) {
        return "answered from the stored set (country " + (report.country.empty() ? "?" : report.country) +
               ", language " + (report.locale.empty() ? "?" : report.locale) +
               "): while country and language stay as they are, the service asks the server nothing.";
    }
    if (report.fetched) {
        std::string why = report.why_fetched;
        if (why.empty()) {
            why = report.country.empty() ? "no country is set"
                                         : "the store held no disclaimers of this country";
        }
        if (report.failed) return "asked the server, because " + why + "; the run failed (see below).";
        return "fetched now, because " + why + ".";
    }
    return "the service's log does not tell where the answer came from.";
}

// A request that arrives before the service has made its info service is dropped without a
// notification, so the request waits until "is service available" says true. False when the
// wait ended the verb.
bool WaitUntilAvailable(ServiceSession& session, std::chrono::steady_clock::time_point deadline) {
    const auto until = std::min(deadline, std::chrono::steady_clock::now() + kServiceStart);
    Progress progress(
        std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()));
    CatchInterrupts();
    for (;;) {
        const auto available = session.AskQuestion("is service available");
        if (!available) return false;
        if ((*available)["result"].asBool()) break;
        if (Interrupted() || std::chrono::steady_clock::now() >= until) {
            progress.Clear();
            session.Refuse(std::string(Interrupted() ? "interrupted" : "gave up") +
                           " while waiting for the service to become available (its start has not made "
                           "the info service yet; a request now would be dropped): nothing was asked");
            return false;
        }
        progress.Show("the service to become available");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    progress.Clear();
    return true;
}

void PrintNewVersions(const std::vector<NewVersion>& versions, bool first_set) {
    if (versions.empty()) return;
    std::vector<std::string> lines;
    if (first_set) {
        lines.push_back("all " + std::to_string(versions.size()) +
                        " are new to the store, which held no set of this country: a first set marks "
                        "nothing revised");
        PrintSteps("new versions:", lines);
        return;
    }
    for (const auto& v : versions) {
        lines.push_back(v.id + " " +
                        (v.old_version.empty() ? "new, version " + v.new_version
                                               : v.old_version + " -> " + v.new_version) +
                        ": " + (v.revised ? "revised, " : "not revised, ") + v.why);
    }
    PrintSteps("new versions:", lines);
}

}  // namespace

int RunUpdate(Context& context, const std::vector<std::string>& args) {
    std::vector<std::string> rest;
    bool wakeup = false;
    for (const auto& word : args) {
        if (word == "--wakeup") {
            wakeup = true;
        } else {
            rest.push_back(word);
        }
    }
    const auto split = SplitArguments(rest, {"--from", "--timeout"});
    if (!split) return kExitUsage;
    if (!split->positional.empty())
        return UsageError("update takes --wakeup, --from PAGE and --timeout S only");
    const auto from = split->options.find("--from");
    const auto timeout = ReadTimeout(*split, kDefaultUpdateTimeout);
    if (!timeout) return kExitUsage;
    context.UsePlatformRoot();
    const auto deadline = std::chrono::steady_clock::now() + *timeout;

    ServiceSession session(context);
    if (!session.Open()) return session.ExitCode();
    if (const auto closed = StoreClosedMark(context.SocketPath())) {
        // The service would fetch into a store that keeps nothing.
        const std::string words = "nothing was asked: " + ClosedStoreWords(*closed);
        if (session.JsonOutput()) {
            Json::Value out(Json::objectValue);
            out["result"] = "fail";
            out["store_open"] = false;
            out["error"] = words;
            PrintDocument(out);
        }
        return session.Refuse(words);
    }
    if (!session.Subscribe()) return session.ExitCode();
    if (!WaitUntilAvailable(session, deadline)) return session.ExitCode();
    const auto network_before = ReadNetworkState();
    const auto before = Locate(session);
    if (!before) return session.ExitCode();
    LogCursor log(context.Root() + "/var/log/tarvo.log");
    for (const auto& value : MissingDeviceValues()) {
        Fail(std::string("warning: ") + value.key + " (" + value.what + ") is not set" +
                 (value.blocks_fetch ? ": the service waits up to 90 s for it before it asks the server"
                                     : ": the agreement upload needs it") +
                 "; set it with: " + value.how,
             kExitDone);
    }
    RunReport wake;
    if (wakeup && !WakeUp(session, log, deadline, wake)) return session.ExitCode();

    Json::Value request(Json::objectValue);
    request["method"] = "request update disclaimers";
    request["request_from"] = from != split->options.end() ? from->second : std::string("tarvoctl");
    if (!session.Ask(request)) return session.ExitCode();
    RunReport report;
    const auto left = std::max(
        std::chrono::milliseconds(0),
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()));
    const auto done = session.WaitForNotification("new_disclaimer_got", left, [&] {
        ReadRun(log.ReadService(), report);
        return Awaited(report);
    });
    if (!done) return session.ExitCode();
    ReadRun(log.ReadService(), report);
    const bool failed = (*done)["result"] != "success";
    NetworkState network = ReadNetworkState();
    network.up = network.up && network_before.up;
    if (!network.up && report.not_connected) {
        report.steps.push_back("the network is down: " + NetworkWords(network) +
                               ", so the request could not reach the server");
    }
    const std::string failure = failed ? DescribeDisclaimerFailure(*done, report, network) : std::string();
    const auto placement = Locate(session);
    if (!placement) return session.ExitCode();
    const auto& all = placement->lists.at(4);
    const auto revised_reply = session.AskMethod("get revised disclaimers");
    if (!revised_reply) return session.ExitCode();
    std::vector<std::string> revised;
    for (const auto& d : (*revised_reply)["disclaimers"]) revised.push_back(d["id"].asString());
    const bool country_changed = report.why_fetched.find("country") != std::string::npos;
    const auto versions = JudgeNewVersions(before->records, placement->records, revised, country_changed);

    if (session.JsonOutput()) {
        Json::Value document(Json::objectValue);
        document["result"] = (*done)["result"];
        document["source"] = report.from_store ? "store" : report.fetched ? "server" : "unknown";
        document["source_words"] = Source(report);
        document["country"] = report.country;
        document["language"] = report.locale;
        document["wakeup"] = Json::Value(Json::arrayValue);
        for (const auto& step : wake.steps) document["wakeup"].append(step);
        document["steps"] = Json::Value(Json::arrayValue);
        for (const auto& step : report.steps) document["steps"].append(step);
        if (failed) document["error"] = failure;
        document["network"] = NetworkWords(network);
        document["new_versions"] = Json::Value(Json::arrayValue);
        for (const auto& v : versions) {
            Json::Value entry(Json::objectValue);
            entry["id"] = v.id;
            entry["old_version"] = v.old_version;
            entry["new_version"] = v.new_version;
            entry["revised"] = v.revised;
            entry["why"] = v.why;
            document["new_versions"].append(entry);
        }
        document["disclaimers"] = Json::Value(Json::arrayValue);
        for (const auto& d : all) document["disclaimers"].append(DisclaimerDocument(d, *placement));
        PrintDocument(document);
    } else {
        PrintSteps("wake-up:", wake.steps);
        PrintWrapped(Source(report), "");
        PrintSteps("server:", report.steps);
        PrintNewVersions(versions, before->records.empty() || country_changed);
        if (report.from_store && !wakeup) PrintWrapped(kHowNewVersionsCome, "");
        if (all.empty()) {
            std::cout << "the store holds no disclaimers" << std::endl;
        } else {
            PrintDisclaimerTable(all, *placement);
        }
    }
    if (failed) return session.Refuse(failure);
    if (report.failed || wake.failed) {
        return session.Refuse(
            "the server run failed (see above); the list is the stored set, which the service "
            "reports as its answer");
    }
    return session.ExitCode();
}

}  // namespace tarvoctl
