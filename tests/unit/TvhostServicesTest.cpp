// The host TV's settings store, application registry and device power, where
// the service's own suites do not already show them at work.
#include <gtest/gtest.h>

#include <Ecore.h>
#include <app_control.h>
#include <appcore-efl.h>
#include <device/power.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vconf.h>

#include "LogCapture.h"
#include "tvhost/apps.h"
#include "tvhost/power.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace tvhost;

namespace {

const char kNumber[] = "tvhost/test/number";
const std::string kApp = "TvhostTest.App";

// Notes each change and subscribes to one more key from inside the delivery.
void Record(keynode_t *node, void *pData)
{
    static_cast<std::vector<int> *>(pData)->push_back(vconf_keynode_get_type(node));
    vconf_notify_key_changed("tvhost/test/other", Record, pData);
}

// Runs fn in a child process, as another program on the host TV would.
void InOtherProcess(void (*fn)())
{
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        fn();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

} // namespace

TEST(TvhostSettings, KeysAreSharedByEveryProcessAndKeepTheirType)
{
    LogCapture log;
    InOtherProcess([] {
        settings::SetInt(kNumber, -17);
        settings::SetString("tvhost/test/text", "ko_KR.UTF-8\nsecond line");
    });
    int n = 0;
    EXPECT_EQ(vconf_get_int(kNumber, &n), 0);
    EXPECT_EQ(n, -17);
    char *pText = vconf_get_str("tvhost/test/text");
    ASSERT_NE(pText, nullptr);
    EXPECT_STREQ(pText, "ko_KR.UTF-8\nsecond line");
    free(pText);
    EXPECT_EQ(vconf_get_str(kNumber), nullptr) << "an integer is not a string";
    EXPECT_NE(vconf_get_int("tvhost/test/text", &n), 0);
    EXPECT_EQ(n, -17) << "a failed read leaves the result alone";

    settings::QueueResult("vconf_get_str", -1);
    EXPECT_EQ(vconf_get_str("tvhost/test/text"), nullptr);
    EXPECT_EQ(settings::CallCount("vconf_get_str"), 3);
}

TEST(TvhostSettings, ChangesReachEachSubscriberOnceUntilReset)
{
    LogCapture log;
    std::vector<int> heard;
    ASSERT_EQ(vconf_notify_key_changed(kNumber, Record, &heard), 0);
    ASSERT_EQ(vconf_notify_key_changed(kNumber, Record, &heard), 0);
    EXPECT_EQ(settings::Subscribers(kNumber), 1);

    settings::SetInt(kNumber, 1);
    settings::SetString(kNumber, "one");
    EXPECT_EQ(heard, (std::vector<int>{VCONF_TYPE_INT, VCONF_TYPE_STRING}));
    EXPECT_EQ(settings::Subscribers("tvhost/test/other"), 1) << "subscribed from inside the delivery";

    settings::QueueResult("vconf_notify_key_changed", -1);
    EXPECT_EQ(vconf_notify_key_changed("tvhost/test/late", Record, &heard), -1);
    EXPECT_EQ(settings::Subscribers("tvhost/test/late"), 0);

    Reset();
    settings::SetInt(kNumber, 2);
    EXPECT_EQ(heard.size(), 2u);
}

TEST(TvhostApps, InstallingBumpsAppChangeAndOnlyInstalledAppsLaunch)
{
    LogCapture log;
    apps::SetInstalled(kApp, false);
    int before = 0, n = 0;
    settings::GetInt("memory/was/app_change", before);
    apps::SetInstalled(kApp, true);
    apps::SetInstalled(kApp, true);
    ASSERT_TRUE(settings::GetInt("memory/was/app_change", n));
    EXPECT_EQ(n, before + 1) << "only a change of state counts";
    InOtherProcess([] {
        if (!apps::IsInstalled(kApp))
            _exit(1);
    });

    app_control_h h = nullptr;
    ASSERT_EQ(app_control_create(&h), APP_CONTROL_ERROR_NONE);
    app_control_set_app_id(h, kApp.c_str());
    app_control_add_extra_data(h, "deviceID", "a");
    app_control_add_extra_data(h, "deviceID", "b");
    EXPECT_EQ(app_control_send_launch_request(h, nullptr, nullptr), APP_CONTROL_ERROR_NONE);
    EXPECT_TRUE(apps::IsRunning(kApp));

    apps::SetInstalled(kApp, false);
    EXPECT_FALSE(apps::IsRunning(kApp)) << "removal stops the app";
    EXPECT_EQ(app_control_send_launch_request(h, nullptr, nullptr), APP_CONTROL_ERROR_APP_NOT_FOUND);
    app_control_destroy(h);
    auto launches = apps::Launches();
    ASSERT_EQ(launches.size(), 2u);
    EXPECT_EQ(launches[0].extraData, (std::vector<std::pair<std::string, std::string>>{{"deviceID", "b"}}));
    EXPECT_EQ(launches[1].result, APP_CONTROL_ERROR_APP_NOT_FOUND);
}

TEST(TvhostPower, AnAcceptedPowerOffEndsTheMainLoop)
{
    LogCapture log;
    static bool bTimedOut;
    static std::thread engine;
    bTimedOut = false;
    struct appcore_ops ops = {};
    ops.create = [](void *) -> int {
        // A guard so that a power-off that ends nothing fails instead of hanging.
        ecore_timer_add(30.0, [](void *) -> Eina_Bool {
            bTimedOut = true;
            ecore_main_loop_quit();
            return ECORE_CALLBACK_CANCEL;
        }, nullptr);
        // The request comes from the engine's thread, as on the TV.
        engine = std::thread([] { device_power_request_poweroff(3); });
        return 0;
    };
    EXPECT_EQ(appcore_efl_main("tvhost-test", nullptr, nullptr, &ops), 0);
    engine.join();
    EXPECT_FALSE(bTimedOut);

    power::QueueResult(-1);
    EXPECT_EQ(device_power_request_poweroff(3), -1);
    EXPECT_EQ(power::Requests(), (std::vector<int>{3, 3}));
}
