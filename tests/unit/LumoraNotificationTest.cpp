#include <gtest/gtest.h>

#include <libintl.h>

#include <algorithm>
#include <chrono>
#include <array>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "LogCapture.h"
#include "LumoraNotification.h"
#include "LumoraParameter.h"
#include "tvhost/apps.h"
#include "tvhost/notifications.h"
#include "tvhost/tvhost.h"

class LumoraNotificationTestPeer {
public:
    explicit LumoraNotificationTestPeer(LumoraNotification &n) : n(n) {}
    TNotiActionItem *Get(int nItemId) { return n.m_GetNotification(nItemId); }
    size_t Entries() const { return n.m_mapNotiItem.size(); }
    int NextId() const { return n.m_nItemId; }
    int AddUnknown(CNewDeviceList *pList) { return n.m_AddUnknownDeviceFound(pList); }
    void Press(int nItemId, int nIndex, void *pUserData)
    {
        LumoraNotification::m_OnNotificationButtonCallback(nItemId, nIndex, pUserData);
    }
    LumoraNotification &n;
};

namespace {

namespace noti = tvhost::notifications;
namespace apps = tvhost::apps;

const char kApp[] = "org.kelvar.lumora";
const char kWidget[] = "PzKmRvTqXa.Lumora";

std::string Icon(const char *name)
{
    return tvhost::Root() + "/usr/share/COMMONRESOURCE/IMAGE/ICON/ICON_BLACK/SMALL/" + name;
}

CDeviceNotification Device(const std::string &id, const std::string &name, const std::string &text,
                           bool bFlag, const std::string &condition)
{
    CDeviceNotification n;
    n.m_Data.strID = id;
    n.m_Data.strCtrlName = name;
    n.m_Data.strNotiText = text;
    n.m_Data.bDisplayFlag = bFlag;
    n.m_Data.strDisplayCondition = condition;
    return n;
}

const char kTwoNewDevices[] = "<list><NewDevice id=\"a\"><Type>Washer</Type></NewDevice>"
                              "<NewDevice id=\"b\"><Type>Air Conditioner</Type></NewDevice></list>";

// Labels of a record's buttons, null slots as "-".
std::vector<std::string> Labels(const noti::Record &r)
{
    std::vector<std::string> out;
    for (const auto &l : r.buttonLabel)
        out.push_back(l.value_or("-"));
    return out;
}

std::vector<std::string> Icons(const noti::Record &r)
{
    std::vector<std::string> out;
    for (const auto &l : r.buttonIcon)
        out.push_back(l.value_or("-"));
    return out;
}

class LumoraNotificationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        noti::DrawTo(nullptr);
        apps::SetInstalled(kWidget, false);
    }
    void TearDown() override { apps::SetInstalled(kWidget, false); }

    static void WidgetIs(bool bInstalled, bool bRunning)
    {
        apps::SetInstalled(kWidget, bInstalled);
        apps::SetRunning(kWidget, bRunning);
    }

    LogCapture log;
};

