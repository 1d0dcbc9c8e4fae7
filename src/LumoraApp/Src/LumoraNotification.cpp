#include "LumoraNotification.h"

#include <libintl.h>
#include <notification_data.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "ExtLog.h"
#include "LumoraParameter.h"
#include "LumoraWidgetHelper.h"
#include "TvPaths.h"

// On the TV's 32-bit user space the record is the platform's 22-word, 88-byte
// layout: a header that drifts from it would post garbage to the viewer.
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(notification_data_t) == 88, "the notification record is 22 words");
static_assert(offsetof(notification_data_t, version) == 0 && offsetof(notification_data_t, popup) == 4 &&
                  offsetof(notification_data_t, style) == 8 && offsetof(notification_data_t, app_id) == 12 &&
                  offsetof(notification_data_t, item_id) == 16 && offsetof(notification_data_t, reserved1) == 20 &&
                  offsetof(notification_data_t, title) == 32 && offsetof(notification_data_t, body) == 36 &&
                  offsetof(notification_data_t, sub_text) == 40 && offsetof(notification_data_t, reserved2) == 44 &&
                  offsetof(notification_data_t, button_count) == 56 &&
                  offsetof(notification_data_t, need_answer) == 60 &&
                  offsetof(notification_data_t, button_label) == 64 && offsetof(notification_data_t, button_icon) == 76,
              "the notification record's fields are at the platform's offsets");
#endif

namespace {

const char *const APP_ID = "org.kelvar.lumora";
const char *const WIDGET_APP_ID = "PzKmRvTqXa.Lumora";
const char *const TEXT_DOMAIN = "lumora";

const char *const ICON_CLOSE =
    LUMORA_TV_PATH("/usr/share/COMMONRESOURCE/IMAGE/ICON/ICON_BLACK/SMALL/i_close_cancel.png");
const char *const ICON_GO = LUMORA_TV_PATH("/usr/share/COMMONRESOURCE/IMAGE/ICON/ICON_BLACK/SMALL/i_go.png");
const char *const ICON_ALLOW = LUMORA_TV_PATH("/usr/share/COMMONRESOURCE/IMAGE/ICON/ICON_BLACK/SMALL/i_allow.png");
const char *const ICON_DENY = LUMORA_TV_PATH("/usr/share/COMMONRESOURCE/IMAGE/ICON/ICON_BLACK/SMALL/i_deny.png");

// The engine's event numbers this presenter shows.
enum {
    EVENT_NEW_DEVICE_LIST = 1,
    EVENT_DEVICE_NOTIFICATION = 5,
};

enum {
    STYLE_DEVICE = 1,
    STYLE_NEW_DEVICE = 2,
};

enum {
    ACTION_NONE = 0,
    ACTION_LAUNCH_WIDGET = 1,
};

const int LAUNCH_BUTTON_INDEX = 1;

// The catalogue's own text: it stays loaded for the life of the process.
const char *Translate(const char *pMsgId)
{
    return dgettext(TEXT_DOMAIN, pMsgId);
}

// The fields every notification of this service shares; the rest stay zero.
void FillCommon(notification_data_t &data, int nStyle, int nItemId)
{
    std::memset(&data, 0, sizeof data);
    data.version = 1;
    data.popup = 1;
    data.style = nStyle;
    data.app_id = APP_ID;
    data.item_id = nItemId;
    data.sub_text = "";
}

} // namespace

LumoraNotification::LumoraNotification() : m_nItemId(1)
{
    m_InitNotification();
}

LumoraNotification::~LumoraNotification()
{
    Clear();
    close_notification_data_manager();
}

void LumoraNotification::m_InitNotification()
{
    LUMORA_LOG(EXT_LOG_DEBUG, "InitNotificationDataManager Begin");
    init_notification_data_manager(APP_ID, 0);
    register_notification_button_callback(m_OnNotificationButtonCallback, this);
    register_notification_timeout_callback(m_OnNotificationTimeoutCallback, this);
    LUMORA_LOG(EXT_LOG_DEBUG, "InitNotificationDataManager End");
}

