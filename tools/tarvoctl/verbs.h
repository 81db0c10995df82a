// The verbs of tarvoctl: one table (verbs.cpp) names each verb, its usage and help and
// the function that runs it. A verb's name may have two words ("vconf get").
#pragma once

#include "context.h"

#include <string>
#include <vector>

namespace tarvoctl {

using VerbHandler = int (*)(Context& context, const std::vector<std::string>& args);

struct Verb {
    const char* name;
    const char* usage;  // the arguments after the name
    const char* help;
    VerbHandler handler;
};

const std::vector<Verb>& Verbs();

// Verbs that talk to the service through the host (service_verbs.cpp).
int RunCall(Context& context, const std::vector<std::string>& args);
int RunListen(Context& context, const std::vector<std::string>& args);
int RunPing(Context& context, const std::vector<std::string>& args);
int RunPowerOff(Context& context, const std::vector<std::string>& args);
int RunPowerWakeup(Context& context, const std::vector<std::string>& args);

// Friendly verbs over the client methods (friendly_query_verbs.cpp, friendly_change_verbs.cpp).
int RunStatus(Context& context, const std::vector<std::string>& args);
int RunList(Context& context, const std::vector<std::string>& args);
int RunShow(Context& context, const std::vector<std::string>& args);
int RunRevised(Context& context, const std::vector<std::string>& args);
int RunCountries(Context& context, const std::vector<std::string>& args);
int RunAgree(Context& context, const std::vector<std::string>& args);
int RunDisagree(Context& context, const std::vector<std::string>& args);
int RunAgreeAll(Context& context, const std::vector<std::string>& args);
int RunSetCountry(Context& context, const std::vector<std::string>& args);
int RunReset(Context& context, const std::vector<std::string>& args);
int RunClone(Context& context, const std::vector<std::string>& args);
// Asks for up-to-date disclaimers, waits for the outcome and lists them (update_verb.cpp).
int RunUpdate(Context& context, const std::vector<std::string>& args);

// Walks the service's whole road step by step, checking each outcome (tour_verb.cpp).
int RunTour(Context& context, const std::vector<std::string>& args);

// The log and the device profile, read directly (inspect_verbs.cpp).
int RunLog(Context& context, const std::vector<std::string>& args);
int RunDevice(Context& context, const std::vector<std::string>& args);

// Verbs that drive the emulated television directly (platform_verbs.cpp).
int RunVconfGet(Context& context, const std::vector<std::string>& args);
int RunVconfSet(Context& context, const std::vector<std::string>& args);
int RunVconfWatch(Context& context, const std::vector<std::string>& args);
int RunNetworkUp(Context& context, const std::vector<std::string>& args);
int RunNetworkDown(Context& context, const std::vector<std::string>& args);
int RunNetworkDns(Context& context, const std::vector<std::string>& args);

// Set by SIGINT or SIGTERM while a verb waits (listen, vconf watch).
bool Interrupted();
// Installs the handlers behind Interrupted(); a signal then ends a wait early.
void CatchInterrupts();

}  // namespace tarvoctl
