/* The platform's notification-data service: pop-up notifications with up to
 * three buttons, posted by an application under numeric item ids. */
#ifndef LUMORA_PLATFORM_NOTIFICATION_DATA_H
#define LUMORA_PLATFORM_NOTIFICATION_DATA_H

#ifdef __cplusplus
extern "C" {
#endif

#define NOTIFICATION_DATA_MAX_BUTTON 3

/* One notification. Twenty-two words, 88 bytes with 4-byte pointers; on a
 * 64-bit platform the pointer fields are 8 bytes wide and naturally aligned.
 * The service copies every text it keeps: the pointers need only stay valid
 * for the length of add_notification_data. */
typedef struct notification_data_s {
    int version;        /* record version: 1 */
    int popup;          /* 1: shown as a pop-up */
    int style;          /* 1: device message, 2: question */
    const char *app_id; /* posting application */
    int item_id;        /* the application's id of the item */
    int reserved1[3];
    const char *title;
    const char *body;
    const char *sub_text; /* secondary line under the body */
    int reserved2[3];
    int button_count; /* 0 .. NOTIFICATION_DATA_MAX_BUTTON */
    int need_answer;  /* 1: the viewer is asked to choose */
    const char *button_label[NOTIFICATION_DATA_MAX_BUTTON];
    const char *button_icon[NOTIFICATION_DATA_MAX_BUTTON]; /* image file path */
} notification_data_t;

/* Buttons are numbered from 0, left to right. */
typedef void (*notification_button_cb)(int item_id, int button_index, void *user_data);
typedef void (*notification_timeout_cb)(int item_id, void *user_data);

/* All functions return 0 on success and a negative number on failure. */
int init_notification_data_manager(const char *app_id, int flags);
int register_notification_button_callback(notification_button_cb callback, void *user_data);
int register_notification_timeout_callback(notification_timeout_cb callback, void *user_data);
int add_notification_data(const notification_data_t *data);
int remove_notification_data(const char *app_id, int item_id);
int close_notification_data_manager(void);

#ifdef __cplusplus
}
#endif

#endif
