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
