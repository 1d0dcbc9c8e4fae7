#include "LumoraQorvHelper.h"

#include <dlfcn.h>

#include "ExtLog.h"
#include "TvPaths.h"

const char *LIB_QORV_HELPER_PATH = LUMORA_TV_PATH("/usr/apps/org.kelvar.lumora/bin/lib.target/libqorv_helper.so");

std::atomic<IQorvHelperCallBack *> CLumoraQorvHelper::m_pQorvHelperCallback{nullptr};

CLumoraQorvHelper::CLumoraQorvHelper()
    : m_bStarted(false), m_pLibHandle(nullptr), m_pQorv_Start(nullptr), m_pQorv_Stop(nullptr),
      m_pQrov_RegisterCallBack(nullptr), m_pQorv_Execute(nullptr), m_pQorv_Refresh(nullptr)
{
    m_Init();
}

CLumoraQorvHelper::~CLumoraQorvHelper()
{
    // Stopping the engine is the owner's business; this only unloads it.
    if (m_pLibHandle != nullptr)
        dlclose(m_pLibHandle);
    m_pQorv_Start = nullptr;
    m_pQorv_Stop = nullptr;
    m_pQrov_RegisterCallBack = nullptr;
    m_pQorv_Execute = nullptr;
    m_pQorv_Refresh = nullptr;
    m_pQorvHelperCallback = nullptr;
}

namespace {

// Looks one entry point up; a failure stops the lookup of every later one.
template <typename Fn>
bool Resolve(void *pHandle, const char *pName, Fn &pfn)
{
    dlerror(); // forget any earlier error, so that only this lookup is judged
    pfn = reinterpret_cast<Fn>(dlsym(pHandle, pName));
    if (dlerror() != nullptr) {
        pfn = nullptr;
        return false;
    }
    return true;
}

} // namespace

void CLumoraQorvHelper::m_Init()
{
    m_pLibHandle = dlopen(LIB_QORV_HELPER_PATH, RTLD_LAZY);
    if (m_pLibHandle == nullptr) {
        const char *pError = dlerror();
        LUMORA_LOG(EXT_LOG_ERROR, "Open the qorv helper library failed!");
        LUMORA_LOG(EXT_LOG_ERROR, "Open failed the error is %s!", pError);
        return;
    }

    if (!Resolve(m_pLibHandle, "qorv_start", m_pQorv_Start)) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper Get the qorv_start function failed!");
        return;
    }
    if (!Resolve(m_pLibHandle, "qorv_stop", m_pQorv_Stop)) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper Get the qorv_stop function failed!");
        return;
    }
    if (!Resolve(m_pLibHandle, "qorv_register_callback", m_pQrov_RegisterCallBack)) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper Get the qorv_register_callback function failed!");
        return;
    }
    if (!Resolve(m_pLibHandle, "qorv_excute", m_pQorv_Execute)) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper Get the qorv_excute function failed!");
        return;
    }
    if (!Resolve(m_pLibHandle, "qorv_refresh", m_pQorv_Refresh)) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper Get the qorv_refresh function failed!");
        return;
    }
}

int CLumoraQorvHelper::m_Destroy()
{
    int nResult = 0;
    if (m_pLibHandle != nullptr)
        nResult = dlclose(m_pLibHandle);
    m_pQorv_Start = nullptr;
    m_pQorv_Stop = nullptr;
    m_pQrov_RegisterCallBack = nullptr;
    m_pQorv_Execute = nullptr;
    m_pQorv_Refresh = nullptr;
    return nResult;
}

int CLumoraQorvHelper::StartQorv()
{
    CAutoLock lock(m_Lock);
    if (m_bStarted) {
        LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Lumora Helper has been started already!");
        return m_bStarted;
    }
    if (m_pQorv_Start == nullptr) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper the m_pQorv_Start is NULL!");
        return 0;
    }
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Begin to start qorv!");
    int nResult = m_pQorv_Start();
    if (nResult == 0) {
        LUMORA_LOG(EXT_LOG_ERROR, "Start QORV failed!");
        return 0;
    }
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper start qorv success!");
    m_bStarted = true;
    return nResult;
}