TEST_F(LumoraNotificationTest, DeviceNotificationButtonsFollowTheWidgetAndTheCondition)
{
    LumoraNotification presenter;
    LumoraNotificationTestPeer peer(presenter);

    // Display flag off: nothing is asked, shown or stored.
    auto hidden = Device("d0", "Oven", "Preheated", false, "Always");
    EXPECT_EQ(presenter.Add(5, &hidden), 0);
    EXPECT_EQ(apps::CallCount("was_get_app_info"), 0);
    EXPECT_TRUE(log.Has("LumoraNotification::Add, nEvent=5"));
    EXPECT_TRUE(log.Has("LumoraNotification::m_AddDeviceNotification"));

    struct Case {
        bool bInstalled, bRunning;
        const char *condition;
        std::vector<std::string> labels, icons;
        int nType;
    };
    const std::string close = Icon("i_close_cancel.png"), go = Icon("i_go.png"), allow = Icon("i_allow.png");
    const Case cases[] = {
        {false, false, "NoneWidget", {"SID_CLOSE", "TV_SID_GO_TO_LUMORA", "-"}, {close, go, "-"}, 1},
        {true, false, "NoneWidget", {"SID_CLOSE", "TV_SID_GO_TO_LUMORA", "-"}, {close, go, "-"}, 1},
        {true, true, "Always", {"SID_OK", "-", "-"}, {allow, "-", "-"}, 0},
        {true, true, "always", {"-", "-", "-"}, {"-", "-", "-"}, 0},
        {true, true, "", {"-", "-", "-"}, {"-", "-", "-"}, 0},
    };
    int nExpectedId = 1;
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.condition) + (c.bInstalled ? " installed" : "") + (c.bRunning ? " running" : ""));
        WidgetIs(c.bInstalled, c.bRunning);
        log.Clear();
        const std::string strDevice = "dev" + std::to_string(nExpectedId);
        auto n = Device(strDevice, "Washer", "Done", true, c.condition);
        EXPECT_EQ(presenter.Add(5, &n), 1);
        EXPECT_TRUE(log.Has("LumoraNotification::m_AddDeviceNotification show the notification"));

        auto posted = noti::Posted();
        ASSERT_EQ(posted.size(), static_cast<size_t>(nExpectedId));
        const noti::Record &r = posted.back();
        EXPECT_EQ(r.itemId, nExpectedId);
        EXPECT_EQ(r.title, "Washer");
        EXPECT_EQ(r.body, "Done");
        EXPECT_EQ(r.buttonCount, static_cast<int>(std::count_if(c.labels.begin(), c.labels.end(),
                                                                 [](const std::string &l) { return l != "-"; })));
        EXPECT_EQ(Labels(r), c.labels);
        EXPECT_EQ(Icons(r), c.icons);

        TNotiActionItem *pItem = peer.Get(nExpectedId);
        ASSERT_NE(pItem, nullptr);
        EXPECT_EQ(pItem->nType, c.nType);
        EXPECT_EQ(pItem->nItemId, nExpectedId);
        EXPECT_EQ(pItem->strDeviceID, strDevice);
        ++nExpectedId;
    }

    // Running widget and "NoneWidget": not shown, no id taken.
    WidgetIs(true, true);
    log.Clear();
    auto none = Device("dx", "Washer", "Done", true, "NoneWidget");
    EXPECT_EQ(presenter.Add(5, &none), 0);
    EXPECT_TRUE(log.Has("LumoraNotification::m_AddDeviceNotification this is notification is no need to show"));
    EXPECT_FALSE(log.Has("LumoraNotification::m_AddDeviceNotification show the notification"));

    // Unknown events are ignored without a look at the parameter.
    log.Clear();
    EXPECT_EQ(presenter.Add(0, nullptr), 0);
    EXPECT_EQ(presenter.Add(12291, nullptr), 0);
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{
                                  "LumoraNotification::Add, nEvent=0", "[CNotiAction]-Unreachable code, nEvent=0",
                                  "LumoraNotification::Add, nEvent=12291",
                                  "[CNotiAction]-Unreachable code, nEvent=12291"}));

    EXPECT_EQ(noti::CallCount("add_notification_data"), nExpectedId - 1);
    EXPECT_EQ(peer.NextId(), nExpectedId);
    EXPECT_EQ(peer.Entries(), static_cast<size_t>(nExpectedId - 1));
    for (const auto &m : log.Messages())
        EXPECT_EQ(log.PriorityOf(m), 3) << m;  // platform debug
}

