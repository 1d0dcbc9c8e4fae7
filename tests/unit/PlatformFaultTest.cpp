// Platform and engine calls failing where no per-class suite fails them: the
// settings store's watcher subscription and string reads, the notification service's
// set-up and removals, and engines without a callback entry, refusing the
// callback or a refresh. Each time the service does what its class defines
// and stays usable.
#include <gtest/gtest.h>

#include "LumoraNotification.h"
#include "LumoraParameter.h"
#include "LumoraQorvHelper.h"
#include "ManagerFixture.h"
#include "tvhost/apps.h"
#include "tvhost/faults.h"
#include "tvhost/mainloop.h"
#include "tvhost/network.h"
#include "tvhost/notifications.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
using Peer = LumoraManagerTestPeer;
namespace noti = tvhost::notifications;

namespace {

const char kNotification[] = "<n id=\"1\"><Device id=\"ac1\">Living room</Device><Notification>Filter</Notification>"
                             "<Action/><DisplayOption flag=\"On\" condition=\"Always\"/></n>";

class PlatformFault : public ManagerTest {
protected:
    void TearDown() override
    {
        ManagerTest::TearDown();
        LIB_QORV_HELPER_PATH = m_savedLibrary;
    }
    const char *m_savedLibrary = LIB_QORV_HELPER_PATH;
    std::string m_strLibrary;
};

} // namespace

// An install is never heard of.
TEST_F(PlatformFault, AFailedWatcherSubscriptionNeverStartsTheEngine)
{
    tvhost::faults::Queue("vconf_notify_key_changed", -1);
    ASSERT_EQ(Peer::Get().Construct(), 0);
    tvhost::apps::SetInstalled(kWidgetApp, true);
    tvhost::mainloop::RunFor(500ms);
    EXPECT_FALSE(log.Has("===== CLumoraWidgetChecker in m_CbWasAppChanged function 1 ====="));
    EXPECT_EQ(sim->Calls("qorv_start"), 0);
}

// An empty text, which has no "." and sends nothing; the next read works again.
TEST_F(PlatformFault, AFailedLanguageReadSendsNothing)
{
    tvhost::faults::Queue("vconf_get_str", -1);
    StartWithWidget();
    ASSERT_TRUE(RunUntil([&] { return log.Has("The string has the wrong format!"); }));
    EXPECT_TRUE(log.Has("Current Language is "));
    EXPECT_EQ(sim->Calls("qorv_excute"), 0);
    tvhost::settings::SetString(kLanguageKey, "de_DE.UTF-8");
    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_excute") == 2; }));
    EXPECT_EQ(sim->LastCommand(), "SetSystemLanguage de_DE");
}

TEST_F(PlatformFault, NotificationServiceFailuresAreIgnoredAndEveryItemIsStillFreed)
{
    noti::DrawTo(nullptr);
    tvhost::apps::SetInstalled(kWidgetApp, true);
    CDeviceNotification notification;
    ASSERT_TRUE(notification.Parse(kNotification, ""));
    // Set-up refused: ids are still consumed, presses reach the presenter only
    // through its button callback, and the end still removes each item. The
    // last case refuses both removals: the pop-ups stay, the items are freed
    // all the same (LeakSanitizer watches).
    struct {
        const char *fn;
        size_t nLaunches; // of two presses of the "Go" button
        size_t nShownAtEnd;
    } cases[] = {{"init_notification_data_manager", 0, 0},
                 {"register_notification_button_callback", 0, 0},
                 {"register_notification_timeout_callback", 2, 0},
                 {"remove_notification_data", 2, 2}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fn);
        tvhost::Reset();
        tvhost::apps::SetRunning(kWidgetApp, false);
        log.Clear();
        tvhost::faults::Queue(c.fn, -1, 2);
        {
            LumoraNotification presenter;
            EXPECT_EQ(presenter.Add(5, &notification), 1);
            EXPECT_EQ(presenter.Add(5, &notification), 1);
            noti::PressButton(1, 1);
            noti::PressButton(2, 1);
            noti::WaitDelivered();
        }
        EXPECT_EQ(tvhost::faults::Calls("add_notification_data"), 2);
        EXPECT_EQ(tvhost::faults::Calls("remove_notification_data"), 2);
        EXPECT_EQ(tvhost::faults::CallLog().back(), "close_notification_data_manager");
        EXPECT_EQ(tvhost::apps::Launches().size(), c.nLaunches);
        EXPECT_EQ(noti::Shown().size(), c.nShownAtEnd);
    }
}

TEST_F(PlatformFault, EnginesWithoutACallbackEntryOrRefusingTheCallbackOrARefreshLeaveTheManagerRunning)
{
    struct Case {
        const char *variant;
        std::vector<std::string> errors; // level 3 lines after the start and a network change
        std::string answer;              // to the language sent at the start
    } cases[] = {
        // register, execute and refresh follow the missing symbol in the lookup order
        {"noregister",
         {"CLumoraQorvHelper Get the qorv_register_callback function failed!",
          "CLumoraQorvHelper the m_pQrov_RegisterCallBack is NULL!", "CLumoraQorvHelper the m_pQorv_Execute is NULL!",
          "CLumoraQorvHelper the m_pQorv_Refresh is NULL!", "Fail to Refresh the QORV!"},
         ""},
        {"registerfails", {"CLumoraQorvHelper register callback failed!"}, "OK"},
        {"refreshfails", {"Refresh QORV failed!", "Fail to Refresh the QORV!"}, "OK"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.variant);
        Peer::TearDown(); // the old manager's subscriptions go with the singleton
        tvhost::Reset();
        log.Clear();
        m_strLibrary = EngineSim::Variant(c.variant); // loaded instead of the real engine
        LIB_QORV_HELPER_PATH = m_strLibrary.c_str();
        sim.reset(new EngineSim(m_strLibrary));
        tvhost::apps::SetInstalled(kWidgetApp, true);
        ASSERT_EQ(Peer::Get().Construct(), 0);
        ASSERT_TRUE(
            RunUntil([&] { return log.Has("LumoraManager::Construct SetSystemLanguage strReturn = " + c.answer); }));
        tvhost::network::SetType(1);
        ASSERT_TRUE(RunUntil([&] { return log.Has("m_ConnectionTypeChangedCB() is called. type : 1"); }));
        for (const auto &line : c.errors)
            EXPECT_EQ(log.PriorityOf(line), 6) << line;
        tvhost::network::SetType(3);
        tvhost::mainloop::RunFor(100ms);
    }
}
