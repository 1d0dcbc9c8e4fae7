#include "EngineSim.h"

#include <dlfcn.h>
#include <stdexcept>

#include "LumoraQorvHelper.h"

namespace {
template <typename Fn>
Fn Lookup(void *pHandle, const char *pName)
{
    void *p = dlsym(pHandle, pName);
    if (!p)
        throw std::runtime_error(std::string("engine simulator lacks ") + pName);
    return reinterpret_cast<Fn>(p);
}
} // namespace

std::string EngineSim::DefaultPath()
{
    static const std::string path = LIB_QORV_HELPER_PATH; // captured before any test changes it
    return path;
}

std::string EngineSim::Variant(const char *name)
{
    return std::string(QORV_SIM_VARIANT_DIR) + "/libqorv_" + name + ".so";
}

EngineSim::EngineSim(const std::string &path) : m_pHandle(dlopen(path.c_str(), RTLD_NOW))
{
    if (!m_pHandle)
        throw std::runtime_error("cannot open " + path + ": " + dlerror());
    m_pfnEmit = Lookup<PFN_QORV_SIM_EMIT>(m_pHandle, "qorv_sim_emit");
    m_pfnCalls = Lookup<PFN_QORV_SIM_CALLS>(m_pHandle, "qorv_sim_calls");
    m_pfnLastCommand = Lookup<PFN_QORV_SIM_LAST_COMMAND>(m_pHandle, "qorv_sim_last_command");
    m_pfnReset = Lookup<PFN_QORV_SIM_RESET>(m_pHandle, "qorv_sim_reset");
    m_pfnReset();
}

EngineSim::~EngineSim()
{
    dlclose(m_pHandle);
}
