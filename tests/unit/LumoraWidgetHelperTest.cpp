#include <gtest/gtest.h>

#include <app_control.h>
#include <type_traits>

#include "LogCapture.h"
#include "LumoraWidgetHelper.h"
#include "tvhost/apps.h"
#include "tvhost/tvhost.h"

class CLumoraWidgetHelperTestPeer {
public:
    static std::string &DeviceID(CLumoraWidgetHelper &h) { return h.m_strDeviceID; }
};

namespace {

const std::string kWidget = "PzKmRvTqXa.Lumora";
constexpr int kDebug = 3;
constexpr int kError = 6;

using Extra = std::vector<std::pair<std::string, std::string>>;

// Each test starts from a known registry: the files outlive the process.
void Install(bool bInstalled, bool bRunning = false)
{
    tvhost::apps::SetInstalled(kWidget, bInstalled);
    tvhost::apps::SetRunning(kWidget, bRunning);
}

int InfoCalls() { return tvhost::apps::CallCount("was_get_app_info"); }
int StatusCalls() { return tvhost::apps::CallCount("was_get_app_status"); }

} // namespace

static_assert(std::is_same<decltype(&CLumoraWidgetHelper::m_OnLaunchWidgetCallBack), was_event_cb>::value,
              "the launch handler must fit the service's event callback");

TEST(LumoraWidgetHelper, InstalledQueryRetriesOnlyWhileTheServiceIsBusy)
{
    LogCapture log;
    Install(true);
    CLumoraWidgetHelper helper;

    tvhost::apps::QueueAppInfoResult(-2, 6);
    EXPECT_FALSE(helper.IsWidgetInstalled(kWidget)) << "a sixth busy answer is final";
    EXPECT_EQ(InfoCalls(), 6);
    EXPECT_EQ(log.Count("=== Begin to get app info ! ==="), 6);
    EXPECT_EQ(log.PriorityOf("=== The widget PzKmRvTqXa.Lumora is not installed! ==="), kDebug);

    tvhost::Reset();
    tvhost::apps::QueueAppInfoResult(-2, 5);
    EXPECT_TRUE(helper.IsWidgetInstalled(kWidget));
    EXPECT_EQ(InfoCalls(), 6);

    // Any other failure ends at once.
    tvhost::Reset();
    tvhost::apps::QueueAppInfoResult(-2);
    tvhost::apps::QueueAppInfoResult(-1);
    EXPECT_FALSE(helper.IsWidgetInstalled(kWidget));
    EXPECT_EQ(InfoCalls(), 2);

    tvhost::Reset();
    log.Clear();
    Install(false);
    EXPECT_FALSE(helper.IsWidgetInstalled(kWidget));
    EXPECT_EQ(InfoCalls(), 1);
    Install(true);
    EXPECT_TRUE(helper.IsWidgetInstalled(kWidget));
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{
                                  "=== Begin to get app info ! ===",
                                  "=== The widget PzKmRvTqXa.Lumora is not installed! ===",
                                  "=== Begin to get app info ! ===",
                                  "=== The widget PzKmRvTqXa.Lumora is installed! ===",
                              }));
}

TEST(LumoraWidgetHelper, LaunchedQueryRetriesFailedStatusCallsAtMostThreeTimes)
{
    LogCapture log;
    Install(true, true);
    CLumoraWidgetHelper helper;

    EXPECT_TRUE(helper.IsWidgetLaunched(kWidget));
    EXPECT_EQ(log.PriorityOf("=====The widget PzKmRvTqXa.Lumora has been launched !=====\n"), kDebug);
    EXPECT_TRUE(log.Has("=====Start to Get the widget PzKmRvTqXa.Lumora status =====\n"));

    tvhost::apps::SetRunning(kWidget, false);
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget));
    EXPECT_TRUE(log.Has("=====The widget PzKmRvTqXa.Lumora has not been launched !=====\n"));

    tvhost::Reset();
    log.Clear();
    tvhost::apps::QueueAppStatusResult(-1, 0, 3);
    tvhost::apps::QueueAppStatusResult(0, 1);
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget)) << "a fourth, successful answer is never asked for";
    EXPECT_EQ(StatusCalls(), 3);
    EXPECT_EQ(log.Count("=====Get the widget PzKmRvTqXa.Lumora info error =====\n"), 3);

    tvhost::Reset();
    tvhost::apps::QueueAppStatusResult(-1, 0, 2);
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget)) << "the third call succeeds with the app stopped";
    EXPECT_EQ(StatusCalls(), 3);

    // A failed call that nevertheless set the status word ends the retries.
    tvhost::Reset();
    Install(true, true);
    tvhost::apps::QueueAppStatusResult(-1, 1);
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget));
    EXPECT_EQ(StatusCalls(), 1);

    // Not installed: no status call and no status line.
    tvhost::Reset();
    log.Clear();
    Install(false);
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget));
    EXPECT_EQ(StatusCalls(), 0);
    EXPECT_EQ(log.Messages().size(), 2u);
}

