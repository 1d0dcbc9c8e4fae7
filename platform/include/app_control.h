/* The TV platform's application control: asks the platform to launch an
   application with an operation and extra data. */
#ifndef LUMORA_PLATFORM_APP_CONTROL_H
#define LUMORA_PLATFORM_APP_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

/* The operation of a plain launch: the application shows its main view. */
#define APP_CONTROL_OPERATION_DEFAULT "http://kelvar.org/appcontrol/operation/default"

typedef enum {
    APP_CONTROL_ERROR_NONE = 0,
    APP_CONTROL_ERROR_INVALID_PARAMETER = -22,
    APP_CONTROL_ERROR_OUT_OF_MEMORY = -12,
    APP_CONTROL_ERROR_APP_NOT_FOUND = -0x0111,
    APP_CONTROL_ERROR_LAUNCH_REJECTED = -0x0112,
    APP_CONTROL_ERROR_LAUNCH_FAILED = -0x0113
} app_control_error_e;

typedef enum {
    APP_CONTROL_RESULT_SUCCEEDED = 0,
    APP_CONTROL_RESULT_FAILED = -1,
    APP_CONTROL_RESULT_CANCELED = -2
} app_control_result_e;

typedef struct app_control_s *app_control_h;

/* Called when the launched application replies to the request. */
typedef void (*app_control_reply_cb)(app_control_h request, app_control_h reply, app_control_result_e result,
                                     void *user_data);

int app_control_create(app_control_h *app_control);
int app_control_destroy(app_control_h app_control);
int app_control_set_operation(app_control_h app_control, const char *operation);
int app_control_set_app_id(app_control_h app_control, const char *app_id);
/* Adds key = value; a key added again replaces its value. */
int app_control_add_extra_data(app_control_h app_control, const char *key, const char *value);
/* callback may be NULL when no reply is wanted. */
int app_control_send_launch_request(app_control_h app_control, app_control_reply_cb callback, void *user_data);

#ifdef __cplusplus
}
#endif

#endif
