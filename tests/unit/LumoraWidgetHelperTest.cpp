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

// The registry's files outlive the process: each test states what it needs.
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
    EXPECT_TRUE(log.Has("=== The widget PzKmRvTqXa.Lumora is installed! ==="));

    // Any other failure is final at once.
    tvhost::Reset();
    tvhost::apps::QueueAppInfoResult(-2);
    tvhost::apps::QueueAppInfoResult(-1);
    EXPECT_FALSE(helper.IsWidgetInstalled(kWidget));
    EXPECT_EQ(InfoCalls(), 2);
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
    tvhost::apps::QueueAppStatusResult(-1, 0, 3);
    tvhost::apps::QueueAppStatusResult(0, 1);
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget)) << "a fourth, successful answer is never asked for";
    EXPECT_EQ(StatusCalls(), 3);
    EXPECT_EQ(log.Count("=====Get the widget PzKmRvTqXa.Lumora info error =====\n"), 3);

    // A failed call that nevertheless set the status word ends the retries.
    tvhost::Reset();
    tvhost::apps::SetRunning(kWidget, true);
    tvhost::apps::QueueAppStatusResult(-1, 1);
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget));
    EXPECT_EQ(StatusCalls(), 1);

    tvhost::Reset();
    Install(false);
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget));
    EXPECT_EQ(StatusCalls(), 0);
    EXPECT_EQ(log.Messages().size(), 2u) << "only the installed query speaks";
}

TEST(LumoraWidgetHelper, LaunchSendsTheDeviceEvenToARunningWidget)
{
    LogCapture log;
    Install(true, true);
    CLumoraWidgetHelper helper;

    helper.LaunchWidget(kWidget, "dev-2");
    EXPECT_EQ(log.PriorityOf("=== The widget has been launched, then return it! ===\n"), kError);
    EXPECT_EQ(log.PriorityOf("=== Succeeded to launch a WebApp ====="), kError);
    auto launches = tvhost::apps::Launches();
    ASSERT_EQ(launches.size(), 1u);
    EXPECT_EQ(launches[0].appId, kWidget);
    EXPECT_EQ(launches[0].operation, APP_CONTROL_OPERATION_DEFAULT);
    EXPECT_EQ(launches[0].extraData, (Extra{{"deviceID", "dev-2"}}));
    EXPECT_EQ(CLumoraWidgetHelperTestPeer::DeviceID(helper), "dev-2");
    EXPECT_EQ(tvhost::apps::Calls(),
              (std::vector<std::string>{"was_get_app_info", "was_get_app_info", "was_get_app_status",
                                        "app_control_create", "app_control_set_operation", "app_control_set_app_id",
                                        "app_control_add_extra_data", "app_control_send_launch_request",
                                        "app_control_destroy"}));

    // A refused request is only logged; the handle is still released.
    tvhost::Reset();
    tvhost::apps::SetRunning(kWidget, false);
    tvhost::apps::QueueLaunchResult(-1);
    helper.LaunchWidget(kWidget, "");
    EXPECT_FALSE(log.Has("=== The widget has been launched, then return it! ===\n"));
    EXPECT_EQ(log.PriorityOf("=== Failed to launch a WebApp ====="), kError);
    EXPECT_EQ(tvhost::apps::CallCount("app_control_destroy"), 1);
    EXPECT_EQ(CLumoraWidgetHelperTestPeer::DeviceID(helper), "") << "stored even when the launch fails";

    // Not installed: nothing is sent and the last device is kept.
    tvhost::Reset();
    Install(false);
    helper.LaunchWidget(kWidget, "dev-9");
    EXPECT_EQ(log.PriorityOf("=====The widget PzKmRvTqXa.Lumora has not been installed ====="), kError);
    EXPECT_EQ(tvhost::apps::CallCount("app_control_create"), 0);
    EXPECT_EQ(CLumoraWidgetHelperTestPeer::DeviceID(helper), "");
}

TEST(LumoraWidgetHelper, LaunchEventsFrom605To611RelaunchWithTheLastDevice)
{
    LogCapture log;
    Install(true);
    CLumoraWidgetHelper helper;
    CLumoraWidgetHelperTestPeer::DeviceID(helper) = "dev-7";
    auto raise = [](void *pHelper, int nEvent) {
        CLumoraWidgetHelper::m_OnLaunchWidgetCallBack(pHelper, -3, kWidget.c_str(),
                                                      static_cast<was_event_type_e>(nEvent));
    };

    raise(&helper, 604);
    raise(&helper, 612);
    EXPECT_EQ(InfoCalls(), 0);
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{
                                  "Launch widget result = -3", "Launch widget app_id = PzKmRvTqXa.Lumora",
                                  "Launch widget event_type = 604", "Launch widget result = -3",
                                  "Launch widget app_id = PzKmRvTqXa.Lumora", "Launch widget event_type = 612"}));

    raise(&helper, 605);
    raise(&helper, 611);
    auto launches = tvhost::apps::Launches();
    ASSERT_EQ(launches.size(), 2u);
    EXPECT_EQ(launches[0].extraData, (Extra{{"deviceID", "dev-7"}}));
    EXPECT_EQ(launches[1].extraData, (Extra{{"deviceID", "dev-7"}}));

    log.Clear();
    raise(nullptr, 608);
    EXPECT_EQ(log.PriorityOf("The pWidgetHelper is NULL !"), kError);
    EXPECT_EQ(log.Messages().size(), 4u);
    EXPECT_EQ(tvhost::apps::Launches().size(), 2u);
}
