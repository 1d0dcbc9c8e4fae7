#include <gtest/gtest.h>

#include <libintl.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <fstream>
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

const char kWidget[] = "PzKmRvTqXa.Lumora";
const char kNewDevices[] = "<list><NewDevice id=\"a\"><Type>Washer</Type></NewDevice>"
                           "<NewDevice id=\"b\"><Type>Air Conditioner</Type></NewDevice></list>";
using Extra = std::vector<std::pair<std::string, std::string>>;

CDeviceNotification Device(const std::string &id, const std::string &condition, bool bFlag = true,
                           const std::string &name = "Washer", const std::string &text = "Done")
{
    CDeviceNotification n;
    n.m_Data.strID = id;
    n.m_Data.strCtrlName = name;
    n.m_Data.strNotiText = text;
    n.m_Data.bDisplayFlag = bFlag;
    n.m_Data.strDisplayCondition = condition;
    return n;
}

std::string Text(const std::optional<std::string> &s)
{
    return s ? "\"" + *s + "\"" : "null";
}

// Every field of a posted record on one line; icons by base name once their
// directory under the TV root has been checked.
std::string Words(const noti::Record &r)
{
    std::ostringstream out;
    out << r.version << ' ' << r.popup << ' ' << r.style << ' ' << Text(r.appId) << " #" << r.itemId;
    for (int w : r.reserved1)
        out << ' ' << w;
    out << ' ' << Text(r.title) << ' ' << Text(r.body) << ' ' << Text(r.subText);
    for (int w : r.reserved2)
        out << ' ' << w;
    out << " n=" << r.buttonCount << ' ' << r.needAnswer;
    const std::string dir = tvhost::Root() + "/usr/share/COMMONRESOURCE/IMAGE/ICON/ICON_BLACK/SMALL/";
    for (int i = 0; i < 3; ++i) {
        std::string icon = r.buttonIcon[i].value_or("-");
        if (icon.compare(0, dir.size(), dir) == 0)
            icon.erase(0, dir.size());
        out << " [" << r.buttonLabel[i].value_or("-") << ' ' << icon << ']';
    }
    return out.str();
}

