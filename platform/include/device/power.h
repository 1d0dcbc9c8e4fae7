/* The TV platform's device-power interface, as the service uses it. */
#ifndef LUMORA_PLATFORM_DEVICE_POWER_H
#define LUMORA_PLATFORM_DEVICE_POWER_H

#ifdef __cplusplus
extern "C" {
#endif

/* Asks the platform to switch the set off; type selects the kind of
   power-off. 0 when the request was accepted, non-zero otherwise. */
int device_power_request_poweroff(int type);

#ifdef __cplusplus
}
#endif

#endif
