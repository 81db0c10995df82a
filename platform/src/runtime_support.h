// Small helpers shared by the platform's runtime pieces (workers, alarm, HTTP and
// log clients): the platform log tag and scale factors read from the environment.
#pragma once

#include <dlog.h>

#include <cstdlib>
#include <string>

#define TARVO_PLATFORM_TAG "TarvoPlatform"
#define TARVO_PLATFORM_LOG(prio, ...) __dlog_print(LOG_ID_MAIN, prio, TARVO_PLATFORM_TAG, __VA_ARGS__)

namespace tarvo {
namespace platform {

// A positive factor from the environment variable `name`; 1 when unset or unreadable.
inline double ScaleFromEnv(const char* name) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return 1.0;
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(value > 0.0)) return 1.0;
    return value;
}

}  // namespace platform
}  // namespace tarvo