// A stored action item as "type #id 'device'".
std::string Item(LumoraNotificationTestPeer &peer, int nItemId)
{
    const TNotiActionItem *p = peer.Get(nItemId);
    return p ? std::to_string(p->nType) + " #" + std::to_string(p->nItemId) + " '" + p->strDeviceID + "'" : "null";
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

TEST_F(LumoraNotificationTest, LayoutFollowsTheWidgetAndTheConditionAndOnlyShownOnesTakeAnId)
{
    LumoraNotification presenter;
    LumoraNotificationTestPeer peer(presenter);

    auto off = Device("d0", "Always", false);
    EXPECT_EQ(presenter.Add(5, &off), 0);
    EXPECT_EQ(apps::CallCount("was_get_app_info"), 0) << "a hidden notification asks nothing";

    struct Case {
        bool bInstalled, bRunning;
        const char *condition;
        int nResult;
        const char *words;  // the record, then the stored item; empty: not posted
    };
    const Case cases[] = {
        {false, false, "NoneWidget", 1,
         "1 1 1 \"org.kelvar.lumora\" #1 0 0 0 \"Washer\" \"Done\" \"\" 0 0 0 n=2 0 "
         "[SID_CLOSE i_close_cancel.png] [TV_SID_GO_TO_LUMORA i_go.png] [- -] -> 1 #1 'dev-1'"},
        {true, false, "Other", 1,
         "1 1 1 \"org.kelvar.lumora\" #2 0 0 0 \"Washer\" \"Done\" \"\" 0 0 0 n=2 0 "
         "[SID_CLOSE i_close_cancel.png] [TV_SID_GO_TO_LUMORA i_go.png] [- -] -> 1 #2 'dev-2'"},
        {true, true, "NoneWidget", 0, ""},
        {true, true, "Always", 1,
         "1 1 1 \"org.kelvar.lumora\" #3 0 0 0 \"Washer\" \"Done\" \"\" 0 0 0 n=1 0 [SID_OK i_allow.png] [- -] [- -]"
         " -> 0 #3 'dev-3'"},
        {true, true, "always", 1,
         "1 1 1 \"org.kelvar.lumora\" #4 0 0 0 \"Washer\" \"Done\" \"\" 0 0 0 n=0 0 [- -] [- -] [- -] -> 0 #4 'dev-4'"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.condition);
        WidgetIs(c.bInstalled, c.bRunning);
        log.Clear();
        const size_t nBefore = noti::Posted().size();
        auto n = Device("dev-" + std::to_string(nBefore + 1), c.condition);
        EXPECT_EQ(presenter.Add(5, &n), c.nResult);
        EXPECT_EQ(log.Has("LumoraNotification::m_AddDeviceNotification this is notification is no need to show"),
                  c.nResult == 0);
        EXPECT_EQ(log.Has("LumoraNotification::m_AddDeviceNotification show the notification"), c.nResult == 1);
        auto posted = noti::Posted();
        ASSERT_EQ(posted.size(), nBefore + c.nResult);
        if (c.nResult == 0)
            continue;
        EXPECT_EQ(Words(posted.back()) + " -> " + Item(peer, posted.back().itemId), c.words);
    }

    // New and unknown devices: the body is the summary followed directly by a
    // message; ids go on across kinds.
    CNewDeviceList list;
    ASSERT_TRUE(list.Parse(kNewDevices, ""));
    log.Clear();
    EXPECT_EQ(presenter.Add(1, &list), 1);
    EXPECT_EQ(peer.AddUnknown(&list), 1);
    auto posted = noti::Posted();
    const std::string tail = " \"\" 0 0 0 n=2 1 [SID_YES i_allow.png] [SID_NO i_deny.png] [- -] -> 1 #";
    EXPECT_EQ(Words(posted[4]) + " -> " + Item(peer, 5),
              "1 1 2 \"org.kelvar.lumora\" #5 0 0 0 \"TV_NEW_HOME_APPLIANCE_DETECTED\" "
              "\"Air Conditioner 1, Washer 1TV_NEW_HOME_APPLIANCE_DETECTED\"" + tail + "5 ''");
    EXPECT_EQ(Words(posted[5]) + " -> " + Item(peer, 6),
              "1 1 2 \"org.kelvar.lumora\" #6 0 0 0 \"TV_NEW_HOME_APPLIANCE_DETECTED\" "
              "\"Air Conditioner 1, Washer 1TV_NEED_REGISTER_APPLIANCE_MSG\"" + tail + "6 ''");

    log.Clear();
    EXPECT_EQ(presenter.Add(12291, nullptr), 0);
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"LumoraNotification::Add, nEvent=12291",
                                                         "[CNotiAction]-Unreachable code, nEvent=12291"}));
    EXPECT_EQ(log.PriorityOf("[CNotiAction]-Unreachable code, nEvent=12291"), 3);  // platform debug
    EXPECT_EQ(peer.Entries(), 6u);
}

