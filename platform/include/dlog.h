// Platform log: one line per call appended to ROOT/var/log/tarvo.log (0600, colour codes
// stripped, turned over into tarvo.log.1.. at TARVO_LOG_MAX_BYTES, TARVO_LOG_FILES files in all),
// mirrored to stderr from TARVO_LOG_LEVEL up when TARVO_LOG_STDERR=1. Safe from any thread.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum { LOG_ID_MAIN = 0, LOG_ID_RADIO, LOG_ID_SYSTEM, LOG_ID_APPS, LOG_ID_MAX } log_id_t;

typedef enum {
    DLOG_UNKNOWN = 0,
    DLOG_DEFAULT,
    DLOG_VERBOSE,
    DLOG_DEBUG,
    DLOG_INFO,
    DLOG_WARN,
    DLOG_ERROR,
    DLOG_FATAL,
    DLOG_SILENT,
} log_priority;

int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif
