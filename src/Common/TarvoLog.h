// Log macros of the service: every line goes to the platform log with the tag
// "TarvoDataControl", the source file's base name, the function and the line.
#pragma once

#include <dlog.h>

#include <cstddef>

namespace tarvo_log_detail {
constexpr const char* BaseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') base = p + 1;
    }
    return base;
}

constexpr size_t Length(const char* text) {
    size_t length = 0;
    while (text[length] != '\0') ++length;
    return length;
}

constexpr size_t DecimalLength(int value) {
    size_t length = 1;
    for (; value >= 10; value /= 10) ++length;
    return length;
}

// "FILE: FUNCTION(LINE) > ESC[COLOURm [FUNCTION:LINE]", the part of a line that only depends on
// where it is logged: put together by the compiler, so that formatting a line handles only its
// own arguments.
template <size_t N>
struct SitePrefix {
    char text[N + 1] = {};
    size_t length = 0;

    constexpr void Put(const char* part) {
        while (*part != '\0') text[length++] = *part++;
    }
    constexpr void Put(int value) {
        const size_t digits = DecimalLength(value);
        for (size_t i = digits; i > 0; --i, value /= 10)
            text[length + i - 1] = static_cast<char>('0' + value % 10);
        length += digits;
    }
};

constexpr size_t SitePrefixLength(const char* file, const char* function, int line, const char* colour) {
    return Length(BaseName(file)) + 2 + Length(function) + 1 + DecimalLength(line) + 6 + Length(colour) + 3 +
           Length(function) + 1 + DecimalLength(line) + 1;
}

template <size_t N>
constexpr SitePrefix<N> MakeSitePrefix(const char* file, const char* function, int line, const char* colour) {
    SitePrefix<N> prefix;
    prefix.Put(BaseName(file));
    prefix.Put(": ");
    prefix.Put(function);
    prefix.Put("(");
    prefix.Put(line);
    prefix.Put(") > \033[");
    prefix.Put(colour);
    prefix.Put("m [");
    prefix.Put(function);
    prefix.Put(":");
    prefix.Put(line);
    prefix.Put("]");
    return prefix;
}
}  // namespace tarvo_log_detail

#define TARVO_LOG_TAG "TarvoDataControl"

#define TARVO_LOG_AT(prio, colour, fmt, ...)                                                          \
    do {                                                                                              \
        static constexpr auto tarvo_log_site_ =                                                       \
            tarvo_log_detail::MakeSitePrefix<tarvo_log_detail::SitePrefixLength(                      \
                __FILE__, __FUNCTION__, __LINE__, colour)>(__FILE__, __FUNCTION__, __LINE__, colour); \
        __dlog_print(LOG_ID_MAIN, prio, TARVO_LOG_TAG, "%s" fmt "\033[0m\n", tarvo_log_site_.text,    \
                     ##__VA_ARGS__);                                                                  \
    } while (0)

#define TARVO_LOGD(fmt, ...) TARVO_LOG_AT(DLOG_DEBUG, "37", fmt, ##__VA_ARGS__)
#define TARVO_LOGI(fmt, ...) TARVO_LOG_AT(DLOG_INFO, "32", fmt, ##__VA_ARGS__)
#define TARVO_LOGW(fmt, ...) TARVO_LOG_AT(DLOG_WARN, "31", fmt, ##__VA_ARGS__)
// A warning of lesser weight, shown in yellow.
#define TARVO_LOGW_MINOR(fmt, ...) TARVO_LOG_AT(DLOG_WARN, "33", fmt, ##__VA_ARGS__)