TEST_F(LumoraNotificationTest, OnlyTheSecondButtonOfALaunchItemLaunchesTheWidget)
{
    LumoraNotification presenter;
    LumoraNotificationTestPeer peer(presenter);
    WidgetIs(true, false);
    auto n = Device("washer-7", "Always");
    ASSERT_EQ(presenter.Add(5, &n), 1);

    log.Clear();
    ASSERT_TRUE(noti::PressButton(1, 0));
    noti::WaitDelivered();
    EXPECT_TRUE(apps::Launches().empty());
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"m_OnNotificationButtonCallback: nItemId = 1, nButtonIdex = ",
                                                         "m_OnNotificationButtonCallback: pNotiItem->nType = 1"}));

    // Pressed twice: two launches; the item and the pop-up stay.
    for (int i = 0; i < 2; ++i)
        ASSERT_TRUE(noti::PressButton(1, 1));
    noti::WaitDelivered();
    auto launches = apps::Launches();
    ASSERT_EQ(launches.size(), 2u);
    EXPECT_EQ(launches[0].appId, kWidget);
    EXPECT_EQ(launches[0].extraData, (Extra{{"deviceID", "washer-7"}}));
    EXPECT_TRUE(noti::Removals().empty());

    // The widget now runs: a type-0 item ignores both indexes.
    auto ok = Device("washer-8", "Always");
    ASSERT_EQ(presenter.Add(5, &ok), 1);
    ASSERT_TRUE(noti::PressButton(2, 0));
    noti::WaitDelivered();
    peer.Press(2, 1, &presenter);
    EXPECT_EQ(log.Count("m_OnNotificationButtonCallback: pNotiItem->nType = 0"), 2);

    CNewDeviceList list;
    ASSERT_TRUE(list.Parse(kNewDevices, ""));
    ASSERT_EQ(presenter.Add(1, &list), 1);
    ASSERT_TRUE(noti::PressButton(3, 1));
    noti::WaitDelivered();
    launches = apps::Launches();
    ASSERT_EQ(launches.size(), 3u);
    EXPECT_EQ(launches[2].extraData, (Extra{{"deviceID", ""}}));

    log.Clear();
    peer.Press(1, 1, nullptr);
    ASSERT_TRUE(noti::TimeOut(3));
    noti::WaitDelivered();
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"m_OnNotificationButtonCallback: nItemId = 1, nButtonIdex = ",
                                                         "m_OnNotificationButtonCallback: error the userdata is NULL",
                                                         "m_OnNotificationTimeoutCallback: nItemId = 3"}));
    EXPECT_EQ(apps::Launches().size(), 3u);
    EXPECT_EQ(peer.Entries(), 3u);
}

TEST_F(LumoraNotificationTest, ServiceIsOpenedFirstAndEveryIdRemovedInOrderAtTheEnd)
{
    {
        LumoraNotification presenter;
        EXPECT_EQ(noti::Calls(), (std::vector<std::string>{"init_notification_data_manager",
                                                            "register_notification_button_callback",
                                                            "register_notification_timeout_callback"}));
        EXPECT_EQ(log.Messages(), (std::vector<std::string>{"InitNotificationDataManager Begin",
                                                             "InitNotificationDataManager End"}));
        noti::QueueResult("add_notification_data", -1);  // looked at by nobody
        CNewDeviceList list;
        ASSERT_TRUE(list.Parse(kNewDevices, ""));
        auto a = Device("a", ""), b = Device("b", "");
        EXPECT_EQ(presenter.Add(5, &a), 1);
        EXPECT_EQ(presenter.Add(1, &list), 1);
        EXPECT_EQ(presenter.Add(5, &b), 1);

        // An id never posted: find-or-insert leaves a null entry behind.
        LumoraNotificationTestPeer peer(presenter);
        EXPECT_EQ(peer.Get(99), nullptr);
        EXPECT_EQ(peer.Entries(), 4u);
        EXPECT_FALSE(noti::PressButton(99, 1)) << "the service reports only what it shows";
    }
    std::vector<std::string> removed;
    for (const auto &r : noti::Removals())
        removed.push_back(r.appId + "#" + std::to_string(r.itemId));
    EXPECT_EQ(removed, (std::vector<std::string>{"org.kelvar.lumora#1", "org.kelvar.lumora#2", "org.kelvar.lumora#3"}));
    EXPECT_EQ(noti::Calls().back(), "close_notification_data_manager");
    EXPECT_TRUE(noti::Shown().empty());
}

