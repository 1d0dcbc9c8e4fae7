// Binding to the appliance engine library: loads it, resolves its entry points,
// starts, stops and refreshes it, passes commands to it and forwards its events.
#pragma once

#include <atomic>
#include <string>

#include "QorvEngine.h"
#include "lock.h"

// Where the engine library is loaded from; read once, when a binding is built.
extern const char *LIB_QORV_HELPER_PATH;

class IQorvHelperCallBack {
public:
    virtual ~IQorvHelperCallBack() {}
    virtual int OnQorvEvent(int nEvent, std::string strParam1, std::string strParam2) = 0;
};

// The engine's entry points, resolved with dlsym: their types are those of the
// engine's declarations, so that the binding cannot call one with another signature.
typedef decltype(&qorv_start) PFN_QORV_START;
typedef decltype(&qorv_stop) PFN_QORV_STOP;
typedef decltype(&qorv_register_callback) PFN_QORV_REGISTER_CALLBACK;
typedef decltype(&qorv_excute) PFN_QORV_EXCUTE;
typedef decltype(&qorv_refresh) PFN_QORV_REFRESH;

class CLumoraQorvHelper {
public:
    CLumoraQorvHelper();
    ~CLumoraQorvHelper();

    int StartQorv();
    int StopQorv();
    int RefreshQorv();
    int SetCallback(IQorvHelperCallBack *pCallback);
    std::string Execute(std::string strCommand, std::string strParam1, std::string strParam2, std::string strParam3,
                        std::string strParam4);

    int m_Destroy();

    // Handed to the engine: it has no context argument, hence the static target.
    static int m_OnQorvEvent(int nEvent, const char *pParam1, const char *pParam2);

private:
    CLumoraQorvHelper(const CLumoraQorvHelper &) = delete;
    CLumoraQorvHelper &operator=(const CLumoraQorvHelper &) = delete;

    void m_Init();

    bool m_bStarted;
    void *m_pLibHandle;
    PFN_QORV_START m_pQorv_Start;
    PFN_QORV_STOP m_pQorv_Stop;
    PFN_QORV_REGISTER_CALLBACK m_pQrov_RegisterCallBack;
    PFN_QORV_EXCUTE m_pQorv_Execute;
    PFN_QORV_REFRESH m_pQorv_Refresh;
    CMutex m_Lock;

    // Written on the main loop, read on the engine thread.
    static std::atomic<IQorvHelperCallBack *> m_pQorvHelperCallback;

    friend class CLumoraQorvHelperTestPeer;
};
