#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
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
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
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

// A removal of the service's pop-up itemId.
::testing::Matcher<noti::Removal> Removal(int itemId)
{
    return AllOf(Field(&noti::Removal::appId, "org.kelvar.lumora"), Field(&noti::Removal::itemId, itemId));
}

// A launch of the widget for device.
::testing::Matcher<apps::Launch> LaunchOf(const std::string &device)
{
    return AllOf(Field(&apps::Launch::appId, kWidget),
                 Field(&apps::Launch::extraData, ElementsAre(std::make_pair(std::string("deviceID"), device))));
}

class LumoraNotificationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        noti::DrawTo(nullptr);
        WidgetIs(false, false);
        ASSERT_TRUE(bListParsed);
    }
    void TearDown() override { apps::SetInstalled(kWidget, false); }
    static void WidgetIs(bool bInstalled, bool bRunning)
    {
        apps::SetInstalled(kWidget, bInstalled);
        apps::SetRunning(kWidget, bRunning);
    }
    CNewDeviceList list;
    const bool bListParsed = list.Parse(kNewDevices, ""); // before the capture begins
    LogCapture log;
    std::unique_ptr<LumoraNotification> presenter = std::make_unique<LumoraNotification>();
};

TEST_F(LumoraNotificationTest, TheServiceIsOpenedWithBothCallbacksAndClosedAtTheEnd)
{
    EXPECT_THAT(NotificationCalls(),
                ElementsAre("init_notification_data_manager", "register_notification_button_callback",
                            "register_notification_timeout_callback"));
    EXPECT_THAT(log.Messages(), ElementsAre("InitNotificationDataManager Begin", "InitNotificationDataManager End"));
    presenter.reset();
    EXPECT_EQ(NotificationCalls().back(), "close_notification_data_manager");
}

TEST_F(LumoraNotificationTest, AHiddenNotificationAsksNothing)
{
    auto off = Device("d0", "Always", false);
    EXPECT_EQ(presenter->Add(5, &off), 0);
    EXPECT_EQ(tvhost::faults::Calls("was_get_app_info"), 0);
    EXPECT_TRUE(noti::Posted().empty());
}

// The widget not installed, not running, running; only shown ones take an id.
TEST_F(LumoraNotificationTest, TheButtonsOfADeviceNotificationFollowTheWidget)
{
    const char *const kGo = "n=2 answer=0 [SID_CLOSE i_close_cancel.png] [TV_SID_GO_TO_LUMORA i_go.png] [- -]";
    const struct {
        bool bInstalled, bRunning;
        const char *condition, *words; // words null: not shown
    } cases[] = {
        {false, false, "NoneWidget", kGo},
        {true, false, "Other", kGo},
        {true, true, "NoneWidget", nullptr},
        {true, true, "Always", "n=1 answer=0 [SID_OK i_allow.png] [- -] [- -]"},
        {true, true, "always", "n=0 answer=0 [- -] [- -] [- -]"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.condition);
        WidgetIs(c.bInstalled, c.bRunning);
        log.Clear();
        const std::string id = std::to_string(noti::Posted().size() + 1);
        auto n = Device("dev", c.condition);
        EXPECT_EQ(presenter->Add(5, &n), c.words ? 1 : 0);
        EXPECT_EQ(log.Messages().back(),
                  std::string("LumoraNotification::m_AddDeviceNotification ") +
                      (c.words ? "show the notification" : "this is notification is no need to show"));
        if (c.words) {
            EXPECT_EQ(Words(noti::Posted().back()),
                      "111 'org.kelvar.lumora' #" + id + " 'Washer' 'Done' '' 000000 " + c.words);
        }
    }
}

