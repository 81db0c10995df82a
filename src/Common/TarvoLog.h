// Log macros of the service: every line goes to the platform log with the tag
// "TarvoDataControl", the source file's base name, the function and the line.
#pragma once

#include <dlog.h>

namespace tarvo_log_detail {
constexpr const char* BaseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') base = p + 1;
    }
    return base;
}
}  // namespace tarvo_log_detail

#define TARVO_LOG_TAG "TarvoDataControl"

#define TARVO_LOG_AT(prio, colour, fmt, ...)                                                                \
    __dlog_print(LOG_ID_MAIN, prio, TARVO_LOG_TAG, "%s: %s(%d) > \033[" colour "m [%s:%d]" fmt "\033[0m\n", \
                 tarvo_log_detail::BaseName(__FILE__), __FUNCTION__, __LINE__, __FUNCTION__, __LINE__,      \
                 ##__VA_ARGS__)

#define TARVO_LOGD(fmt, ...) TARVO_LOG_AT(DLOG_DEBUG, "37", fmt, ##__VA_ARGS__)
#define TARVO_LOGI(fmt, ...) TARVO_LOG_AT(DLOG_INFO, "32", fmt, ##__VA_ARGS__)
#define TARVO_LOGW(fmt, ...) TARVO_LOG_AT(DLOG_WARN, "31", fmt, ##__VA_ARGS__)
// A warning of lesser weight, shown in yellow.
#define TARVO_LOGW_MINOR(fmt, ...) TARVO_LOG_AT(DLOG_WARN, "33", fmt, ##__VA_ARGS__)
