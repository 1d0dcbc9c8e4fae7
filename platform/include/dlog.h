/* The TV platform's system log, as the service uses it. */
#ifndef LUMORA_PLATFORM_DLOG_H
#define LUMORA_PLATFORM_DLOG_H

#include <stdarg.h>

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
    DLOG_SILENT
} log_priority;

/* Non-zero when the platform log is switched on. */
int _get_logging_on(void);

/* Writes one record; fmt and ap are formatted by the log itself. */
int __dlog_vprint(log_id_t log_id, int prio, const char *tag, const char *fmt, va_list ap);

#ifdef __cplusplus
}
#endif

#endif
