/* The platform's application framework: runs the EFL main loop and calls the
 * application's lifecycle callbacks. */
#ifndef LUMORA_PLATFORM_APPCORE_EFL_H
#define LUMORA_PLATFORM_APPCORE_EFL_H

#include <bundle.h>

#ifdef __cplusplus
extern "C" {
#endif

struct appcore_ops {
    void *data;                   /* user data handed to every callback */
    int (*create)(void *data);    /* before the loop; non-zero ends the application */
    int (*terminate)(void *data); /* after the loop */
    int (*pause)(void *data);
    int (*resume)(void *data);
    int (*reset)(bundle *b, void *data); /* launch request */
    void *reserved[6];
};

/* Runs the application: create, the main loop, terminate. Returns 0 after a
 * normal end, -1 when create failed or the loop could not start. */
int appcore_efl_main(const char *name, int *argc, char ***argv, struct appcore_ops *ops);

/* Sets the locale from the TV's language and binds the text domain. */
int appcore_set_i18n(const char *domainname, const char *dirname);

#ifdef __cplusplus
}
#endif

#endif
