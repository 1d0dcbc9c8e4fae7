// The simulated appliance engine. It exports the engine's five entry points and
// raises its events on threads of its own, never on the caller's.
#include "qorv_sim.h"

#include <map>
#include <mutex>
#include <string>
#include <thread>

#define QORV_EXPORT extern "C" __attribute__((visibility("default")))

typedef int (*QorvEventCallback)(int nEvent, const char *pParam1, const char *pParam2);

namespace {

struct Engine {
    std::mutex mutex;
    bool bStarted = false;
    QorvEventCallback pfnCallback = nullptr;
    std::map<std::string, int> calls;
    std::string strLastCommand;
    std::string strLanguage;
};

Engine &TheEngine()
{
    static Engine engine;
    return engine;
}

void Count(const char *pEntry)
{
    Engine &e = TheEngine();
    std::lock_guard<std::mutex> lock(e.mutex);
    ++e.calls[pEntry];
}

// The result text of qorv_excute stays valid until the next call on the same thread.
thread_local std::string t_strResult;

} // namespace

QORV_EXPORT int qorv_start()
{
    Count("qorv_start");
#ifdef QORV_SIM_START_FAILS
    return 0;
#else
    Engine &e = TheEngine();
    std::lock_guard<std::mutex> lock(e.mutex);
    e.bStarted = true;
    return 1;
#endif
}

#ifndef QORV_SIM_NO_STOP
QORV_EXPORT int qorv_stop()
{
    Count("qorv_stop");
    Engine &e = TheEngine();
    std::lock_guard<std::mutex> lock(e.mutex);
    e.bStarted = false;
    return 1;
}
#endif

QORV_EXPORT int qorv_register_callback(QorvEventCallback pfnCallback)
{
    Count("qorv_register_callback");
    Engine &e = TheEngine();
    std::lock_guard<std::mutex> lock(e.mutex);
    e.pfnCallback = pfnCallback;
    return pfnCallback != nullptr;
}

QORV_EXPORT const char *qorv_excute(const char *pCommand, const char *pParam1, const char *pParam2,
                                   const char *pParam3, const char *pParam4)
{
    (void)pParam2;
    (void)pParam3;
    (void)pParam4;
    Count("qorv_excute");
    Engine &e = TheEngine();
    std::string strCommand = pCommand ? pCommand : "";
    std::string strArg = pParam1 ? pParam1 : "";
    {
        std::lock_guard<std::mutex> lock(e.mutex);
        e.strLastCommand = strCommand + " " + strArg;
        if (strCommand == "SetLanguage" || strCommand == "SetSystemLanguage")
            e.strLanguage = strArg;
    }
#ifdef QORV_SIM_EXECUTE_NULL
    return nullptr;
#else
    if (strCommand == "SetLanguage" || strCommand == "SetSystemLanguage")
        t_strResult = "OK";
    else
        t_strResult = "ERROR unknown command " + strCommand;
    return t_strResult.c_str();
#endif
}

QORV_EXPORT int qorv_refresh()
{
    Count("qorv_refresh");
    return 1;
}

QORV_EXPORT int qorv_sim_emit(int nEvent, const char *pParam1, const char *pParam2)
{
    QorvEventCallback pfn;
    {
        Engine &e = TheEngine();
        std::lock_guard<std::mutex> lock(e.mutex);
        pfn = e.pfnCallback;
    }
    if (pfn == nullptr)
        return -2;
#ifdef QORV_SIM_NULL_TEXT
    pParam1 = nullptr;
#endif
    int nResult = 0;
    std::thread engineThread([&] { nResult = pfn(nEvent, pParam1, pParam2); });
    engineThread.join();
    return nResult;
}

QORV_EXPORT int qorv_sim_calls(const char *pEntry)
{
    Engine &e = TheEngine();
    std::lock_guard<std::mutex> lock(e.mutex);
    auto it = e.calls.find(pEntry ? pEntry : "");
    return it == e.calls.end() ? 0 : it->second;
}

QORV_EXPORT const char *qorv_sim_last_command(void)
{
    Engine &e = TheEngine();
    std::lock_guard<std::mutex> lock(e.mutex);
    t_strResult = e.strLastCommand;
    return t_strResult.c_str();
}

QORV_EXPORT void qorv_sim_reset(void)
{
    Engine &e = TheEngine();
    std::lock_guard<std::mutex> lock(e.mutex);
    e.calls.clear();
    e.strLastCommand.clear();
    e.pfnCallback = nullptr;
    e.bStarted = false;
}
