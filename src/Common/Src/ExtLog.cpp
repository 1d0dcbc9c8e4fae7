#include "ExtLog.h"

#include <cstdarg>
#include <dlog.h>

extern "C" void ext_log_base_print(int nLevel, const char *pTag, const char *pFormat, ...)
{
    // Checked before anything is formatted: switched-off logging costs one call.
    if (_get_logging_on() == 0)
        return;

    int nPriority;
    switch (nLevel) {
    case EXT_LOG_DEBUG: nPriority = DLOG_DEBUG; break;
    case EXT_LOG_INFO: nPriority = DLOG_INFO; break;
    case EXT_LOG_WARN: nPriority = DLOG_WARN; break;
    case EXT_LOG_ERROR: nPriority = DLOG_ERROR; break;
    case EXT_LOG_FATAL: nPriority = DLOG_FATAL; break;
    default: return;
    }

    va_list ap;
    va_start(ap, pFormat);
    __dlog_vprint(LOG_ID_MAIN, nPriority, pTag, pFormat, ap);
    va_end(ap);
}