// The summary with a message appended; ids go on across kinds.
TEST_F(LumoraNotificationTest, NewAndUnknownDevicesShowTheSummary)
{
    auto n = Device("dev", "Other");
    ASSERT_EQ(presenter->Add(5, &n), 1);
    EXPECT_EQ(presenter->Add(1, &list), 1);
    log.Clear();
    EXPECT_EQ(Peer::AddUnknown(*presenter, &list), 1);
    EXPECT_THAT(log.Messages(), ::testing::Contains("LumoraNotification::m_AddUnknownDeviceFound"))
        << "the platform log tells an unknown device's pop-up from a new one's";
    const auto posted = noti::Posted();
    ASSERT_EQ(posted.size(), 3u);
    const std::string head = "112 'org.kelvar.lumora' #",
                      title = " 'TV_NEW_HOME_APPLIANCE_DETECTED' 'Air Conditioner 1, Washer 1";
    const std::string tail = "' '' 000000 n=2 answer=1 [SID_YES i_allow.png] [SID_NO i_deny.png] [- -]";
    EXPECT_EQ(Words(posted[1]), head + "2" + title + "TV_NEW_HOME_APPLIANCE_DETECTED" + tail);
    EXPECT_EQ(Words(posted[2]), head + "3" + title + "TV_NEED_REGISTER_APPLIANCE_MSG" + tail);
}

TEST_F(LumoraNotificationTest, EveryPostedItemIsTakenDownInOrderAtTheEnd)
{
    auto n = Device("dev", "Other");
    ASSERT_EQ(presenter->Add(5, &n), 1);
    ASSERT_EQ(presenter->Add(1, &list), 1);
    ASSERT_EQ(presenter->Add(5, &n), 1);
    presenter.reset();
    EXPECT_THAT(noti::Removals(), ElementsAre(Removal(1), Removal(2), Removal(3)));
}

TEST_F(LumoraNotificationTest, OnlyTheSecondButtonOfALaunchItemLaunchesTheWidgetForItsDevice)
{
    WidgetIs(true, false);
    auto n = Device("washer-7", "Always");
    ASSERT_EQ(presenter->Add(5, &n), 1);
    log.Clear();
    ASSERT_TRUE(noti::PressButton(1, 0));
    noti::WaitDelivered();
    EXPECT_TRUE(apps::Launches().empty());
    EXPECT_THAT(log.Messages(), ElementsAre("m_OnNotificationButtonCallback: nItemId = 1, nButtonIdex = ",
                                            "m_OnNotificationButtonCallback: pNotiItem->nType = 1"));
    // Pressed twice: two launches, the pop-up stays.
    ASSERT_TRUE(noti::PressButton(1, 1));
    ASSERT_TRUE(noti::PressButton(1, 1));
    noti::WaitDelivered();
    EXPECT_TRUE(noti::Removals().empty());
    EXPECT_THAT(apps::Launches(), ElementsAre(LaunchOf("washer-7"), LaunchOf("washer-7")));
}

// The widget runs: the item is of type 0 and ignores both buttons.
TEST_F(LumoraNotificationTest, AnOkItemLaunchesNothing)
{
    WidgetIs(true, true);
    auto ok = Device("washer-8", "Always");
    ASSERT_EQ(presenter->Add(5, &ok), 1);
    ASSERT_TRUE(noti::PressButton(1, 0));
    noti::WaitDelivered();
    Peer::Press(1, 1, presenter.get());
    EXPECT_EQ(log.Count("m_OnNotificationButtonCallback: pNotiItem->nType = 0"), 2);
    EXPECT_TRUE(apps::Launches().empty());
}

TEST_F(LumoraNotificationTest, ANewDeviceItemLaunchesWithTheEmptyDevice)
{
    WidgetIs(true, false);
    ASSERT_EQ(presenter->Add(1, &list), 1);
    ASSERT_TRUE(noti::PressButton(1, 1));
    noti::WaitDelivered();
    EXPECT_THAT(apps::Launches(), ElementsAre(LaunchOf("")));
}

TEST_F(LumoraNotificationTest, APressWithoutPresenterAndATimeoutAreOnlyLogged)
{
    WidgetIs(true, false);
    auto n = Device("washer-7", "Always");
    ASSERT_EQ(presenter->Add(5, &n), 1);
    log.Clear();
    Peer::Press(1, 1, nullptr);
    ASSERT_TRUE(noti::TimeOut(1));
    noti::WaitDelivered();
    EXPECT_THAT(log.Messages(), ElementsAre("m_OnNotificationButtonCallback: nItemId = 1, nButtonIdex = ",
                                            "m_OnNotificationButtonCallback: error the userdata is NULL",
                                            "m_OnNotificationTimeoutCallback: nItemId = 1"));
    EXPECT_TRUE(apps::Launches().empty());
}

} // namespace