int LumoraNotification::Add(int nEvent, LumoraParameter *pParam)
{
    LUMORA_LOG(EXT_LOG_DEBUG, "LumoraNotification::Add, nEvent=%d", nEvent);
    // The caller pairs the parameter with its event; no run-time check.
    switch (nEvent) {
    case EVENT_NEW_DEVICE_LIST: return m_AddNewDeviceFound(static_cast<CNewDeviceList *>(pParam));
    case EVENT_DEVICE_NOTIFICATION: return m_AddDeviceNotification(static_cast<CDeviceNotification *>(pParam));
    default: LUMORA_LOG(EXT_LOG_DEBUG, "[CNotiAction]-Unreachable code, nEvent=%d", nEvent); return 0;
    }
}

int LumoraNotification::m_AddDeviceNotification(CDeviceNotification *pNotification)
{
    CAutoLock lock(m_Lock);
    LUMORA_LOG(EXT_LOG_DEBUG, "LumoraNotification::m_AddDeviceNotification");
    const CDeviceNotification::Data &info = pNotification->m_Data;
    if (!info.bDisplayFlag)
        return 0;

    CLumoraWidgetHelper widget;
    const bool bWidgetRunning = widget.IsWidgetLaunched(WIDGET_APP_ID);
    if (bWidgetRunning && info.strDisplayCondition == "NoneWidget") {
        LUMORA_LOG(EXT_LOG_DEBUG,
                   "LumoraNotification::m_AddDeviceNotification this is notification is no need to show");
        return 0;
    }

    LUMORA_LOG(EXT_LOG_DEBUG, "LumoraNotification::m_AddDeviceNotification show the notification");
    const int nItemId = m_nItemId++;
    TNotiActionItem *pItem = new TNotiActionItem;
    pItem->nItemId = nItemId;
    pItem->strDeviceID = info.strID;

    notification_data_t data;
    FillCommon(data, STYLE_DEVICE, nItemId);
    data.title = info.strCtrlName.c_str();
    data.body = info.strNotiText.c_str();
    data.need_answer = 0;

    if (!bWidgetRunning) {
        pItem->nType = ACTION_LAUNCH_WIDGET;
        data.button_count = 2;
        data.button_label[0] = Translate("SID_CLOSE");
        data.button_icon[0] = ICON_CLOSE;
        data.button_label[1] = Translate("TV_SID_GO_TO_LUMORA");
        data.button_icon[1] = ICON_GO;
    } else if (info.strDisplayCondition == "Always") {
        pItem->nType = ACTION_NONE;
        data.button_count = 1;
        data.button_label[0] = Translate("SID_OK");
        data.button_icon[0] = ICON_ALLOW;
    } else {
        pItem->nType = ACTION_NONE;
        data.button_count = 0;
    }

    add_notification_data(&data);
    m_mapNotiItem[nItemId] = pItem;
    return 1;
}

int LumoraNotification::m_AddNewDeviceFound(CNewDeviceList *pList)
{
    CAutoLock lock(m_Lock);
    LUMORA_LOG(EXT_LOG_DEBUG, "LumoraNotification::m_AddNewDeviceFound");
    // Deliberate: the body ends with the title's text again. Pinned by
    // LumoraNotificationTest (layouts) and LumoraManagerTest (dispatch by kind).
    return m_AddDeviceListNotification(pList, "TV_NEW_HOME_APPLIANCE_DETECTED");
}

int LumoraNotification::m_AddUnknownDeviceFound(CNewDeviceList *pList)
{
    CAutoLock lock(m_Lock);
    LUMORA_LOG(EXT_LOG_DEBUG, "LumoraNotification::m_AddUnknownDeviceFound");
    return m_AddDeviceListNotification(pList, "TV_NEED_REGISTER_APPLIANCE_MSG");
}

