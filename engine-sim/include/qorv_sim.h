/* Entry points of the simulated engine beyond the engine interface itself:
 * what tests and tools use to look inside it and to make it raise events. */
#ifndef QORV_SIM_H
#define QORV_SIM_H

#ifdef __cplusplus
extern "C" {
#endif

/* Raises one event from an engine thread, as the engine does, and waits for
 * the service's answer. Returns that answer, or -2 when no callback is set. */
typedef int (*PFN_QORV_SIM_EMIT)(int nEvent, const char *pParam1, const char *pParam2);
int qorv_sim_emit(int nEvent, const char *pParam1, const char *pParam2);

/* How many times an entry point ("qorv_start", ...) was called. */
typedef int (*PFN_QORV_SIM_CALLS)(const char *pEntry);
int qorv_sim_calls(const char *pEntry);

/* The last command given to qorv_excute and its first argument, as
 * "COMMAND ARG"; the empty text before any. */
typedef const char *(*PFN_QORV_SIM_LAST_COMMAND)(void);
const char *qorv_sim_last_command(void);

/* Forgets counts, commands and the callback. */
typedef void (*PFN_QORV_SIM_RESET)(void);
void qorv_sim_reset(void);

#ifdef __cplusplus
}
#endif

#endif
