// tarvoctl tour: the options, the walk from step to step, and what the steps share to run
// commands and read outcomes.
#include "disclaimer_view.h"
#include "tour.h"
#include "verbs.h"

#include <unistd.h>
#include <vconf.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <thread>

namespace tarvoctl {

Outcome Good(std::string said) { return Outcome{true, std::move(said), ""}; }

Outcome Wrong(std::string expected, std::string came) {
    return Outcome{false, std::move(came), std::move(expected)};
}

Tour::Tour(Context& context, bool interactive, std::optional<AdminEndpoint> admin, std::string admin_error)
    : m_context(context),
      m_interactive(interactive),
      m_admin(std::move(admin)),
      m_adminError(std::move(admin_error)) {
    m_context.UsePlatformRoot();
}

// A tour that ends early still leaves the television's language as it found it.
Tour::~Tour() {
    if (!m_language.empty() && VconfText("db/menu_widget/language") != m_language) {
        vconf_set_str("db/menu_widget/language", m_language.c_str());
        std::cout << "language set back to " << m_language << " (the next tarvoctl update fetches it again)"
                  << std::endl;
    }
    if (!m_clonePath.empty()) {
        std::error_code ignored;
        std::filesystem::remove(m_clonePath, ignored);
    }
}

int Tour::Walk() {
    {
        Client probe;
        if (!probe.Connect(m_context.SocketPath())) {
            return Fail(
                "no service is running at " + m_context.SocketPath() + " (start it with scripts/run.sh)",
                kExitNoService);
        }
    }
    CatchInterrupts();
    const auto& steps = Steps();
    for (size_t number = 1; number <= steps.size(); ++number) {
        const Step& step = steps[number - 1];
        std::cout << "\n[" << number << "/" << steps.size() << "] " << step.words << std::endl;
        const Outcome outcome = (this->*step.run)();
        if (Interrupted()) return Fail("tour interrupted at step " + std::to_string(number));
        if (!outcome.ok) {
            std::cout << "  -> wrong" << std::endl;
            return Fail("step " + std::to_string(number) + " went wrong: expected " + outcome.expected +
                        "; came " + outcome.said);
        }
        std::cout << "  -> ok: " << outcome.said << std::endl;
    }
    std::cout << "\ntour done: every step came out as expected" << std::endl;
    return kExitDone;
}

bool Tour::Show(const std::vector<std::string>& commands) {
    // Run straight through, each command is shown just before its output instead.
    if (!m_interactive) return !Interrupted();
    for (const auto& command : commands) std::cout << "  $ " << command << "\n";
    std::cout << "  (Enter runs it, Ctrl-C ends the tour) " << std::flush;
    std::string line;
    if (!std::getline(std::cin, line) && Interrupted()) {
        std::cout << std::endl;
        return false;
    }
    return !Interrupted();
}

void Tour::Echo(const std::string& command) { std::cout << "$ " << command << std::endl; }

std::string Tour::Command(const std::vector<std::string>& words) const {
    std::string line = "tarvoctl";
    if (m_context.root_option) line += " --root " + *m_context.root_option;
    if (m_context.socket_option) line += " --socket " + *m_context.socket_option;
    for (const auto& word : words) {
        const bool plain = !word.empty() && word.find_first_of(" \"'{}$;&|<>*?") == std::string::npos;
        line += " " + (plain ? word : "'" + word + "'");
    }
    return line;
}

int Tour::Verb(const std::vector<std::string>& words) {
    for (const auto& verb : Verbs()) {
        const std::string name = verb.name;
        const size_t used = name.find(' ') == std::string::npos ? 1 : 2;
        if (words.size() < used) continue;
        if (name != (used == 1 ? words[0] : words[0] + " " + words[1])) continue;
        Echo(Command(words));
        const int code =
            verb.handler(m_context, {words.begin() + static_cast<std::ptrdiff_t>(used), words.end()});
        std::cout << std::flush;
        return code;
    }
    return Fail("no verb " + words[0], kExitUsage);
}

std::optional<Json::Value> Tour::Ask(const Json::Value& request) {
    auto client = m_context.Connect();
    if (!client) return std::nullopt;
    const auto answer = client->Call(request);
    if (!answer || answer->isMember("error")) return std::nullopt;
    return (*answer)["reply"];
}

std::optional<std::vector<std::string>> Tour::Ids(int requester) {
    ServiceSession session(m_context);
    if (!session.Open()) return std::nullopt;
    const auto listed = CollectDisclaimers(session, requester);
    if (!listed) return std::nullopt;
    std::vector<std::string> ids;
    for (const auto& disclaimer : *listed) ids.push_back(disclaimer["id"].asString());
    return ids;
}

Json::Value Tour::Record(const std::string& id) {
    Json::Value request(Json::objectValue);
    request["method"] = "get disclaimer by term id";
    request["request_item"] = id;
    const auto reply = Ask(request);
    return reply && (*reply)["result"] == true ? *reply : Json::Value();
}

std::string Tour::VconfText(const std::string& key) const {
    const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(key.c_str()), &std::free);
    return text ? text.get() : "";
}

Json::Value Tour::Mirror() const {
    const auto parsed = ParseJson(VconfText("db/tarvodatacontrol/disclaimeragrees"));
    return parsed && parsed->isObject() ? *parsed : Json::Value(Json::objectValue);
}

const AdminEndpoint* Tour::Admin(std::string* why) const {
    if (!m_admin) *why = m_adminError;
    return m_admin ? &*m_admin : nullptr;
}

Json::Value Tour::CloudRecord(std::string* deployment, std::string* error) {
    const AdminEndpoint* admin = Admin(error);
    if (admin == nullptr) return Json::Value();
    const auto books = admin->Get("/admin/agreements", error);
    if (!books) return Json::Value();
    const std::string duid = VconfText("db/nimbra/duid");
    for (const char* name : {"production", "staging"}) {
        if ((*books)[name].isMember(duid)) {
            *deployment = name;
            return (*books)[name][duid];
        }
    }
    *error = "the cloud holds no upload from " + duid;
    return Json::Value();
}

bool Tour::Poll(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!Interrupted()) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return false;
}

int RunTour(Context& context, const std::vector<std::string>& args) {
    std::vector<std::string> rest;
    bool yes = false;
    for (const auto& word : args) {
        if (word == "--yes") {
            yes = true;
        } else {
            rest.push_back(word);
        }
    }
    const auto split = SplitArguments(rest, {"--cloud-admin"});
    if (!split) return kExitUsage;
    if (!split->positional.empty()) return UsageError("tour takes --yes and --cloud-admin URL only");
    if (context.json) return UsageError("tour has no --json output");
    std::optional<AdminEndpoint> admin;
    std::string admin_error;
    if (const auto url = split->options.find("--cloud-admin"); url != split->options.end()) {
        admin.emplace(url->second);
    } else if (const auto found = AdminEndpoint::FromRunState(context.Root(), &admin_error)) {
        admin.emplace(*found);
    }
    Tour tour(context, !yes && isatty(STDIN_FILENO) == 1, std::move(admin), admin_error);
    return tour.Walk();
}

}  // namespace tarvoctl
