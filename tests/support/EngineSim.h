// Opens a simulated engine library beside the service's binding, to reach the
// simulator's own entry points (raise an event, count calls).
#pragma once

#include <string>

#include "qorv_sim.h"

class EngineSim {
public:
    // Default: the engine at the service's library path in the host TV root.
    explicit EngineSim(const std::string &path = DefaultPath());
    ~EngineSim();

    static std::string DefaultPath();
    static std::string Variant(const char *name); // e.g. "nostop"

    int Emit(int nEvent, const char *pParam1, const char *pParam2) const { return m_pfnEmit(nEvent, pParam1, pParam2); }
    int Calls(const char *pEntry) const { return m_pfnCalls(pEntry); }
    std::string LastCommand() const { return m_pfnLastCommand(); }

private:
    void *m_pHandle;
    PFN_QORV_SIM_EMIT m_pfnEmit;
    PFN_QORV_SIM_CALLS m_pfnCalls;
    PFN_QORV_SIM_LAST_COMMAND m_pfnLastCommand;
    PFN_QORV_SIM_RESET m_pfnReset;
};
