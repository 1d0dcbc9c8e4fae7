// Tells its owner whenever the companion widget becomes installed or removed.
#pragma once

#include <vconf.h>

#include "LumoraWidgetHelper.h"

class CLumoraWidgetChecker {
public:
    CLumoraWidgetChecker();
    virtual ~CLumoraWidgetChecker();

    // Stores the handler and checks at once; the handler hears only changes.
    void SetWidgetInstalledCB(void (*pfnWidgetInstalledCB)(bool));
    // One check, on the calling thread.
    void t_Loop();

private:
    static void m_CbWasAppChanged(keynode_t *pKeyNode, void *pUserData);

    void (*m_pfnWidgetInstalledCB)(bool);
    CLumoraWidgetHelper m_WidgetHelper;
    bool m_bWidgetInstalled;

    friend class CLumoraWidgetCheckerTestPeer;
};