TEST_F(LumoraNotificationTest, PostedRecordHoldsExactlyTheWordsTheServiceReads)
{
    LumoraNotification presenter;
    WidgetIs(true, false);
    auto n = Device("d1", "Laundry", "Cycle finished", true, "Always");
    presenter.Add(5, &n);
    CNewDeviceList list;
    ASSERT_TRUE(list.Parse(kTwoNewDevices, ""));
    EXPECT_EQ(presenter.Add(1, &list), 1);

    auto posted = noti::Posted();
    ASSERT_EQ(posted.size(), 2u);
    const noti::Record &dev = posted[0];
    EXPECT_EQ(dev.version, 1);
    EXPECT_EQ(dev.popup, 1);
    EXPECT_EQ(dev.style, 1);
    EXPECT_EQ(dev.appId, kApp);
    EXPECT_EQ(dev.itemId, 1);
    EXPECT_EQ(dev.subText, std::optional<std::string>(""));
    EXPECT_EQ(dev.buttonCount, 2);
    EXPECT_EQ(dev.needAnswer, 0);

    const noti::Record &found = posted[1];
    EXPECT_EQ(found.version, 1);
    EXPECT_EQ(found.popup, 1);
    EXPECT_EQ(found.style, 2);
    EXPECT_EQ(found.appId, kApp);
    EXPECT_EQ(found.itemId, 2);
    EXPECT_EQ(found.title, "TV_NEW_HOME_APPLIANCE_DETECTED");
    EXPECT_EQ(found.body, "Air Conditioner 1, Washer 1TV_NEW_HOME_APPLIANCE_DETECTED");
    EXPECT_EQ(found.subText, std::optional<std::string>(""));
    EXPECT_EQ(found.buttonCount, 2);
    EXPECT_EQ(found.needAnswer, 1);
    EXPECT_EQ(Labels(found), (std::vector<std::string>{"SID_YES", "SID_NO", "-"}));
    EXPECT_EQ(Icons(found), (std::vector<std::string>{Icon("i_allow.png"), Icon("i_deny.png"), "-"}));

    for (const noti::Record *r : {&dev, &found}) {
        EXPECT_EQ(r->reserved1, (std::array<int, 3>{0, 0, 0}));
        EXPECT_EQ(r->reserved2, (std::array<int, 3>{0, 0, 0}));
    }

    // The unknown-device variant differs only in the end of its body.
    LumoraNotificationTestPeer peer(presenter);
    log.Clear();
    EXPECT_EQ(peer.AddUnknown(&list), 1);
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"LumoraNotification::m_AddUnknownDeviceFound"});
    const noti::Record unknown = noti::Posted().back();
    EXPECT_EQ(unknown.itemId, 3);
    EXPECT_EQ(unknown.title, "TV_NEW_HOME_APPLIANCE_DETECTED");
    EXPECT_EQ(unknown.body, "Air Conditioner 1, Washer 1TV_NEED_REGISTER_APPLIANCE_MSG");
    EXPECT_EQ(Labels(unknown), Labels(found));
    EXPECT_EQ(unknown.style, 2);
    EXPECT_EQ(unknown.needAnswer, 1);
    ASSERT_NE(peer.Get(3), nullptr);
    EXPECT_EQ(peer.Get(3)->nType, 1);
    EXPECT_EQ(peer.Get(3)->strDeviceID, "");
}

TEST_F(LumoraNotificationTest, PressOnTheSecondButtonLaunchesTheWidgetForTheDevice)
{
    LumoraNotification presenter;
    LumoraNotificationTestPeer peer(presenter);
    WidgetIs(true, false);
    auto n = Device("washer-7", "Washer", "Done", true, "Always");
    ASSERT_EQ(presenter.Add(5, &n), 1);

    // The first button (close) does nothing.
    log.Clear();
    ASSERT_TRUE(noti::PressButton(1, 0));
    noti::WaitDelivered();
    EXPECT_TRUE(apps::Launches().empty());
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"m_OnNotificationButtonCallback: nItemId = 1, nButtonIdex = ",
                                                         "m_OnNotificationButtonCallback: pNotiItem->nType = 1"}));

    ASSERT_TRUE(noti::PressButton(1, 1));
    noti::WaitDelivered();
    auto launches = apps::Launches();
    ASSERT_EQ(launches.size(), 1u);
    EXPECT_EQ(launches[0].appId, kWidget);
    EXPECT_EQ(launches[0].extraData,
              (std::vector<std::pair<std::string, std::string>>{{"deviceID", "washer-7"}}));
    EXPECT_TRUE(log.Has("=== Succeeded to launch a WebApp ====="));

    // The item stays: a second press launches again, the notification stays up.
    ASSERT_TRUE(noti::PressButton(1, 1));
    noti::WaitDelivered();
    EXPECT_EQ(apps::Launches().size(), 2u);
    EXPECT_TRUE(noti::Removals().empty());
    EXPECT_EQ(peer.Entries(), 1u);

    // Now the widget runs: "Always" gives one OK button that does nothing,
    // and a type-0 item ignores index 1 too.
    auto ok = Device("washer-8", "Washer", "Again", true, "Always");
    ASSERT_EQ(presenter.Add(5, &ok), 1);
    ASSERT_EQ(noti::Posted().back().buttonCount, 1);
    ASSERT_TRUE(noti::PressButton(2, 0));
    noti::WaitDelivered();
    peer.Press(2, 1, &presenter);
    EXPECT_EQ(apps::Launches().size(), 2u);
    EXPECT_EQ(log.Count("m_OnNotificationButtonCallback: pNotiItem->nType = 0"), 2);

    // New devices: the second button launches without a device.
    CNewDeviceList list;
    ASSERT_TRUE(list.Parse(kTwoNewDevices, ""));
    ASSERT_EQ(presenter.Add(1, &list), 1);
    ASSERT_TRUE(noti::PressButton(3, 1));
    noti::WaitDelivered();
    launches = apps::Launches();
    ASSERT_EQ(launches.size(), 3u);
    EXPECT_EQ(launches[2].extraData, (std::vector<std::pair<std::string, std::string>>{{"deviceID", ""}}));

    // Without user data the callback stops at once.
    log.Clear();
    peer.Press(1, 1, nullptr);
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"m_OnNotificationButtonCallback: nItemId = 1, nButtonIdex = ",
                                                         "m_OnNotificationButtonCallback: error the userdata is NULL"}));
    EXPECT_EQ(apps::Launches().size(), 3u);

    // A timeout is only logged; the item stays.
    log.Clear();
    ASSERT_TRUE(noti::TimeOut(3));
    noti::WaitDelivered();
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"m_OnNotificationTimeoutCallback: nItemId = 3"});
    EXPECT_EQ(peer.Entries(), 3u);
}

