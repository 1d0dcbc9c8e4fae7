// Platform and engine calls failing where no per-class suite fails them: the
// settings store's subscriptions and string reads, the notification service's
// set-up and removals, the application-control handle, the data folder's copy,
// permission and label commands, and an engine without a callback entry, one
// that refuses the callback and one that refuses a refresh. Each time the
// service does what its class defines and stays usable.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include "DataFolderHelper.h"
#include "LumoraNotification.h"
#include "LumoraParameter.h"
#include "LumoraQorvHelper.h"
#include "LumoraWidgetHelper.h"
#include "ManagerFixture.h"
#include "tvhost/apps.h"
#include "tvhost/mainloop.h"
#include "tvhost/network.h"
#include "tvhost/notifications.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
using Peer = LumoraManagerTestPeer;
namespace fs = std::filesystem;
namespace noti = tvhost::notifications;

namespace {

constexpr int kError = 6;
const char kAppChangeKey[] = "memory/was/app_change";

const char kNotification[] = "<n id=\"1\"><Device id=\"ac1\">Living room</Device><Notification>Filter</Notification>"
                             "<Action/><DisplayOption flag=\"On\" condition=\"Always\"/></n>";

class PlatformFault : public ManagerTest {
protected:
    void TearDown() override
    {
        ManagerTest::TearDown();
        LIB_QORV_HELPER_PATH = m_savedLibrary;
    }

    // The manager will load this broken engine instead of the real one.
    void UseEngine(const char *variant)
    {
        m_strLibrary = EngineSim::Variant(variant);
        LIB_QORV_HELPER_PATH = m_strLibrary.c_str();
        sim.reset(new EngineSim(m_strLibrary));
    }

    // The old manager's subscriptions go with the singleton.
    void NextManager()
    {
        Peer::TearDown();
        sim->Reset();
        tvhost::Reset();
        log.Clear();
    }

    const char *m_savedLibrary = LIB_QORV_HELPER_PATH;
    std::string m_strLibrary;
};

} // namespace

TEST_F(PlatformFault, SettingsStoreSubscriptionsAndReadsThatFailLeaveOnlyWhatTheyWouldHaveGivenUndone)
{
    // The watcher's subscription: an install is never heard of, so the engine never starts.
    tvhost::settings::QueueResult("vconf_notify_key_changed", -1);
    ASSERT_EQ(Peer::Get().Construct(), 0);
    EXPECT_EQ(tvhost::settings::Subscribers(kAppChangeKey), 0);
    tvhost::apps::SetInstalled(kWidgetApp, true);
    tvhost::mainloop::RunFor(500ms);
    EXPECT_FALSE(log.Has("===== CLumoraWidgetChecker in m_CbWasAppChanged function 1 ====="));
    EXPECT_EQ(sim->Calls("qorv_start"), 0);

    // The manager's language subscription at the engine start: the language
    // is sent once, its later changes never.
    NextManager();
    Peer::Get();
    tvhost::settings::QueueResult("vconf_notify_key_changed", -1);
    StartWithWidget();
    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_excute") == 2; }));
    EXPECT_EQ(sim->LastCommand(), "SetSystemLanguage en_US");
    EXPECT_EQ(tvhost::settings::Subscribers(kLanguageKey), 0);
    tvhost::settings::SetString(kLanguageKey, "ko_KR.UTF-8");
    tvhost::mainloop::RunFor(500ms);
    EXPECT_EQ(sim->Calls("qorv_excute"), 2);

    // The language read fails: an empty text, which has no "." and sends
    // nothing; at the start and on a change alike.
    NextManager();
    tvhost::apps::SetInstalled(kWidgetApp, false);
    tvhost::settings::QueueResult("vconf_get_str", -1);
    StartWithWidget();
    ASSERT_TRUE(RunUntil([&] { return log.Has("The string has the wrong format!"); }));
    EXPECT_TRUE(log.Has("Current Language is "));
    EXPECT_EQ(sim->Calls("qorv_excute"), 0);
    tvhost::settings::QueueResult("vconf_get_str", -1);
    tvhost::settings::SetString(kLanguageKey, "fr_FR.UTF-8");
    ASSERT_TRUE(RunUntil([&] { return log.Count("The string has the wrong format!") == 2; }));
    EXPECT_EQ(sim->Calls("qorv_excute"), 0);
    tvhost::settings::SetString(kLanguageKey, "de_DE.UTF-8");
    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_excute") == 2; })) << "the next read works again";
    EXPECT_EQ(sim->LastCommand(), "SetSystemLanguage de_DE");
}

