// The guided tour (tarvoctl tour): the service's whole road, one step at a time, each shown
// with a line of plain words and its commands, run against the running service and checked by
// its outcome (the store, the vconf mirrors, what the cloud received). The steps live in
// tour_steps.cpp, the walking and the checks' plumbing in tour_verb.cpp. Main thread only.
#pragma once

#include "cloud_admin.h"
#include "context.h"

#include <json/json.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tarvoctl {

// What one step came to: `said` tells what was seen; when it went wrong, `expected` what should have.
struct Outcome {
    bool ok = false;
    std::string said;
    std::string expected;
};
Outcome Good(std::string said);
Outcome Wrong(std::string expected, std::string came);

class Tour {
  public:
    Tour(Context& context, bool interactive, std::optional<AdminEndpoint> admin, std::string admin_error);
    ~Tour();
    Tour(const Tour&) = delete;
    Tour& operator=(const Tour&) = delete;

    // Walks every step; the exit code of tarvoctl.
    int Walk();

  private:
    struct Step {
        const char* words;
        Outcome (Tour::*run)();
    };
    static const std::vector<Step>& Steps();

    // The steps (tour_steps.cpp).
    Outcome Available();
    Outcome FirstFetch();
    Outcome WizardList();
    Outcome MenuList();
    Outcome Agree();
    Outcome Upload();
    Outcome Language();
    Outcome Revision();
    Outcome Reset();
    Outcome FetchAfterReset();
    Outcome CloneToUsb();
    Outcome CloneFromUsb();

    // On a terminal prints the step's commands and waits for Enter; false when interrupted.
    bool Show(const std::vector<std::string>& commands);
    // Prints a command as it is run.
    static void Echo(const std::string& command);
    // "tarvoctl WORDS" with the global options this run was given, as a user would type it.
    std::string Command(const std::vector<std::string>& words) const;
    // Echoes and runs a tarvoctl verb in this process, its output going where ours goes; its exit code.
    int Verb(const std::vector<std::string>& words);

    // One request to the service; nullopt when it gave no reply (the reason is printed).
    std::optional<Json::Value> Ask(const Json::Value& request);
    // The ids requester `requester` lists, in order; nullopt when the service did not answer.
    std::optional<std::vector<std::string>> Ids(int requester);
    // The disclaimer `id` as the service gives it by its id; null when it is not available.
    Json::Value Record(const std::string& id);
    // A vconf string, empty when unset.
    std::string VconfText(const std::string& key) const;
    // The answers the vconf mirror db/tarvodatacontrol/disclaimeragrees holds, by id.
    Json::Value Mirror() const;
    // The cloud's admin endpoint, or why there is none.
    const AdminEndpoint* Admin(std::string* why) const;
    // The cloud's record of this television's uploads ({"uploads", "terms"}) and the deployment
    // that holds it; null when there is none yet.
    Json::Value CloudRecord(std::string* deployment, std::string* error);
    // Polls `condition` every 200 ms until it holds or `limit` passes; false also when interrupted.
    bool Poll(const std::function<bool()>& condition, std::chrono::milliseconds limit);

    Context& m_context;
    const bool m_interactive;
    const std::optional<AdminEndpoint> m_admin;
    const std::string m_adminError;

    // Carried from step to step.
    bool m_answeredBefore = false;  // tnc and pp were agreed before the agree step
    unsigned m_uploadsBefore = 0;   // the cloud's upload count before it
    std::string m_language;         // the on-screen language to restore; empty: nothing to restore
    std::string m_clonePath;        // the clone copy the tour made in the store's folder
};

}  // namespace tarvoctl
