#include "LumoraWidgetChecker.h"

#include <cstring>

#include "ExtLog.h"

namespace {

const char kWidgetAppID[] = "PzKmRvTqXa.Lumora";
// Bumped by the web-application service on every install and removal.
const char kAppChangeKey[] = "memory/was/app_change";

} // namespace

CLumoraWidgetChecker::CLumoraWidgetChecker() : m_pfnWidgetInstalledCB(nullptr), m_bWidgetInstalled(false)
{
    // Deliberate: never unregistered, not even by the destructor; the owner
    // keeps the watcher until the process ends. LumoraHelpersTest (watcher)
    // checks the one subscription; no test checks that it outlives the watcher.
    vconf_notify_key_changed(kAppChangeKey, m_CbWasAppChanged, this);
}

CLumoraWidgetChecker::~CLumoraWidgetChecker()
{
    m_pfnWidgetInstalledCB = nullptr;
    m_bWidgetInstalled = false;
}

void CLumoraWidgetChecker::SetWidgetInstalledCB(void (*pfnWidgetInstalledCB)(bool))
{
    m_pfnWidgetInstalledCB = pfnWidgetInstalledCB;
    t_Loop();
    LUMORA_LOG(EXT_LOG_DEBUG, "===== CLumoraWidgetChecker in SetWidgetInstalledCB function =====");
}

void CLumoraWidgetChecker::t_Loop()
{
    LUMORA_LOG(EXT_LOG_DEBUG, "===== CLumoraWidgetChecker in loop function 1 =====");
    const bool bInstalled = m_WidgetHelper.IsWidgetInstalled(kWidgetAppID);
    if (bInstalled != m_bWidgetInstalled) {
        if (m_pfnWidgetInstalledCB)
            m_pfnWidgetInstalledCB(bInstalled);
        m_bWidgetInstalled = bInstalled;
    }
    LUMORA_LOG(EXT_LOG_DEBUG, "===== CLumoraWidgetChecker in loop function 2 =====");
}

void CLumoraWidgetChecker::m_CbWasAppChanged(keynode_t *pKeyNode, void *pUserData)
{
    LUMORA_LOG(EXT_LOG_DEBUG, "===== CLumoraWidgetChecker in m_CbWasAppChanged function 1 =====");
    CLumoraWidgetChecker *pChecker = static_cast<CLumoraWidgetChecker *>(pUserData);
    if (!pChecker) {
        LUMORA_LOG(EXT_LOG_ERROR, "The pChecker is NULL");
        return;
    }

    LUMORA_LOG(EXT_LOG_DEBUG, "===== CLumoraWidgetChecker in m_CbWasAppChanged function 2 =====");
    const char *pKeyName = vconf_keynode_get_name(pKeyNode);
    if (!pKeyName) {
        LUMORA_LOG(EXT_LOG_ERROR, "keyName==NULL");
        return;
    }

    LUMORA_LOG(EXT_LOG_DEBUG, "===== CLumoraWidgetChecker in m_CbWasAppChanged function 3 =====");
    LUMORA_LOG(EXT_LOG_DEBUG, "The keyName is [%s]", pKeyName);
    if (std::strcmp(pKeyName, kAppChangeKey) != 0 || vconf_keynode_get_type(pKeyNode) != VCONF_TYPE_INT)
        return;

    // The value only says that something changed; the check finds out what.
    int nValue = 0;
    if (vconf_get_int(kAppChangeKey, &nValue) == 0)
        LUMORA_LOG(EXT_LOG_DEBUG, "Get the app change value success nValue = [%d]", nValue);
    pChecker->t_Loop();
}
