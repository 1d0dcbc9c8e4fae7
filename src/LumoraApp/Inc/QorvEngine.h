// The appliance engine's entry points, as exported by libqorv_helper.so.
// The service never calls them by name: it resolves them with dlsym, and its
// function-pointer types are taken from these declarations. The simulated
// engine compiles its definitions against this header, so a change of one
// signature on either side fails the build instead of the call.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// An event from the engine's own thread; the service's answer is returned.
typedef int (*QorvEventCallback)(int nEvent, const char *pParam1, const char *pParam2);

// Every int result is non-zero for success.
int qorv_start(void);
int qorv_stop(void);
int qorv_register_callback(QorvEventCallback pfnCallback);
// The result text belongs to the engine; the caller copies it and never frees it.
const char *qorv_excute(const char *pCommand, const char *pParam1, const char *pParam2, const char *pParam3,
                        const char *pParam4);
int qorv_refresh(void);

#ifdef __cplusplus
}
#endif
