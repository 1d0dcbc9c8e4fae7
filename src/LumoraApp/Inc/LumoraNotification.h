// The on-screen notification presenter: posts the engine's device and
// new-device notifications through the notification-data service and launches
// the companion widget when the viewer asks for it.
#pragma once

#include <map>
#include <string>

#include "lock.h"

class LumoraParameter;
class CDeviceNotification;
class CNewDeviceList;

// What a posted notification does when one of its buttons is pressed.
struct TNotiActionItem {
    int nType = 0; // 1: a press may launch the widget; 0: no action
    int nItemId = 0;
    std::string strDeviceID; // handed to the widget; empty for new devices
};

class LumoraNotification {
public:
    LumoraNotification();
    virtual ~LumoraNotification();

    // nEvent 1 takes a CNewDeviceList, 5 a CDeviceNotification. Returns 1 when
    // a notification was posted, 0 otherwise.
    int Add(int nEvent, LumoraParameter *pParam);
    // Takes down every posted notification and forgets its action.
    void Clear();

private:
    LumoraNotification(const LumoraNotification &) = delete;
    LumoraNotification &operator=(const LumoraNotification &) = delete;

    void m_InitNotification();
    int m_AddDeviceNotification(CDeviceNotification *pNotification);
    int m_AddNewDeviceFound(CNewDeviceList *pList);
    int m_AddUnknownDeviceFound(CNewDeviceList *pList);
    int m_AddDeviceListNotification(CNewDeviceList *pList, const char *pBodyTail);
    TNotiActionItem *m_GetNotification(int nItemId);

    static void m_OnNotificationButtonCallback(int nItemId, int nButtonIndex, void *pUserData);
    static void m_OnNotificationTimeoutCallback(int nItemId, void *pUserData);

    int m_nItemId;
    std::map<int, TNotiActionItem *> m_mapNotiItem;
    CMutex m_Lock; // recursive: the button callback re-enters it

    friend class LumoraNotificationTestPeer;
};