TEST(LumoraWidgetHelper, LaunchSendsTheDeviceEvenToARunningWidget)
{
    LogCapture log;
    Install(true, true);
    CLumoraWidgetHelper helper;

    helper.LaunchWidget(kWidget, "dev-2");
    EXPECT_EQ(log.PriorityOf("=== The widget has been launched, then return it! ===\n"), kError);
    EXPECT_EQ(log.PriorityOf("=== Succeeded to launch a WebApp ====="), kError);
    ASSERT_EQ(tvhost::apps::Launches().size(), 1u);
    auto launch = tvhost::apps::Launches()[0];
    EXPECT_EQ(launch.appId, kWidget);
    EXPECT_EQ(launch.operation, APP_CONTROL_OPERATION_DEFAULT);
    EXPECT_EQ(launch.extraData, (Extra{{"deviceID", "dev-2"}}));
    EXPECT_EQ(CLumoraWidgetHelperTestPeer::DeviceID(helper), "dev-2");
    EXPECT_EQ(InfoCalls(), 2);
    EXPECT_EQ(StatusCalls(), 1);
    std::vector<std::string> appControl;
    for (const auto &call : tvhost::apps::Calls())
        if (call.rfind("app_control_", 0) == 0)
            appControl.push_back(call);
    EXPECT_EQ(appControl, (std::vector<std::string>{"app_control_create", "app_control_set_operation",
                                                    "app_control_set_app_id", "app_control_add_extra_data",
                                                    "app_control_send_launch_request", "app_control_destroy"}));

    // A stopped widget is started, and a refused request is only logged.
    tvhost::Reset();
    log.Clear();
    tvhost::apps::SetRunning(kWidget, false);
    tvhost::apps::QueueLaunchResult(-1);
    helper.LaunchWidget(kWidget, "");
    EXPECT_FALSE(log.Has("=== The widget has been launched, then return it! ===\n"));
    EXPECT_EQ(log.PriorityOf("=== Failed to launch a WebApp ====="), kError);
    EXPECT_FALSE(tvhost::apps::IsRunning(kWidget));
    EXPECT_EQ(tvhost::apps::CallCount("app_control_send_launch_request"), 1);
    EXPECT_EQ(tvhost::apps::CallCount("app_control_destroy"), 1);
    EXPECT_EQ(CLumoraWidgetHelperTestPeer::DeviceID(helper), "") << "stored even when the launch fails";
}

TEST(LumoraWidgetHelper, LaunchOfAnUninstalledWidgetSendsNothing)
{
    LogCapture log;
    Install(false);
    CLumoraWidgetHelper helper;
    CLumoraWidgetHelperTestPeer::DeviceID(helper) = "dev-1";

    helper.LaunchWidget(kWidget, "dev-9");
    EXPECT_EQ(log.PriorityOf("=====The widget PzKmRvTqXa.Lumora has not been installed ====="), kError);
    EXPECT_TRUE(tvhost::apps::Launches().empty());
    EXPECT_EQ(tvhost::apps::CallCount("app_control_create"), 0);
    EXPECT_EQ(CLumoraWidgetHelperTestPeer::DeviceID(helper), "dev-1");
    EXPECT_FALSE(tvhost::apps::IsRunning(kWidget));
}

TEST(LumoraWidgetHelper, LaunchEventsFrom605To611RelaunchWithTheLastDevice)
{
    LogCapture log;
    Install(true);
    CLumoraWidgetHelper helper;
    CLumoraWidgetHelperTestPeer::DeviceID(helper) = "dev-7";

    for (int nEvent : {604, 612, 0}) {
        CLumoraWidgetHelper::m_OnLaunchWidgetCallBack(&helper, 0, kWidget.c_str(), static_cast<was_event_type_e>(nEvent));
        EXPECT_EQ(InfoCalls(), 0) << nEvent;
    }
    EXPECT_EQ(log.Messages()[0], "Launch widget result = 0");
    EXPECT_EQ(log.Messages()[1], "Launch widget app_id = PzKmRvTqXa.Lumora");
    EXPECT_EQ(log.Messages()[2], "Launch widget event_type = 604");

    for (int nEvent : {605, 611})
        CLumoraWidgetHelper::m_OnLaunchWidgetCallBack(&helper, -3, kWidget.c_str(), static_cast<was_event_type_e>(nEvent));
    auto launches = tvhost::apps::Launches();
    ASSERT_EQ(launches.size(), 2u);
    for (const auto &launch : launches) {
        EXPECT_EQ(launch.appId, kWidget);
        EXPECT_EQ(launch.extraData, (Extra{{"deviceID", "dev-7"}}));
    }

    log.Clear();
    CLumoraWidgetHelper::m_OnLaunchWidgetCallBack(nullptr, 1, kWidget.c_str(), static_cast<was_event_type_e>(608));
    EXPECT_EQ(log.PriorityOf("The pWidgetHelper is NULL !"), kError);
    EXPECT_EQ(log.Messages().size(), 4u);
    EXPECT_EQ(tvhost::apps::Launches().size(), 2u);
}
