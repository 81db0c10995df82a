// tarvo-logctl: sends usage events through the module's exported loggers, as a television
// application linked against libtarvodatacontrol.so does, and says what went out.
// The loggers report nothing to their caller, so the tool reads their lines in the platform log.
#include <TarvoGlobalLogger.h>
#include <TarvoPnPLogger.h>
#include <client.h>
#include <tarvo/log_capture.h>

#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

enum ExitCode { kExitDone = 0, kExitFailed = 1, kExitUsage = 2 };

const char kUsage[] =
    "usage: tarvo-logctl [--root DIR] STEP...\n"
    "\n"
    "Runs the steps in order in one process, then ends the loggers, which POSTs their batch.\n"
    "  move-to-panel SERVICE   MOVETOPANEL of 14_global, desc \"{service = SERVICE}\"\n"
    "  tick NAME...            collect one tick per NAME (names run to the next step)\n"
    "  send-ticks              send the collected ticks as one TICK event of 14_global\n"
    "  privacy-start           start timing the first-run privacy disclaimer (14_tvpnp)\n"
    "  privacy-end             send P01_PRIVACY with the whole seconds since privacy-start\n"
    "  privacy SECONDS         privacy-start, wait SECONDS, privacy-end\n"
    "\n"
    "  --root DIR  the emulated television's root (default: $TARVO_ROOT, else\n"
    "              ${XDG_STATE_HOME:-$HOME/.local/state}/tarvo/root)\n"
    "\n"
    "Where events go comes from ROOT/opt/down/common/LogPolicyConfig.xml, else from the device\n"
    "profile's log hosts. Exit codes: 0 sent and delivered, 1 an event was dropped or its batch\n"
    "not delivered, 2 usage.\n";

struct Step {
    std::string verb;
    std::vector<std::string> args;
};

bool IsVerb(const std::string& word) {
    return word == "move-to-panel" || word == "tick" || word == "send-ticks" || word == "privacy-start" ||
           word == "privacy-end" || word == "privacy";
}

int UsageError(const std::string& message) {
    std::cerr << "tarvo-logctl: " << message << "\n" << kUsage;
    return kExitUsage;
}

// The text a service log line carries after `label`, without the colour reset and one trailing blank.
std::string TextAfter(const std::string& line, const std::string& label) {
    const size_t start = line.find(label);
    if (start == std::string::npos) return "";
    std::string text = line.substr(start + label.size());
    text = text.substr(0, text.find("\033[0m"));
    if (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

struct Outcome {
    int sent = 0;
    bool failed = false;  // an event dropped or a batch not delivered
};

// Reads the log lines since `seen`, prints what the loggers did with them and moves `seen` on.
void Report(const tarvo::platform::LogCapture& capture, size_t& seen, Outcome& outcome) {
    const std::vector<std::string> lines = capture.Lines();
    std::string event;
    std::string url;
    for (size_t i = seen; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        if (line.find("strUrl ") != std::string::npos) {
            url = TextAfter(line, "strUrl ");
        } else if (line.find("service_name '") != std::string::npos) {
            std::string service = TextAfter(line, "service_name '");
            if (!service.empty() && service.back() == '\'') service.pop_back();
            std::cout << service << " logs to " << url << "\n";
        } else if (line.find("strEventName type ") != std::string::npos) {
            event = TextAfter(line, "strEventName type ");
        } else if (line.find("strCategory : ") != std::string::npos) {
            event += " " + TextAfter(line, "strCategory : ");
        } else if (line.find("desc : ") != std::string::npos) {
            std::cout << "sent " << event << " " << TextAfter(line, "desc : ") << "\n";
            ++outcome.sent;
        } else if (line.find("Could not add  event log") != std::string::npos ||
                   line.find("initialize fail") != std::string::npos ||
                   line.find("Desc Data is wrong") != std::string::npos ||
                   line.find("m_BigDataTickInfo NULL or empty") != std::string::npos) {
            std::cerr << "tarvo-logctl: dropped: " << TextAfter(line, "]") << "\n";
            outcome.failed = true;
        } else if (line.find("log post to ") != std::string::npos ||
                   line.find(" dropped") != std::string::npos) {
            // The platform client's own lines carry no colour codes.
            std::cerr << "tarvo-logctl: not delivered: " << line << "\n";
            outcome.failed = true;
        }
    }
    seen = lines.size();
}

bool ParseSeconds(const std::string& text, long& seconds) {
    char* end = nullptr;
    seconds = std::strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && seconds >= 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string root = tarvoctl::DefaultRoot();
    std::vector<Step> steps;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            return kExitDone;
        }
        if (arg == "--root") {
            if (i + 1 >= argc) return UsageError("--root needs a value");
            root = argv[++i];
        } else if (IsVerb(arg)) {
            steps.push_back(Step{arg, {}});
        } else if (!steps.empty() && (steps.back().verb == "tick" || steps.back().args.empty())) {
            steps.back().args.push_back(arg);
        } else {
            return UsageError("unexpected \"" + arg + "\"");
        }
    }
    if (steps.empty()) return UsageError("no step given");
    for (const Step& step : steps) {
        const size_t wanted = step.verb == "move-to-panel" || step.verb == "privacy" ? 1 : 0;
        long seconds = 0;
        if (step.verb == "tick" ? step.args.empty() : step.args.size() != wanted) {
            return UsageError(step.verb +
                              (wanted || step.verb == "tick" ? " needs an argument" : " takes none"));
        }
        if (step.verb == "privacy" && !ParseSeconds(step.args[0], seconds)) {
            return UsageError("privacy needs whole seconds, not \"" + step.args[0] + "\"");
        }
    }

    struct stat info {};
    if (stat(root.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        std::cerr << "tarvo-logctl: no television root at " << root << " (start one with scripts/run.sh)\n";
        return kExitFailed;
    }
    // Before any platform call: every television path resolves under the root.
    setenv("TARVO_ROOT", root.c_str(), 1);

    tarvo::platform::LogCapture capture;
    size_t seen = 0;
    Outcome outcome;
    for (const Step& step : steps) {
        if (step.verb == "move-to-panel") {
            CTarvoGlobalLogger::GetInstance()->SendMoveToPanelLog(step.args[0]);
        } else if (step.verb == "tick") {
            for (const std::string& name : step.args) CTarvoGlobalLogger::GetInstance()->AddTick(name);
        } else if (step.verb == "send-ticks") {
            CTarvoGlobalLogger::GetInstance()->SendTickLog();
        } else if (step.verb == "privacy-start") {
            CTarvoPnPLogger::GetInstance()->SetPNPDisclaimerStartTime();
        } else if (step.verb == "privacy-end") {
            CTarvoPnPLogger::GetInstance()->SendP01PrivacyLog();
        } else {
            CTarvoPnPLogger::GetInstance()->SetPNPDisclaimerStartTime();
            std::this_thread::sleep_for(std::chrono::seconds(std::strtol(step.args[0].c_str(), nullptr, 10)));
            CTarvoPnPLogger::GetInstance()->SendP01PrivacyLog();
        }
        Report(capture, seen, outcome);
    }
    // Ending a logger flushes and finalises its client: this is where the batch is POSTed.
    CTarvoGlobalLogger::Destroy();
    CTarvoPnPLogger::Destroy();
    Report(capture, seen, outcome);
    if (outcome.failed) return kExitFailed;
    if (outcome.sent == 0) {
        std::cerr << "tarvo-logctl: no event sent (ticks go out with send-ticks)\n";
        return kExitFailed;
    }
    std::cout << "delivered\n";
    return kExitDone;
}