int CLumoraQorvHelper::StopQorv()
{
    CAutoLock lock(m_Lock);
    if (!m_bStarted) {
        LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Lumora Helper has not been started!");
        return 1;
    }
    if (m_pQorv_Stop == nullptr) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper the m_pQorv_Stop is NULL!");
        return 0;
    }
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Begin to stop qorv!");
    int nResult = m_pQorv_Stop();
    if (nResult == 0) {
        LUMORA_LOG(EXT_LOG_ERROR, "Stop QORV failed!");
        return 0;
    }
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Stop qorv success!");
    m_bStarted = false;
    return nResult;
}

int CLumoraQorvHelper::RefreshQorv()
{
    // Deliberate: stopped counts as done, here as in SetCallback and
    // StopQorv. Pinned by LumoraQorvHelperTest (calls while stopped).
    if (!m_bStarted) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper Lumora Helper has not been started!");
        return 1;
    }
    if (m_pQorv_Refresh == nullptr) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper the m_pQorv_Refresh is NULL!");
        return 0;
    }
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Begin to refresh qorv!");
    int nResult = m_pQorv_Refresh();
    if (nResult != 0)
        LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Refresh qorv success!");
    else
        LUMORA_LOG(EXT_LOG_ERROR, "Refresh QORV failed!");
    return nResult;
}

int CLumoraQorvHelper::SetCallback(IQorvHelperCallBack *pCallback)
{
    // Deliberate: stopped, nothing is registered, yet the caller sees success.
    // Pinned by LumoraQorvHelperTest (calls while stopped).
    if (!m_bStarted) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper Lumora Helper has not been started!");
        return 1;
    }
    if (m_pQrov_RegisterCallBack == nullptr) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper the m_pQrov_RegisterCallBack is NULL!");
        return 0;
    }
    if (pCallback == nullptr) {
        LUMORA_LOG(EXT_LOG_ERROR, "The pLUManagerInst is invalid!");
        return 0;
    }
    m_pQorvHelperCallback = pCallback;
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Begin to register callback!");
    int nResult = m_pQrov_RegisterCallBack(m_OnQorvEvent);
    if (nResult != 0)
        LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper register callback success!");
    else
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper register callback failed!");
    return nResult;
}

std::string CLumoraQorvHelper::Execute(std::string strCommand, std::string strParam1, std::string strParam2,
                                       std::string strParam3, std::string strParam4)
{
    std::string strResult;
    if (!m_bStarted) {
        LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Lumora Helper has not been started!");
        return strResult;
    }
    if (m_pQorv_Execute == nullptr) {
        LUMORA_LOG(EXT_LOG_ERROR, "CLumoraQorvHelper the m_pQorv_Execute is NULL!");
        return strResult;
    }
    // Deliberate: the third and fourth arguments reach the engine but never
    // the log. Pinned by LumoraQorvHelperTest (calls while started).
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Begin to Execute strCommand = %s!", strCommand.c_str());
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Begin to Execute strParam1 = %s!", strParam1.c_str());
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Begin to Execute strParam2 = %s!", strParam2.c_str());

    // The result text belongs to the engine: copied, never freed.
    const char *pResult =
        m_pQorv_Execute(strCommand.c_str(), strParam1.c_str(), strParam2.c_str(), strParam3.c_str(), strParam4.c_str());
    if (pResult != nullptr)
        strResult = pResult;
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraQorvHelper Begin to Execute strResult = %s!", strResult.c_str());
    return strResult;
}

int CLumoraQorvHelper::m_OnQorvEvent(int nEvent, const char *pParam1, const char *pParam2)
{
    if (pParam1 == nullptr || pParam2 == nullptr) {
        LUMORA_LOG(EXT_LOG_ERROR, "The param1 or param2 is invalid !");
        return -1;
    }
    IQorvHelperCallBack *pCallback = m_pQorvHelperCallback;
    if (pCallback == nullptr) {
        LUMORA_LOG(EXT_LOG_ERROR, "The m_pQorvHelperCallback is invalid!");
        return -1;
    }
    return pCallback->OnQorvEvent(nEvent, std::string(pParam1), std::string(pParam2));
}
