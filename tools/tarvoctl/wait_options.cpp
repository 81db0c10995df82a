#include "wait_options.h"

#include <string>

namespace tarvoctl {

std::chrono::milliseconds WaitOptions::Left() const {
    if (!deadline) return std::chrono::milliseconds(-1);
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? left : std::chrono::milliseconds(0);
}

bool WaitOptions::Expired() const { return deadline && std::chrono::steady_clock::now() >= *deadline; }

int WaitOptions::Finish(int seen, const char* what) const {
    if (count && seen < *count && Expired()) {
        return Fail("timed out after " + std::to_string(seen) + " of " + std::to_string(*count) + " " + what);
    }
    return kExitDone;
}

std::optional<WaitOptions> ReadWaitOptions(const Arguments& args) {
    WaitOptions wait;
    if (auto it = args.options.find("--count"); it != args.options.end()) {
        wait.count = ParseInt(it->second);
        if (!wait.count || *wait.count <= 0) {
            UsageError("--count needs a positive integer");
            return std::nullopt;
        }
    }
    if (auto it = args.options.find("--timeout"); it != args.options.end()) {
        const auto seconds = ParseDouble(it->second);
        if (!seconds || *seconds < 0) {
            UsageError("--timeout needs a number of seconds");
            return std::nullopt;
        }
        wait.deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(static_cast<long long>(*seconds * 1000.0));
    }
    return wait;
}

}  // namespace tarvoctl
