#include <gtest/gtest.h>

#include <sstream>

#include "LogCapture.h"
#include "LumoraNotification.h"
#include "LumoraParameter.h"
#include "tvhost/apps.h"
#include "tvhost/faults.h"
#include "tvhost/notifications.h"
#include "tvhost/tvhost.h"

class LumoraNotificationTestPeer {
public:
    static int AddUnknown(LumoraNotification &n, CNewDeviceList *pList) { return n.m_AddUnknownDeviceFound(pList); }
    static void Press(int nItemId, int nIndex, void *pUserData)
    {
        LumoraNotification::m_OnNotificationButtonCallback(nItemId, nIndex, pUserData);
    }
};

namespace {

using Peer = LumoraNotificationTestPeer;
using Texts = std::vector<std::string>;
namespace noti = tvhost::notifications;
namespace apps = tvhost::apps;

const char kWidget[] = "PzKmRvTqXa.Lumora";

// The notification service's calls, in order.
Texts NotificationCalls()
{
    Texts calls;
    for (const std::string &fn : tvhost::faults::CallLog())
        if (fn.find("notification") != std::string::npos)
            calls.push_back(fn);
    return calls;
}
const char kNewDevices[] = "<list><NewDevice id=\"a\"><Type>Washer</Type></NewDevice>"
                           "<NewDevice id=\"b\"><Type>Air Conditioner</Type></NewDevice></list>";

CDeviceNotification Device(const std::string &id, const std::string &condition, bool bFlag = true)
{
    CDeviceNotification n;
    n.m_Data.strID = id;
    n.m_Data.strCtrlName = "Washer";
    n.m_Data.strNotiText = "Done";
    n.m_Data.bDisplayFlag = bFlag;
    n.m_Data.strDisplayCondition = condition;
    return n;
}

// Every field of a posted record on one line; icons by base name once their
// directory under the TV root has been checked.
std::string Words(const noti::Record &r)
{
    auto text = [](const std::optional<std::string> &s) { return s ? "'" + *s + "'" : std::string("null"); };
    const std::string dir = tvhost::Root() + "/usr/share/COMMONRESOURCE/IMAGE/ICON/ICON_BLACK/SMALL/";
    std::ostringstream out;
    out << r.version << r.popup << r.style << ' ' << text(r.appId) << " #" << r.itemId << ' ' << text(r.title) << ' '
        << text(r.body) << ' ' << text(r.subText) << ' ' << r.reserved1[0] << r.reserved1[1] << r.reserved1[2]
        << r.reserved2[0] << r.reserved2[1] << r.reserved2[2] << " n=" << r.buttonCount << " answer=" << r.needAnswer;
    for (int i = 0; i < 3; ++i) {
        std::string icon = r.buttonIcon[i].value_or("-");
        out << " [" << r.buttonLabel[i].value_or("-") << ' '
            << (icon.rfind(dir, 0) == 0 ? icon.substr(dir.size()) : icon) << ']';
    }
    return out.str();
}

class LumoraNotificationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        noti::DrawTo(nullptr);
        WidgetIs(false, false);
    }
    void TearDown() override { apps::SetInstalled(kWidget, false); }
    static void WidgetIs(bool bInstalled, bool bRunning)
    {
        apps::SetInstalled(kWidget, bInstalled);
        apps::SetRunning(kWidget, bRunning);
    }
    LogCapture log;
};

