/* The TV platform's web-application service, as the service uses it. */
#ifndef LUMORA_PLATFORM_WAS_H
#define LUMORA_PLATFORM_WAS_H

#ifdef __cplusplus
extern "C" {
#endif

enum {
    WAS_ERROR_NONE = 0,
    WAS_ERROR_NOT_INSTALLED = -1,
    WAS_ERROR_BUSY = -2, /* the service is busy; asking again may succeed */
    WAS_ERROR_INVALID_PARAMETER = -3
};

/* Events the service reports about a web application. The launch failures
   (605 to 611) are the ones after which a new launch may succeed. */
typedef enum {
    WAS_EVENT_INSTALLED = 600,
    WAS_EVENT_UNINSTALLED = 601,
    WAS_EVENT_UPDATED = 602,
    WAS_EVENT_LAUNCH_REQUESTED = 603,
    WAS_EVENT_LAUNCHED = 604,
    WAS_EVENT_LAUNCH_FAILED_BUSY = 605,
    WAS_EVENT_LAUNCH_FAILED_TIMEOUT = 606,
    WAS_EVENT_LAUNCH_FAILED_NO_MEMORY = 607,
    WAS_EVENT_LAUNCH_FAILED_NETWORK = 608,
    WAS_EVENT_LAUNCH_FAILED_LOADING = 609,
    WAS_EVENT_LAUNCH_FAILED_KILLED = 610,
    WAS_EVENT_LAUNCH_FAILED_UNKNOWN = 611,
    WAS_EVENT_TERMINATED = 612
} was_event_type_e;

/* Shape of the service's event callback. */
typedef void (*was_event_cb)(void *user_data, int result, const char *app_id, was_event_type_e event_type);

/* The service's record about one installed application; its layout is the
   service's own, callers only provide the room for it. */
typedef struct was_app_info {
    unsigned char opaque[2288];
} was_app_info_t;

/* WAS_ERROR_NONE when app_id is installed (info is then filled in),
   WAS_ERROR_BUSY when the service cannot answer now, another value when the
   application is not installed. */
int was_get_app_info(const char *app_id, was_app_info_t *info);

/* WAS_ERROR_NONE with *status set (non-zero: the application is running), or
   an error with *status left as it was. */
int was_get_app_status(const char *app_id, int *status);

#ifdef __cplusplus
}
#endif

#endif
