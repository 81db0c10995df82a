// tarvoctl: the command-line client of tarvodatacontrol and of the emulated television.
#include "context.h"
#include "verbs.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace {

using tarvoctl::Verb;

void PrintVerb(std::ostream& out, const Verb& verb) {
    out << "tarvoctl " << verb.name << (*verb.usage ? " " : "") << verb.usage << "\n";
    std::string help = verb.help;
    size_t start = 0;
    while (start < help.size()) {
        const size_t end = std::min(help.find('\n', start), help.size());
        out << "    " << help.substr(start, end - start) << "\n";
        start = end + 1;
    }
}

void PrintUsage(std::ostream& out) {
    out << "usage: tarvoctl [--root DIR] [--socket PATH] [--json] VERB [ARGS...]\n"
           "       tarvoctl VERB --help\n"
           "\n"
           "  --root DIR     the emulated television's root (default: $TARVO_ROOT, else\n"
           "                 ${XDG_STATE_HOME:-$HOME/.local/state}/tarvo/root)\n"
           "  --socket PATH  the host's socket (default: ROOT/run/tarvodatacontrol.sock)\n"
           "  --json         machine-readable output\n"
           "\n"
           "Exit codes: 0 done, 1 the service said no or failed, 2 usage, 3 no service.\n"
           "\n"
           "Verbs:\n";
    for (const auto& verb : tarvoctl::Verbs()) {
        out << "  " << verb.name << (*verb.usage ? " " : "") << verb.usage << "\n";
    }
}

// The verb named by the first one or two words; `used` tells how many words it took.
const Verb* FindVerb(const std::vector<std::string>& words, size_t& used) {
    for (const auto& verb : tarvoctl::Verbs()) {
        if (words.size() >= 2 && verb.name == words[0] + " " + words[1]) {
            used = 2;
            return &verb;
        }
    }
    for (const auto& verb : tarvoctl::Verbs()) {
        if (verb.name == words[0]) {
            used = 1;
            return &verb;
        }
    }
    return nullptr;
}

// Prints every verb of a group ("vconf", "power"); false when `group` names none.
bool PrintGroup(std::ostream& out, const std::string& group) {
    bool any = false;
    for (const auto& verb : tarvoctl::Verbs()) {
        if (std::string(verb.name).rfind(group + " ", 0) == 0) {
            PrintVerb(out, verb);
            any = true;
        }
    }
    return any;
}

}  // namespace

int main(int argc, char** argv) {
    tarvoctl::Context context;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--root" || arg == "--socket") {
            if (i + 1 >= argc) return tarvoctl::UsageError(arg + " needs a value");
            (arg == "--root" ? context.root_option : context.socket_option) = argv[++i];
        } else if (arg == "--json") {
            context.json = true;
        } else {
            words.push_back(arg);
        }
    }
    if (words.empty()) {
        PrintUsage(std::cerr);
        return tarvoctl::kExitUsage;
    }
    if (words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
        if (words.size() > 1) {
            size_t used = 0;
            if (const Verb* verb = FindVerb({words.begin() + 1, words.end()}, used)) {
                PrintVerb(std::cout, *verb);
                return tarvoctl::kExitDone;
            }
            if (PrintGroup(std::cout, words[1])) return tarvoctl::kExitDone;
        }
        PrintUsage(std::cout);
        return tarvoctl::kExitDone;
    }

    size_t used = 0;
    const Verb* verb = FindVerb(words, used);
    const bool wants_help = std::find(words.begin(), words.end(), "--help") != words.end();
    if (verb == nullptr) {
        if (PrintGroup(wants_help ? std::cout : std::cerr, words[0])) {
            return wants_help ? tarvoctl::kExitDone : tarvoctl::kExitUsage;
        }
        return tarvoctl::UsageError("unknown verb \"" + words[0] + "\"");
    }
    if (wants_help) {
        PrintVerb(std::cout, *verb);
        return tarvoctl::kExitDone;
    }
    try {
        return verb->handler(context, {words.begin() + static_cast<std::ptrdiff_t>(used), words.end()});
    } catch (const std::exception& e) {
        // A reply of an unexpected shape makes JsonCpp throw on a conversion.
        return tarvoctl::Fail(std::string("unexpected answer from the service: ") + e.what());
    }
}
