#include "verbs.h"

#include <csignal>

namespace tarvoctl {

const std::vector<Verb>& Verbs() {
    static const std::vector<Verb> verbs = {
        {"call", "JSON [--type TYPE]",
         "Sends one request to the service and prints its reply, e.g.\n"
         "  tarvoctl call '{\"method\": \"get disclaimer number\", \"requester\": 0}'\n"
         "docs/API.md lists the 15 methods with their members, replies and notifications. The service\n"
         "ignores a member it does not know without a word, so check the member names there.\n"
         "Exit 1 when the host answers with an error, the reply's \"result\" is false, or there is no reply\n"
         "(an unknown method); the methods that answer with nothing by design exit 0.",
         RunCall},
        {"status", "",
         "Tells whether the service is available, whether its store is closed after a power-off, whether\n"
         "the device profile's network is up, how many disclaimers each requester sees (0 menu, 1 app,\n"
         "2 pnp, 3 none, 4 all) and how many are revised.",
         RunStatus},
        {"list", "[--requester N]",
         "Lists the disclaimers requester N sees (default 4, all available), in its display order.\n"
         "ORDER counts within a screen area; WINDOW is that area (Main, Sub or Menu, as far as the "
         "service's\n"
         "lists tell: 'Main|Sub' or '?' when they leave it open); GROUP names the screens that list it\n"
         "(pnp: the first-run wizard, requester 2; menu: the settings, requesters 0 and 1).",
         RunList},
        {"show", "ID",
         "Prints every field of one disclaimer that any requester lists, with the requesters that see it;\n"
         "texts are wrapped to the terminal and sectioned details printed under their titles.",
         RunShow},
        {"agree", "ID...",
         "Agrees to the given disclaimers and prints each answer before and after (read back from the\n"
         "service), also of the disclaimers a combined one stands for. An unknown ID exits 1, sending "
         "nothing.",
         RunAgree},
        {"disagree", "ID...", "Takes back the agreement to the given disclaimers; prints as agree does.",
         RunDisagree},
        {"agree-all", "", "Agrees to every available disclaimer; prints the answers that changed.",
         RunAgreeAll},
        {"update", "[--wakeup] [--from PAGE] [--timeout S]",
         "Asks the service to bring its disclaimers up to date (as the page PAGE, e.g. wizard-terms), waits\n"
         "up to S seconds (default 200) for the outcome, tells where the answer came from and lists them.\n"
         "While country and language stay as they are the service answers from its stored set; a newly\n"
         "published version comes at a wake-up, at the service's start, or with a change of language or\n"
         "country. --wakeup first sends the wake-up control, as a television does after standby, and waits\n"
         "for the run it starts. Each new version is named with whether the service marked it revised, and\n"
         "why. It waits for the service to be available first, and asks nothing while the store is closed\n"
         "after a power-off. Exit 1 when the update failed, also when the service still answered with\n"
         "its stored set.",
         RunUpdate},
        {"countries", "[--refresh] [--timeout S]",
         "Prints the country list the service holds. With --refresh it first asks the service to\n"
         "fetch it again and waits up to S seconds (default 100) for the outcome.",
         RunCountries},
        {"set-country", "CODE",
         "Sets the television's country code (two capital letters), warning when the country list does not\n"
         "hold it. The next update from another country clears every stored disclaimer and answer.",
         RunSetCountry},
        {"reset", "", "Asks the service to clear its disclaimers and answers (a front-end reset).", RunReset},
        {"clone", "to-usb|from-usb", "Copies the store to the USB clone folder, or back from it.", RunClone},
        {"revised", "", "Lists the disclaimers whose revision the user has not answered yet.", RunRevised},
        {"listen", "[--count N] [--timeout S]",
         "Prints each notification of the service until interrupted, until N have come,\n"
         "or until S seconds have passed (exit 1 when S passes before N notifications).",
         RunListen},
        {"ping", "", "Tells whether the service answers on its socket.", RunPing},
        {"tour", "[--yes] [--cloud-admin URL]",
         "Walks the service's whole road against the running service and the development cloud, one step\n"
         "at a time with its commands: availability, the first fetch, the wizard's and the menu's lists,\n"
         "agreeing to tnc and pp, their upload, a language change, a published version coming as revised\n"
         "after a wake-up, a reset and a clone to USB and back. Each outcome is checked; exit 1 at the\n"
         "first that is wrong, saying what was expected and what came. On a terminal it waits for Enter\n"
         "before each step; --yes runs straight through. The cloud's admin endpoint is found in\n"
         "ROOT/run/cloud.json (written by scripts/run.sh) unless --cloud-admin http://HOST:PORT names it.\n"
         "It changes the set: the answers end reset, a new version stays published; the language is set\n"
         "back.",
         RunTour},
        {"log", "[--follow] [--level debug|info|warn|error]",
         "Prints ROOT/var/log/tarvo.log readably (colours on a terminal only), from the given level up;\n"
         "--follow goes on printing new lines until interrupted.",
         RunLog},
        {"device", "",
         "Prints the device profile (ROOT/etc/tarvo/device.json) with names for its numeric keys, and the\n"
         "device values the service reads from vconf.",
         RunDevice},
        {"power off", "[STATE]",
         "Runs the television's power-off callbacks with STATE (default 0) and waits for them.\n"
         "A STATE without bit 30 (1073741824) is a real power-off: the service closes its store,\n"
         "which stays closed until the host is restarted; 'power off 1073741824' keeps it open.",
         RunPowerOff},
        {"power wakeup", "[STATE]", "Runs the television's wake-up callbacks with STATE (default 0).",
         RunPowerWakeup},
        {"vconf get", "KEY", "Prints a vconf key's value (exit 1 when it is not set).", RunVconfGet},
        {"vconf set", "KEY VALUE [--type int|string|bool|double]",
         "Sets a vconf key (db/..., file/... or memory/...); without --type, an integer VALUE is stored as\n"
         "int, anything else as string.",
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
