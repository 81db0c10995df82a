// The --count N and --timeout S options of the verbs that wait for events: when the
// wait ends and which exit code it ends with. Plain values, used on the main thread.
#pragma once

#include "context.h"

#include <chrono>
#include <optional>

namespace tarvoctl {

struct WaitOptions {
    std::optional<int> count;
    std::optional<std::chrono::steady_clock::time_point> deadline;

    // Time left before the deadline (negative: no deadline); zero once it has passed.
    std::chrono::milliseconds Left() const;
    bool Expired() const;
    // The exit code once waiting is over after `seen` events.
    int Finish(int seen, const char* what) const;
};

// Reads --count and --timeout from `args`; nullopt after printing a usage error.
std::optional<WaitOptions> ReadWaitOptions(const Arguments& args);

}  // namespace tarvoctl