TEST_F(LumoraNotificationTest, LifecycleInitialisesAndClearsEveryPostedIdInOrder)
{
    {
        LumoraNotification presenter;
        EXPECT_EQ(noti::Calls(), (std::vector<std::string>{"init_notification_data_manager",
                                                            "register_notification_button_callback",
                                                            "register_notification_timeout_callback"}));
        EXPECT_EQ(log.Messages(), (std::vector<std::string>{"InitNotificationDataManager Begin",
                                                             "InitNotificationDataManager End"}));
        // The service's failures change nothing.
        noti::QueueResult("add_notification_data", -1);
        auto a = Device("a", "A", "a", true, "");
        auto b = Device("b", "B", "b", true, "");
        CNewDeviceList list;
        ASSERT_TRUE(list.Parse(kTwoNewDevices, ""));
        EXPECT_EQ(presenter.Add(5, &a), 1);
        EXPECT_EQ(presenter.Add(1, &list), 1);
        EXPECT_EQ(presenter.Add(5, &b), 1);

        // An id the presenter never posted: find-or-insert leaves a null entry.
        LumoraNotificationTestPeer peer(presenter);
        EXPECT_EQ(peer.Get(99), nullptr);
        EXPECT_EQ(peer.Entries(), 4u);
        EXPECT_EQ(peer.NextId(), 4);
        // Only what is on screen can be pressed.
        EXPECT_FALSE(noti::PressButton(99, 1));
        EXPECT_FALSE(noti::PressButton(1, 0)) << "its post failed";
    }
    std::vector<std::pair<std::string, int>> removed;
    for (const auto &r : noti::Removals())
        removed.emplace_back(r.appId, r.itemId);
    EXPECT_EQ(removed, (std::vector<std::pair<std::string, int>>{{kApp, 1}, {kApp, 2}, {kApp, 3}}));
    auto calls = noti::Calls();
    ASSERT_GE(calls.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(calls.end() - 4, calls.end()),
              (std::vector<std::string>{"remove_notification_data", "remove_notification_data",
                                        "remove_notification_data", "close_notification_data_manager"}));
    EXPECT_TRUE(noti::Shown().empty());

    // Ids are per presenter and start at 1 again only in a new one.
    LumoraNotification again;
    auto c = Device("c", "C", "c", true, "");
    again.Add(5, &c);
    EXPECT_EQ(noti::Posted().back().itemId, 1);
}

