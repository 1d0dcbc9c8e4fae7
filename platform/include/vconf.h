/* The TV platform's key-value settings store, as the service uses it. */
#ifndef LUMORA_PLATFORM_VCONF_H
#define LUMORA_PLATFORM_VCONF_H

#ifdef __cplusplus
extern "C" {
#endif

enum { VCONF_OK = 0, VCONF_ERROR = -1 };

/* Value types a key can hold, as vconf_keynode_get_type reports them. */
enum { VCONF_TYPE_NONE = 0, VCONF_TYPE_STRING = 40, VCONF_TYPE_INT = 41 };

/* A snapshot of one changed key, valid for the length of a change callback. */
typedef struct _keynode_t keynode_t;

typedef void (*vconf_callback_fn)(keynode_t *key, void *user_data);

/* Calls cb(node, user_data) after every change of in_key. Registering the
   same key, callback and user data again keeps a single registration. */
int vconf_notify_key_changed(const char *in_key, vconf_callback_fn cb, void *user_data);

/* 0 with *intval set, or non-zero when the key is missing or not an integer. */
int vconf_get_int(const char *in_key, int *intval);

/* A malloc'd copy of the string value that the caller frees; NULL when the
   key is missing or not a string. */
char *vconf_get_str(const char *in_key);

/* Name of the changed key, or NULL for a NULL node. */
char *vconf_keynode_get_name(keynode_t *keynode);

/* VCONF_TYPE_* of the changed key's new value, or -1 for a NULL node. */
int vconf_keynode_get_type(keynode_t *keynode);

#ifdef __cplusplus
}
#endif

#endif
