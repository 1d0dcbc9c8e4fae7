/* The platform's key-value argument bundle, as far as the service sees it. */
#ifndef LUMORA_PLATFORM_BUNDLE_H
#define LUMORA_PLATFORM_BUNDLE_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _bundle_t bundle;

#ifdef __cplusplus
}
#endif

#endif