TEST_F(LumoraNotificationTest, PressesOnTheServiceThreadWhilePostingFromTwoThreads)
{
    constexpr int kPerThread = 40;
    WidgetIs(true, false);
    // The widget keeps answering "not running", so every item has the launch button.
    apps::QueueAppStatusResult(0, 0, 100000);
    LumoraNotification presenter;
    LumoraNotificationTestPeer peer(presenter);

    auto post = [&](const char *prefix) {
        for (int i = 0; i < kPerThread; ++i) {
            auto n = Device(prefix + std::to_string(i), "Always");
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
    std::thread first(post, "a"), second(post, "b");
    first.join();
    second.join();
    presser.join();
    noti::WaitDelivered();

    std::set<int> ids;
    for (const auto &r : noti::Posted())
        ids.insert(r.itemId);
    EXPECT_EQ(ids.size(), 2u * kPerThread);
    EXPECT_EQ(*ids.rbegin(), 2 * kPerThread);
    std::multiset<std::string> launched, stored;
    for (const auto &l : apps::Launches())
        launched.insert(l.extraData.empty() ? "?" : l.extraData[0].second);
    for (int id = 1; id <= 2 * kPerThread; ++id)
        stored.insert(peer.Get(id) ? peer.Get(id)->strDeviceID : "null");
    EXPECT_EQ(launched, stored);
    EXPECT_EQ(std::set<std::string>(stored.begin(), stored.end()).size(), 2u * kPerThread);
}

TEST_F(LumoraNotificationTest, KoreanCatalogueTranslatesTheTextsAndTheDrawnPopUp)
{
    const std::string drawing = tvhost::Root() + "/noti-draw-test.txt";
    std::remove(drawing.c_str());
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    setenv("LANGUAGE", "ko", 1);
    bindtextdomain("lumora", (tvhost::Root() + "/usr/apps/org.kelvar.lumora/res/locale").c_str());
    textdomain("lumora");
    ASSERT_TRUE(noti::DrawToFile(drawing));
    {
        LumoraNotification presenter;
        auto n = Device("d1", "Always", true, "세탁기", "세탁이 끝났습니다");
        presenter.Add(5, &n);
        CNewDeviceList list;
        ASSERT_TRUE(list.Parse(kNewDevices, ""));
        presenter.Add(1, &list);
        WidgetIs(true, true);
        presenter.Add(5, &n);
    }
    noti::DrawTo(nullptr);
    unsetenv("LANGUAGE");
    std::setlocale(LC_ALL, "C");
    textdomain("lumora");

    auto posted = noti::Posted();
    ASSERT_EQ(posted.size(), 3u);
    EXPECT_EQ(Words(posted[0]), "1 1 1 \"org.kelvar.lumora\" #1 0 0 0 \"세탁기\" \"세탁이 끝났습니다\" \"\" 0 0 0 n=2 0 "
                                "[닫기 i_close_cancel.png] [Lumora로 이동 i_go.png] [- -]");
    EXPECT_EQ(Words(posted[1]), "1 1 2 \"org.kelvar.lumora\" #2 0 0 0 \"새 가전제품이 감지되었습니다\" "
                                "\"Air Conditioner 1, Washer 1새 가전제품이 감지되었습니다\" \"\" 0 0 0 n=2 1 "
                                "[예 i_allow.png] [아니요 i_deny.png] [- -]");
    EXPECT_EQ(posted[2].buttonLabel[0], "확인");

    std::ifstream in(drawing);
    std::stringstream drawn;
    drawn << in.rdbuf();
    for (const char *needle : {"│ 세탁기 ", "│ 세탁이 끝났습니다 ", "[ 닫기 ]  [ Lumora로 이동 ]", "[ 예 ]  [ 아니요 ]", "[ 확인 ]"})
        EXPECT_NE(drawn.str().find(needle), std::string::npos) << needle << "\n" << drawn.str();
    std::remove(drawing.c_str());
}

} // namespace
