/* The platform's network connection interface, as far as the service uses it. */
#ifndef LUMORA_PLATFORM_NET_CONNECTION_H
#define LUMORA_PLATFORM_NET_CONNECTION_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct connection_handle_s *connection_h;

typedef enum {
    CONNECTION_TYPE_DISCONNECTED = 0,
    CONNECTION_TYPE_WIFI = 1,
    CONNECTION_TYPE_CELLULAR = 2,
    CONNECTION_TYPE_ETHERNET = 3,
    CONNECTION_TYPE_BT = 4,
    CONNECTION_TYPE_NET_PROXY = 5
} connection_type_e;

typedef enum {
    CONNECTION_ERROR_NONE = 0,
    CONNECTION_ERROR_INVALID_PARAMETER = -22,
    CONNECTION_ERROR_OUT_OF_MEMORY = -12,
    CONNECTION_ERROR_INVALID_OPERATION = -38,
    CONNECTION_ERROR_OPERATION_FAILED = -1
} connection_error_e;

typedef void (*connection_type_changed_cb)(connection_type_e type, void *user_data);

int connection_create(connection_h *connection);
int connection_destroy(connection_h connection);
int connection_get_type(connection_h connection, connection_type_e *type);
int connection_set_type_changed_cb(connection_h connection, connection_type_changed_cb callback, void *user_data);
int connection_unset_type_changed_cb(connection_h connection);

#ifdef __cplusplus
}
#endif

#endif
