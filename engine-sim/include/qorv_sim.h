/* Entry points of the simulated engine beyond the engine interface itself
 * (declared by the service, QorvEngine.h): what tests and tools use to look
 * inside it and to make it raise events.
 *
 * The engine reads, at every qorv_start, these environment variables:
 *   QORV_SIM_MODE    the mode file (home and scenario) instead of the data
 *                    folder's mode.xml; the format is described in
 *                    scenarios/quiet.xml beside the service's binary
 *   QORV_SIM_SOCKET  the injection socket instead of
 *                    <TV root>/opt/var/tvhost/engine.sock (qorv_sim_client.h)
 *   QORV_SIM_QUIET   1: no "[engine]" trace on stderr
 *   QORV_SIM_SPEED   a factor: 10 plays the scenario ten times as fast */
#ifndef QORV_SIM_H
#define QORV_SIM_H

#ifdef __cplusplus
extern "C" {
#endif

/* Raises one event from the engine thread, in order with the engine's other
 * events, and waits for the service's answer. Returns that answer, or -2
 * when no callback is set (or the engine stops first). An engine that is not
 * started raises it from a thread made for it, never the caller's. */
typedef int (*PFN_QORV_SIM_EMIT)(int nEvent, const char *pParam1, const char *pParam2);
int qorv_sim_emit(int nEvent, const char *pParam1, const char *pParam2);

/* How many times an entry point ("qorv_start", ...) was called. */
typedef int (*PFN_QORV_SIM_CALLS)(const char *pEntry);
int qorv_sim_calls(const char *pEntry);

/* The last command given to qorv_excute and its first argument, as
 * "COMMAND ARG"; the empty text before any. */
typedef const char *(*PFN_QORV_SIM_LAST_COMMAND)(void);
const char *qorv_sim_last_command(void);

/* Stops the engine and forgets counts, commands, the language and the callback. */
typedef void (*PFN_QORV_SIM_RESET)(void);
void qorv_sim_reset(void);

#ifdef __cplusplus
}
#endif

#endif