TEST_F(LumoraNotificationTest, PressesOnTheServiceThreadWhilePostingFromTwoThreads)
{
    constexpr int kPerThread = 40;
    WidgetIs(true, false);
    // Keep the widget "not running" whatever the launches do, so that every
    // device notification carries the launch button.
    apps::QueueAppStatusResult(0, 0, 100000);
    LumoraNotification presenter;
    LumoraNotificationTestPeer peer(presenter);

    auto post = [&](const char *prefix) {
        for (int i = 0; i < kPerThread; ++i) {
            auto n = Device(prefix + std::to_string(i), "Dev", "Text", true, "Always");
            presenter.Add(5, &n);
        }
    };
    std::thread presser([&] {
        // Bounded only so that a lost post fails the test instead of hanging it.
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        for (int id = 1; id <= 2 * kPerThread; ++id)
            while (!noti::PressButton(id, 1) && std::chrono::steady_clock::now() < giveUp)
                std::this_thread::yield();
    });
    std::thread first(post, "a");
    std::thread second(post, "b");
    first.join();
    second.join();
    presser.join();
    noti::WaitDelivered();

    std::vector<int> ids;
    for (const auto &r : noti::Posted())
        ids.push_back(r.itemId);
    std::sort(ids.begin(), ids.end());
    std::vector<int> expected(2 * kPerThread);
    for (int i = 0; i < 2 * kPerThread; ++i)
        expected[i] = i + 1;
    EXPECT_EQ(ids, expected);

    std::vector<std::string> launched, stored;
    for (const auto &l : apps::Launches()) {
        ASSERT_EQ(l.extraData.size(), 1u);
        launched.push_back(l.extraData[0].second);
    }
    for (int id = 1; id <= 2 * kPerThread; ++id) {
        ASSERT_NE(peer.Get(id), nullptr);
        stored.push_back(peer.Get(id)->strDeviceID);
    }
    std::sort(launched.begin(), launched.end());
    std::sort(stored.begin(), stored.end());
    EXPECT_EQ(launched, stored);
    EXPECT_EQ(std::set<std::string>(stored.begin(), stored.end()).size(), stored.size());
}

TEST_F(LumoraNotificationTest, KoreanCatalogueTranslatesLabelsAndTheDrawnPopUp)
{
    const std::string dir = tvhost::Root() + "/usr/apps/org.kelvar.lumora/res/locale";
    const std::string drawing = tvhost::Root() + "/noti-draw-test.txt";
    std::remove(drawing.c_str());
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    setenv("LANGUAGE", "ko", 1);
    bindtextdomain("lumora", dir.c_str());
    textdomain("lumora");
    ASSERT_TRUE(noti::DrawToFile(drawing));

    {
        LumoraNotification presenter;
        auto n = Device("d1", "세탁기", "세탁이 끝났습니다", true, "Always");
        presenter.Add(5, &n);
        CNewDeviceList list;
        ASSERT_TRUE(list.Parse(kTwoNewDevices, ""));
        presenter.Add(1, &list);
        WidgetIs(true, true);
        auto ok = Device("d2", "건조기", "건조 완료", true, "Always");
        presenter.Add(5, &ok);
    }
    noti::DrawTo(nullptr);
    unsetenv("LANGUAGE");
    std::setlocale(LC_ALL, "C");
    textdomain("lumora");

    auto posted = noti::Posted();
    ASSERT_EQ(posted.size(), 3u);
    EXPECT_EQ(Labels(posted[0]), (std::vector<std::string>{"닫기", "Lumora로 이동", "-"}));
    EXPECT_EQ(posted[1].title, "새 가전제품이 감지되었습니다");
    EXPECT_EQ(posted[1].body, "Air Conditioner 1, Washer 1새 가전제품이 감지되었습니다");
    EXPECT_EQ(Labels(posted[1]), (std::vector<std::string>{"예", "아니요", "-"}));
    EXPECT_EQ(Labels(posted[2]), (std::vector<std::string>{"확인", "-", "-"}));

    std::ifstream in(drawing);
    std::stringstream text;
    text << in.rdbuf();
    const std::string drawn = text.str();
    for (const char *needle : {"세탁기", "세탁이 끝났습니다", "[ 닫기 ]  [ Lumora로 이동 ]", "[ 예 ]  [ 아니요 ]", "[ 확인 ]"})
        EXPECT_NE(drawn.find(needle), std::string::npos) << needle << "\n" << drawn;
    std::remove(drawing.c_str());
}

} // namespace
