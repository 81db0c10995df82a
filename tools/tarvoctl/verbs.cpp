#include "verbs.h"

#include <csignal>

namespace tarvoctl {

const std::vector<Verb>& Verbs() {
    static const std::vector<Verb> verbs = {
        {"call", "JSON [--type TYPE]",
         "Sends one request to the service and prints its reply, e.g.\n"
         "  tarvoctl call '{\"method\": \"get disclaimer number\", \"requester\": 0}'\n"
         "Exit 1 when the host answers with an error or the reply's \"result\" is false.",
         RunCall},
        {"status", "",
         "Tells whether the service is available, how many disclaimers each requester sees\n"
         "(0 menu, 1 app, 2 pnp, 3 none, 4 all) and how many are revised.",
         RunStatus},
        {"list", "[--requester N]",
         "Lists the disclaimers requester N sees (default 4, all available), in display order.", RunList},
        {"show", "ID", "Prints every field of one available disclaimer (exit 1 when there is none).",
         RunShow},
        {"agree", "ID...", "Agrees to the given disclaimers and tells which answers changed.", RunAgree},
        {"disagree", "ID...", "Takes back the agreement to the given disclaimers.", RunDisagree},
        {"agree-all", "", "Agrees to every available disclaimer.", RunAgreeAll},
        {"update", "[--from PAGE] [--timeout S]",
         "Asks the service to bring its disclaimers up to date (as the page PAGE, e.g. wizard-terms),\n"
         "waits up to S seconds (default 200) for the outcome, then lists them like list.",
         RunUpdate},
        {"countries", "[--refresh] [--timeout S]",
         "Prints the country list the service holds. With --refresh it first asks the service to\n"
         "fetch it again and waits up to S seconds (default 100) for the outcome.",
         RunCountries},
        {"set-country", "CODE", "Sets the television's country code.", RunSetCountry},
        {"reset", "", "Asks the service to clear its disclaimers and answers (a front-end reset).", RunReset},
        {"clone", "to-usb|from-usb", "Copies the store to the USB clone folder, or back from it.", RunClone},
        {"revised", "", "Lists the disclaimers whose revision the user has not answered yet.", RunRevised},
        {"listen", "[--count N] [--timeout S]",
         "Prints each notification of the service until interrupted, until N have come,\n"
         "or until S seconds have passed (exit 1 when S passes before N notifications).",
         RunListen},
        {"ping", "", "Tells whether the service answers on its socket.", RunPing},
        {"power off", "[STATE]",
         "Runs the television's power-off callbacks with STATE (default 0) and waits for them.\n"
         "A STATE without bit 30 (1073741824) is a real power-off: the service closes its store,\n"
         "which stays closed until the host is restarted; 'power off 1073741824' keeps it open.",
         RunPowerOff},
        {"power wakeup", "[STATE]", "Runs the television's wake-up callbacks with STATE (default 0).",
         RunPowerWakeup},
        {"vconf get", "KEY", "Prints a vconf key's value (exit 1 when it is not set).", RunVconfGet},
        {"vconf set", "KEY VALUE [--type int|string|bool|double]",
         "Sets a vconf key; without --type, an integer VALUE is stored as int, anything else as string.",
         RunVconfSet},
        {"vconf watch", "KEY... [--count N] [--timeout S]",
         "Prints each change of the given keys until interrupted, until N changes, or for S seconds.",
         RunVconfWatch},
        {"network up", "[wifi|ethernet|cellular|bt]",
         "Brings the network up with the given profile (default ethernet), as the network manager would.",
         RunNetworkUp},
        {"network down", "", "Takes the network down.", RunNetworkDown},
        {"network dns", "", "Announces a change of the default DNS.", RunNetworkDns},
    };
    return verbs;
}

namespace {
volatile std::sig_atomic_t g_interrupted = 0;
void OnInterrupt(int) { g_interrupted = 1; }
}  // namespace

bool Interrupted() { return g_interrupted != 0; }

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a blocking wait returns, and the verb sees Interrupted().
    action.sa_flags = 0;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

}  // namespace tarvoctl