TEST_F(PlatformFault, NotificationServiceFailuresAreIgnoredAndEveryItemIsStillFreed)
{
    noti::DrawTo(nullptr);
    tvhost::apps::SetInstalled(kWidgetApp, true);
    CDeviceNotification notification;
    ASSERT_TRUE(notification.Parse(kNotification, ""));

    // Set-up refused: posts go on (failing while the service is not set up), ids are
    // consumed, presses reach the presenter only through its button callback,
    // and the end still removes each item.
    struct Refusal {
        const char *fn;
        size_t nLaunches;  // of two presses of the "Go" button
    } refusals[] = {
        {"init_notification_data_manager", 0},
        {"register_notification_button_callback", 0},
        {"register_notification_timeout_callback", 2},
    };
    for (const auto &c : refusals) {
        tvhost::Reset();
        tvhost::apps::SetRunning(kWidgetApp, false);
        log.Clear();
        noti::QueueResult(c.fn, -1);
        {
            LumoraNotification presenter;
            EXPECT_TRUE(log.Has("InitNotificationDataManager End")) << c.fn;
            EXPECT_EQ(presenter.Add(5, &notification), 1) << c.fn;
            EXPECT_EQ(presenter.Add(5, &notification), 1) << c.fn;
            noti::PressButton(1, 1);
            noti::PressButton(2, 1);
            noti::WaitDelivered();
        }
        EXPECT_EQ(noti::CallCount("add_notification_data"), 2) << c.fn;
        EXPECT_EQ(noti::CallCount("remove_notification_data"), 2) << c.fn;
        EXPECT_EQ(noti::Calls().back(), "close_notification_data_manager") << c.fn;
        EXPECT_EQ(tvhost::apps::Launches().size(), c.nLaunches) << c.fn;
    }

    // Removals refused: every item is still handed back and freed (LeakSanitizer watches).
    tvhost::Reset();
    {
        LumoraNotification presenter;
        EXPECT_EQ(presenter.Add(5, &notification), 1);
        EXPECT_EQ(presenter.Add(5, &notification), 1);
        noti::QueueResult("remove_notification_data", -1);
        noti::QueueResult("remove_notification_data", -1);
    }
    EXPECT_EQ(noti::CallCount("remove_notification_data"), 2);
    EXPECT_EQ(noti::Shown().size(), 2u) << "refused removals leave the pop-ups up";
    EXPECT_EQ(noti::Calls().back(), "close_notification_data_manager");
}

TEST_F(PlatformFault, ALaunchWhoseControlHandleCannotBeMadeFailsQuietly)
{
    tvhost::apps::SetInstalled(kWidgetApp, true);
    tvhost::apps::QueueResult("app_control_create", -1);
    CLumoraWidgetHelper widget;
    widget.LaunchWidget(kWidgetApp, "ac1");
    EXPECT_EQ(log.PriorityOf("=== Failed to launch a WebApp ====="), kError);
    EXPECT_TRUE(tvhost::apps::Launches().empty());
    EXPECT_FALSE(tvhost::apps::IsRunning(kWidgetApp));
    EXPECT_EQ(tvhost::apps::CallCount("app_control_destroy"), 1);

    widget.LaunchWidget(kWidgetApp, "ac2");
    ASSERT_EQ(tvhost::apps::Launches().size(), 1u) << "the next launch works";
    EXPECT_EQ(tvhost::apps::Launches()[0].extraData[0].second, "ac2");
}