// The new-device and unknown-device notifications differ only in the message
// appended to the device summary.
int LumoraNotification::m_AddDeviceListNotification(CNewDeviceList *pList, const char *pBodyTail)
{
    CAutoLock lock(m_Lock);
    const int nItemId = m_nItemId++;
    TNotiActionItem *pItem = new TNotiActionItem;
    pItem->nType = ACTION_LAUNCH_WIDGET;
    pItem->nItemId = nItemId;

    const char *pTitle = Translate("TV_NEW_HOME_APPLIANCE_DETECTED");
    std::string strBody = pList->GetSummary();
    strBody += Translate(pBodyTail);

    notification_data_t data;
    FillCommon(data, STYLE_NEW_DEVICE, nItemId);
    data.title = pTitle;
    data.body = strBody.c_str();
    data.button_count = 2;
    data.need_answer = 1;
    data.button_label[0] = Translate("SID_YES");
    data.button_icon[0] = ICON_ALLOW;
    data.button_label[1] = Translate("SID_NO");
    data.button_icon[1] = ICON_DENY;

    add_notification_data(&data);
    m_mapNotiItem[nItemId] = pItem;
    return 1;
}

TNotiActionItem *LumoraNotification::m_GetNotification(int nItemId)
{
    CAutoLock lock(m_Lock);
    return m_mapNotiItem[nItemId];
}

void LumoraNotification::m_OnNotificationButtonCallback(int nItemId, int nButtonIndex, void *pUserData)
{
    // Deliberate: the message stops at "= ", the index is not printed. Pinned
    // by LumoraNotificationTest (button presses).
    LUMORA_LOG(EXT_LOG_DEBUG, "m_OnNotificationButtonCallback: nItemId = %d, nButtonIdex = ", nItemId);
    LumoraNotification *pThis = static_cast<LumoraNotification *>(pUserData);
    if (!pThis) {
        LUMORA_LOG(EXT_LOG_DEBUG, "m_OnNotificationButtonCallback: error the userdata is NULL");
        return;
    }

    CAutoLock lock(pThis->m_Lock);
    // Deliberate: the service only reports items this presenter posted, so the
    // entry is there; an unknown id would leave a null entry behind and not be
    // checked. No test pins it (such a press would crash).
    TNotiActionItem *pNotiItem = pThis->m_GetNotification(nItemId);
    LUMORA_LOG(EXT_LOG_DEBUG, "m_OnNotificationButtonCallback: pNotiItem->nType = %d", pNotiItem->nType);
    if (nButtonIndex == LAUNCH_BUTTON_INDEX && pNotiItem->nType == ACTION_LAUNCH_WIDGET) {
        CLumoraWidgetHelper widget;
        widget.LaunchWidget(WIDGET_APP_ID, pNotiItem->strDeviceID);
    }
}

void LumoraNotification::m_OnNotificationTimeoutCallback(int nItemId, void *pUserData)
{
    (void)pUserData;
    LUMORA_LOG(EXT_LOG_DEBUG, "m_OnNotificationTimeoutCallback: nItemId = %d", nItemId);
}

// Deliberate: the only way posted items go; presses and timeouts remove
// nothing, so every item lives until the presenter does (the process end).
// Pinned by LumoraNotificationTest (taken down in order at the end; a pressed
// pop-up stays) and LumoraLoadTest (memory grows only by what is kept).
void LumoraNotification::Clear()
{
    CAutoLock lock(m_Lock);
    for (auto it = m_mapNotiItem.begin(); it != m_mapNotiItem.end(); it = m_mapNotiItem.erase(it)) {
        // A null entry was never posted: nothing to take down.
        if (!it->second)
            continue;
        remove_notification_data(APP_ID, it->second->nItemId);
        delete it->second;
    }
}