TEST_F(LumoraNotificationTest, EachKindIsPostedWithItsLayoutAndEveryPostedItemIsTakenDownInOrderAtTheEnd)
{
    {
        LumoraNotification presenter;
        EXPECT_EQ(NotificationCalls(), (Texts{"init_notification_data_manager", "register_notification_button_callback",
                                              "register_notification_timeout_callback"}));
        EXPECT_EQ(log.Messages(), (Texts{"InitNotificationDataManager Begin", "InitNotificationDataManager End"}));
        auto off = Device("d0", "Always", false);
        EXPECT_EQ(presenter.Add(5, &off), 0);
        EXPECT_EQ(tvhost::faults::Calls("was_get_app_info"), 0) << "a hidden notification asks nothing";

        // The widget not installed, not running, running; only shown ones take an id.
        const char *const kGo = "n=2 answer=0 [SID_CLOSE i_close_cancel.png] [TV_SID_GO_TO_LUMORA i_go.png] [- -]";
        struct Case {
            bool bInstalled, bRunning;
            const char *condition, *words; // words null: not shown
        } cases[] = {
            {false, false, "NoneWidget", kGo},
            {true, false, "Other", kGo},
            {true, true, "NoneWidget", nullptr},
            {true, true, "Always", "n=1 answer=0 [SID_OK i_allow.png] [- -] [- -]"},
            {true, true, "always", "n=0 answer=0 [- -] [- -] [- -]"},
        };
        for (const Case &c : cases) {
            SCOPED_TRACE(c.condition);
            WidgetIs(c.bInstalled, c.bRunning);
            log.Clear();
            const std::string id = std::to_string(noti::Posted().size() + 1);
            auto n = Device("dev", c.condition);
            EXPECT_EQ(presenter.Add(5, &n), c.words ? 1 : 0);
            EXPECT_EQ(log.Messages().back(),
                      std::string("LumoraNotification::m_AddDeviceNotification ") +
                          (c.words ? "show the notification" : "this is notification is no need to show"));
            if (c.words) {
                EXPECT_EQ(Words(noti::Posted().back()),
                          "111 'org.kelvar.lumora' #" + id + " 'Washer' 'Done' '' 000000 " + c.words);
            }
        }

        // New and unknown devices: the summary with a message appended; ids go on across kinds.
        CNewDeviceList list;
        ASSERT_TRUE(list.Parse(kNewDevices, ""));
        EXPECT_EQ(presenter.Add(1, &list), 1);
        EXPECT_EQ(Peer::AddUnknown(presenter, &list), 1);
        auto posted = noti::Posted();
        ASSERT_EQ(posted.size(), 6u);
        const std::string head = "112 'org.kelvar.lumora' #",
                          title = " 'TV_NEW_HOME_APPLIANCE_DETECTED' 'Air Conditioner 1, Washer 1";
        const std::string tail = "' '' 000000 n=2 answer=1 [SID_YES i_allow.png] [SID_NO i_deny.png] [- -]";
        EXPECT_EQ(Words(posted[4]), head + "5" + title + "TV_NEW_HOME_APPLIANCE_DETECTED" + tail);
        EXPECT_EQ(Words(posted[5]), head + "6" + title + "TV_NEED_REGISTER_APPLIANCE_MSG" + tail);
    }
    Texts removed;
    for (const auto &r : noti::Removals())
        removed.push_back(r.appId + "#" + std::to_string(r.itemId));
    EXPECT_EQ(removed, (Texts{"org.kelvar.lumora#1", "org.kelvar.lumora#2", "org.kelvar.lumora#3",
                              "org.kelvar.lumora#4", "org.kelvar.lumora#5", "org.kelvar.lumora#6"}));
    EXPECT_EQ(NotificationCalls().back(), "close_notification_data_manager");
}

TEST_F(LumoraNotificationTest, OnlyTheSecondButtonOfALaunchItemLaunchesTheWidgetForItsDevice)
{
    LumoraNotification presenter;
    WidgetIs(true, false);
    auto n = Device("washer-7", "Always");
    ASSERT_EQ(presenter.Add(5, &n), 1);
    log.Clear();
    ASSERT_TRUE(noti::PressButton(1, 0));
    noti::WaitDelivered();
    EXPECT_TRUE(apps::Launches().empty());
    EXPECT_EQ(log.Messages(), (Texts{"m_OnNotificationButtonCallback: nItemId = 1, nButtonIdex = ",
                                     "m_OnNotificationButtonCallback: pNotiItem->nType = 1"}));

    // Pressed twice: two launches, the pop-up stays. The widget runs now, so
    // the next item is of type 0 and ignores both buttons.
    ASSERT_TRUE(noti::PressButton(1, 1));
    ASSERT_TRUE(noti::PressButton(1, 1));
    noti::WaitDelivered();
    EXPECT_TRUE(noti::Removals().empty());
    auto ok = Device("washer-8", "Always");
    ASSERT_EQ(presenter.Add(5, &ok), 1);
    ASSERT_TRUE(noti::PressButton(2, 0));
    noti::WaitDelivered();
    Peer::Press(2, 1, &presenter);
    EXPECT_EQ(log.Count("m_OnNotificationButtonCallback: pNotiItem->nType = 0"), 2);

    // A new-device item launches with the empty device id.
    CNewDeviceList list;
    ASSERT_TRUE(list.Parse(kNewDevices, ""));
    ASSERT_EQ(presenter.Add(1, &list), 1);
    ASSERT_TRUE(noti::PressButton(3, 1));
    noti::WaitDelivered();
    Texts launched;
    for (const auto &l : apps::Launches())
        launched.push_back(l.appId +
                           (l.extraData.size() == 1 ? " " + l.extraData[0].first + "=" + l.extraData[0].second : " ?"));
    EXPECT_EQ(launched, (Texts{"PzKmRvTqXa.Lumora deviceID=washer-7", "PzKmRvTqXa.Lumora deviceID=washer-7",
                               "PzKmRvTqXa.Lumora deviceID="}));

    log.Clear();
    Peer::Press(1, 1, nullptr);
    ASSERT_TRUE(noti::TimeOut(3));
    noti::WaitDelivered();
    EXPECT_EQ(log.Messages(), (Texts{"m_OnNotificationButtonCallback: nItemId = 1, nButtonIdex = ",
                                     "m_OnNotificationButtonCallback: error the userdata is NULL",
                                     "m_OnNotificationTimeoutCallback: nItemId = 3"}));
    EXPECT_EQ(apps::Launches().size(), 3u);
}

} // namespace