TEST_F(PlatformFault, DataFolderCopyPermissionAndLabelCommandsThatFailEndThePreparation)
{
    const std::string data = tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data";
    const std::string bin = tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin";
    const std::string label = "chsmack -a \"org.kelvar.lumora\" -e \"org.kelvar.lumora\" " + data;
    const std::vector<std::string> commands = {"cp " + bin + "/mode.xml " + data, "chmod 777 -R " + data,
                                               "chown app.app -R " + data, label};
    const std::string tools = fs::temp_directory_path() / ("lumora-failing-" + std::to_string(getpid()));
    const std::string savedPath = std::getenv("PATH");
    for (size_t failing : {0u, 1u, 3u}) {
        const std::string tool = commands[failing].substr(0, commands[failing].find(' '));
        fs::remove_all(tools);
        fs::create_directories(tools);
        std::ofstream(tools + "/" + tool) << "#!/bin/sh\nexit 1\n";
        chmod((tools + "/" + tool).c_str(), 0755);
        setenv("PATH", (tools + ":" + savedPath).c_str(), 1);
        fs::remove_all(data);
        log.Clear();

        EXPECT_FALSE(CDataFolderHelper().CreateDataFolder()) << tool;
        EXPECT_EQ(log.PriorityOf("[ExecuteCommand] '" + commands[failing] + "' is failed!!!"), kError) << tool;
        for (size_t later = failing + 1; later < commands.size(); ++later)
            EXPECT_FALSE(log.Has("[ExecuteCommand] the command is '" + commands[later] + "'")) << tool;
        EXPECT_FALSE(log.Has("[CreateQORVDataFolder] end")) << tool;
        EXPECT_TRUE(fs::is_directory(data)) << tool << ": nothing is undone";
        setenv("PATH", savedPath.c_str(), 1);
    }
    fs::remove_all(tools);
    fs::remove_all(data);
}

TEST_F(PlatformFault, EnginesWithoutACallbackEntryOrRefusingTheCallbackOrARefreshLeaveTheManagerRunning)
{
    const std::string kEvent = kNotification;
    noti::DrawTo(nullptr);
    struct Case {
        const char *variant;
        std::vector<std::string> errors;  // level 3 lines after the start and a network change
        bool bLanguageSent;
        int nEventAnswer;  // -2: the engine has no callback to give an event to
    } cases[] = {
        // register, execute and refresh follow the missing symbol in the lookup order
        {"noregister",
         {"CLumoraQorvHelper Get the qorv_register_callback function failed!",
          "CLumoraQorvHelper the m_pQrov_RegisterCallBack is NULL!", "CLumoraQorvHelper the m_pQorv_Execute is NULL!",
          "CLumoraQorvHelper the m_pQorv_Refresh is NULL!", "Fail to Refresh the QORV!"},
         false, -2},
        {"registerfails", {"CLumoraQorvHelper register callback failed!"}, true, -2},
        {"refreshfails", {"Refresh QORV failed!", "Fail to Refresh the QORV!"}, true, 0},
    };
    for (const auto &c : cases) {
        NextManager();
        tvhost::apps::SetInstalled(kWidgetApp, false);
        UseEngine(c.variant);
        tvhost::apps::SetInstalled(kWidgetApp, true);
        ASSERT_EQ(Peer::Get().Construct(), 0) << c.variant;
        ASSERT_TRUE(RunUntil([&] { return log.Has("LumoraManager::Construct SetSystemLanguage strReturn = " +
                                                  std::string(c.bLanguageSent ? "OK" : "")); }))
            << c.variant;
        EXPECT_TRUE(log.Has("Success to start qorv!")) << c.variant;
        EXPECT_EQ(sim->LastCommand(), c.bLanguageSent ? "SetSystemLanguage en_US" : "") << c.variant;

        tvhost::network::SetType(1);
        ASSERT_TRUE(RunUntil([&] { return log.Has("m_ConnectionTypeChangedCB() is called. type : 1"); }))
            << c.variant;
        for (const auto &line : c.errors)
            EXPECT_EQ(log.PriorityOf(line), kError) << c.variant << ": " << line;
        EXPECT_EQ(sim->Emit(5, kEvent.c_str(), ""), c.nEventAnswer) << c.variant;
        EXPECT_EQ(log.Has("LumoraNotification::Add, nEvent=5"), c.nEventAnswer == 0) << c.variant;
        tvhost::network::SetType(3);
        tvhost::mainloop::RunFor(100ms);
    }
}
