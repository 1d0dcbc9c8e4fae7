// The simulated appliance engine: the engine's five entry points and the
// simulator's own test entry points, exported as plain C functions. The five
// are defined against the service's own declarations (QorvEngine.h), so that
// the engine the tests load is the engine the binding was written for.
#include "qorv_sim.h"

#include "QorvEngine.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "engine.h"
#include "qorv_sim_client.h"
#include "trace.h"
#include "tvhost/parse.h"

#define QORV_EXPORT extern "C" __attribute__((visibility("default")))

using qorvsim::Trace;

namespace {

// A static object rather than __attribute__((destructor)): at dlclose both
// run, but at process exit a destructor function runs only after the exit
// handlers, when the service's own objects may already be gone and the
// engine thread could still be calling into them. This object is destroyed
// with the other exit handlers, before anything created earlier.
qorvsim::Engine g_engine;

// Only texts with static storage are handed out: a result must stay valid
// after the call, and a thread_local std::string would pin the library in
// memory (glibc keeps a library loaded while threads hold its TLS destructors).
const char kOK[] = "OK";
const char kNoLanguage[] = "ERROR no language";
const char kUnknownCommand[] = "ERROR unknown command";

thread_local char t_szLastCommand[512];

#ifdef QORV_SIM_START_FAILS
constexpr bool kStartFails = true;
#else
constexpr bool kStartFails = false;
#endif

std::string ModePath()
{
    const char *pPath = getenv("QORV_SIM_MODE");
    if (pPath && *pPath)
        return pPath;
    return LUMORA_TV_ROOT "/opt/usr/apps/org.kelvar.lumora/data/mode.xml";
}

// QORV_SIM_SPEED=10 plays a scenario ten times as fast (tests, a quick look).
double Speed()
{
    const char *pSpeed = getenv("QORV_SIM_SPEED");
    if (!pSpeed || !*pSpeed)
        return 1.0;
    double dSpeed = 0;
    if (!tvhost::ParseReal(pSpeed, dSpeed) || !(dSpeed > 0.0) || dSpeed > 1e6) {
        Trace("QORV_SIM_SPEED=\"%s\" is not a factor above 0; normal speed", pSpeed);
        return 1.0;
    }
    return dSpeed;
}

bool Quiet()
{
    const char *pQuiet = getenv("QORV_SIM_QUIET");
    return pQuiet && *pQuiet && strcmp(pQuiet, "0") != 0;
}

} // namespace

QORV_EXPORT int qorv_start()
{
    g_engine.Count("qorv_start");
    qorvsim::SetQuiet(Quiet());
    if (kStartFails) {
        Trace("start refused (this engine is built to fail its start)");
        return 0;
    }
    qorvsim::StartOptions options;
    options.strModePath = ModePath();
    options.strSocketPath = qorvsim::DefaultSocketPath();
    options.dSpeed = Speed();
    return g_engine.Start(options) ? 1 : 0;
}

#ifndef QORV_SIM_NO_STOP
QORV_EXPORT int qorv_stop()
{
    g_engine.Count("qorv_stop");
    g_engine.Stop();
    return 1;
}
#endif

#ifndef QORV_SIM_NO_REGISTER
QORV_EXPORT int qorv_register_callback(QorvEventCallback pfnCallback)
{
    g_engine.Count("qorv_register_callback");
#ifdef QORV_SIM_REGISTER_FAILS
    Trace("callback refused (this engine is built to fail its registration)");
    return 0;
#endif
    g_engine.SetCallback(pfnCallback);
    Trace(pfnCallback ? "callback registered" : "callback removed");
    return pfnCallback != nullptr;
}
#endif

QORV_EXPORT const char *qorv_excute(const char *pCommand, const char *pParam1, const char *pParam2, const char *pParam3,
                                    const char *pParam4)
{
    (void)pParam2;
    (void)pParam3;
    (void)pParam4;
    g_engine.Count("qorv_excute");
    std::string strCommand = pCommand ? pCommand : "";
    std::string strArg = pParam1 ? pParam1 : "";
    g_engine.SetLastCommand(strCommand + " " + strArg);

    const char *pResult = kUnknownCommand;
    if (strCommand == "SetLanguage" || strCommand == "SetSystemLanguage") {
        if (strArg.empty()) {
            pResult = kNoLanguage;
        } else {
            g_engine.SetLanguage(strArg);
            pResult = kOK;
        }
    }
    Trace("command %s \"%s\" -> %s", strCommand.c_str(), strArg.c_str(), pResult);
#ifdef QORV_SIM_EXECUTE_NULL
    return nullptr;
#else
    return pResult;
#endif
}

QORV_EXPORT int qorv_refresh()
{
    g_engine.Count("qorv_refresh");
#ifdef QORV_SIM_REFRESH_FAILS
    Trace("refresh refused (this engine is built to fail its refresh)");
    return 0;
#endif
    if (!g_engine.RequestRefresh()) {
        Trace("refresh refused: not started");
        return 0;
    }
    return 1;
}

QORV_EXPORT int qorv_sim_emit(int nEvent, const char *pParam1, const char *pParam2)
{
    return g_engine.Emit(nEvent, pParam1, pParam2);
}

QORV_EXPORT int qorv_sim_calls(const char *pEntry)
{
    return g_engine.Calls(pEntry);
}

QORV_EXPORT const char *qorv_sim_last_command(void)
{
    snprintf(t_szLastCommand, sizeof t_szLastCommand, "%s", g_engine.LastCommand().c_str());
    return t_szLastCommand;
}

QORV_EXPORT void qorv_sim_reset(void)
{
    g_engine.Reset();
}
