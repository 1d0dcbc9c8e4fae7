// The one logging function of the service and the macro every file logs through.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Levels: 0 debug, 1 info, 2 warning, 3 error, 4 fatal; any other level is dropped.
void ext_log_base_print(int nLevel, const char *pTag, const char *pFormat, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

enum {
    EXT_LOG_DEBUG = 0,
    EXT_LOG_INFO = 1,
    EXT_LOG_WARN = 2,
    EXT_LOG_ERROR = 3,
    EXT_LOG_FATAL = 4,
};

#define EXT_LOG_TAG "LUMORA"

#ifdef __FILE_NAME__
#define EXT_LOG_FILE __FILE_NAME__
#else
constexpr const char *ext_log_basename(const char *p)
{
    const char *base = p;
    for (; *p; ++p)
        if (*p == '/')
            base = p + 1;
    return base;
}
#define EXT_LOG_FILE ext_log_basename(__FILE__)
#endif

// Every line carries "file:function(line)>" in front of its message. External
// text must only ever be an argument of the message, never part of fmt.
#define LUMORA_LOG(level, fmt, ...)                                                                                    \
    ext_log_base_print((level), EXT_LOG_TAG, "%s:%s(%d)>" fmt, EXT_LOG_FILE, __FUNCTION__, __LINE__, ##__VA_ARGS__)

// The same, for a helper that logs on behalf of the named function.
#define LUMORA_LOG_AS(function, level, fmt, ...)                                                                       \
    ext_log_base_print((level), EXT_LOG_TAG, "%s:%s(%d)>" fmt, EXT_LOG_FILE, (function), __LINE__, ##__VA_ARGS__)
