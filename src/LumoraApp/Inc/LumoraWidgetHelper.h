// Questions about the companion widget (installed? running?) and its launch.
#pragma once

#include <string>

#include <was.h>

class CLumoraWidgetHelper {
public:
    CLumoraWidgetHelper();
    ~CLumoraWidgetHelper();

    bool IsWidgetInstalled(std::string strAppID);
    bool IsWidgetLaunched(std::string strAppID);
    void LaunchWidget(std::string strAppID, std::string strDeviceID);

    // Shaped like the web-application service's event callback. Deliberate:
    // nothing hands it to the platform.
    static void m_OnLaunchWidgetCallBack(void *pUserData, int nResult, const char *pAppID, was_event_type_e eEventType);

private:
    std::string m_strDeviceID;

    friend class CLumoraWidgetHelperTestPeer;
};
