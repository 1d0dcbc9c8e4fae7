// The host TV's settings store, application registry and device power, where
// the service's own suites do not already show them at work.
#include <gtest/gtest.h>

#include <Ecore.h>
#include <appcore-efl.h>
#include <app_control.h>
#include <device/power.h>
#include <filesystem>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vconf.h>
#include <was.h>

#include "LogCapture.h"
#include "tvhost/apps.h"
#include "tvhost/power.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

namespace fs = std::filesystem;
using namespace tvhost;

namespace {

const char kAppChange[] = "memory/was/app_change";
const std::string kApp = "TvhostTest.App";

struct Heard {
    std::vector<std::string> names;
    std::vector<int> types;
};

void Record(keynode_t *node, void *pData)
{
    auto *heard = static_cast<Heard *>(pData);
    heard->names.push_back(vconf_keynode_get_name(node));
    heard->types.push_back(vconf_keynode_get_type(node));
}

// Subscribes once more from inside a delivery, which must not deadlock.
void Resubscribe(keynode_t *node, void *pData)
{
    Record(node, pData);
    int n = 0;
    vconf_get_int(vconf_keynode_get_name(node), &n);
    vconf_notify_key_changed("tvhost/test/other", Record, pData);
}

// Runs fn in a child process, as another program on the host TV would.
void InOtherProcess(const std::function<void()> &fn)
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

TEST(TvhostSettings, KeysAreFilesSharedByEveryProcessAndTypesAreKept)
{
    LogCapture log;
    settings::Remove("tvhost/test/number");
    InOtherProcess([] {
        settings::SetInt("tvhost/test/number", -17);
        settings::SetString("tvhost/test/text", "ko_KR.UTF-8\nsecond line");
    });

    int n = 0;
    EXPECT_EQ(vconf_get_int("tvhost/test/number", &n), 0);
    EXPECT_EQ(n, -17);
    char *pText = vconf_get_str("tvhost/test/text");
    ASSERT_NE(pText, nullptr);
    EXPECT_STREQ(pText, "ko_KR.UTF-8\nsecond line");
    free(pText);
    EXPECT_EQ(vconf_get_str("tvhost/test/number"), nullptr) << "an integer is not a string";
    EXPECT_NE(vconf_get_int("tvhost/test/text", &n), 0);
    settings::Remove("tvhost/test/number");
    EXPECT_NE(vconf_get_int("tvhost/test/number", &n), 0);
    EXPECT_EQ(n, -17) << "a failed read leaves the result alone";

    // One file per key in one folder, and no temporary file left behind.
    const fs::path file = settings::KeyPath(kAppChange);
    EXPECT_EQ(file.parent_path(), fs::path(settings::KeyPath("tvhost/test/text")).parent_path());
    for (const auto &entry : fs::directory_iterator(file.parent_path()))
        EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();

    settings::QueueResult("vconf_get_int", -1);
    settings::QueueResult("vconf_get_str", -1);
    settings::SetInt("tvhost/test/number", 5);
    EXPECT_EQ(vconf_get_int("tvhost/test/number", &n), -1);
    EXPECT_EQ(vconf_get_str("tvhost/test/text"), nullptr);
    EXPECT_EQ(vconf_get_int("tvhost/test/number", &n), 0) << "a queued result is used once";
    EXPECT_EQ(settings::CallCount("vconf_get_int"), 5);
}

TEST(TvhostSettings, ChangesReachEachSubscriberOnceUntilReset)
{
    LogCapture log;
    Heard heard, other;
    ASSERT_EQ(vconf_notify_key_changed("tvhost/test/number", Resubscribe, &heard), 0);
    ASSERT_EQ(vconf_notify_key_changed("tvhost/test/number", Resubscribe, &heard), 0);
    ASSERT_EQ(vconf_notify_key_changed("tvhost/test/number", Record, &other), 0);
    EXPECT_EQ(settings::Subscribers("tvhost/test/number"), 2);

    settings::SetInt("tvhost/test/number", 1);
    settings::SetString("tvhost/test/number", "one");
    settings::SetInt("tvhost/test/unwatched", 1);
    EXPECT_EQ(heard.names, (std::vector<std::string>{"tvhost/test/number", "tvhost/test/number"}));
    EXPECT_EQ(heard.types, (std::vector<int>{VCONF_TYPE_INT, VCONF_TYPE_STRING}));
    EXPECT_EQ(other.names.size(), 2u);
    EXPECT_EQ(settings::Subscribers("tvhost/test/other"), 1) << "subscribed from inside the delivery";

    settings::QueueResult("vconf_notify_key_changed", -1);
    EXPECT_EQ(vconf_notify_key_changed("tvhost/test/late", Record, &other), -1);
    EXPECT_EQ(settings::Subscribers("tvhost/test/late"), 0);

    Reset();
    settings::SetInt("tvhost/test/number", 2);
    EXPECT_EQ(heard.names.size(), 2u);
    EXPECT_EQ(settings::Subscribers("tvhost/test/number"), 0);
    EXPECT_EQ(vconf_keynode_get_name(nullptr), nullptr);
}

TEST(TvhostApps, InstallingAndRemovingBumpTheAppChangeKey)
{
    LogCapture log;
    apps::SetInstalled(kApp, false);
    int before = 0;
    settings::GetInt(kAppChange, before);

    apps::SetInstalled(kApp, true);
    apps::SetInstalled(kApp, true);
    int n = 0;
    ASSERT_TRUE(settings::GetInt(kAppChange, n));
    EXPECT_EQ(n, before + 1) << "only a change of state counts";

    InOtherProcess([] {
        if (!apps::IsInstalled(kApp))
            _exit(1);
    });

    apps::SetRunning(kApp, true);
    apps::SetInstalled(kApp, false);
    EXPECT_FALSE(apps::IsRunning(kApp)) << "removal stops the app";
    ASSERT_TRUE(settings::GetInt(kAppChange, n));
    EXPECT_EQ(n, before + 2);

    was_app_info_t info;
    int status = 7;
    EXPECT_NE(was_get_app_info(kApp.c_str(), &info), 0);
    EXPECT_EQ(was_get_app_status(kApp.c_str(), &status), 0);
    EXPECT_EQ(status, 0);
}

TEST(TvhostApps, LaunchRequestsAreRecordedAndOnlyAnInstalledAppStarts)
{
    LogCapture log;
    apps::SetInstalled(kApp, false);
    app_control_h h = nullptr;
    ASSERT_EQ(app_control_create(&h), APP_CONTROL_ERROR_NONE);
    app_control_set_app_id(h, kApp.c_str());
    app_control_add_extra_data(h, "deviceID", "a");
    app_control_add_extra_data(h, "deviceID", "b");
    app_control_add_extra_data(h, "mode", "full");

    EXPECT_EQ(app_control_send_launch_request(h, nullptr, nullptr), APP_CONTROL_ERROR_APP_NOT_FOUND);
    apps::SetInstalled(kApp, true);
    EXPECT_EQ(app_control_send_launch_request(h, nullptr, nullptr), APP_CONTROL_ERROR_NONE);
    EXPECT_TRUE(apps::IsRunning(kApp));
    app_control_destroy(h);

    auto launches = apps::Launches();
    ASSERT_EQ(launches.size(), 2u);
    EXPECT_EQ(launches[0].result, APP_CONTROL_ERROR_APP_NOT_FOUND);
    EXPECT_EQ(launches[1].result, 0);
    EXPECT_EQ(launches[1].operation, "") << "no operation was set";
    EXPECT_EQ(launches[1].extraData,
              (std::vector<std::pair<std::string, std::string>>{{"deviceID", "b"}, {"mode", "full"}}));
    EXPECT_EQ(app_control_send_launch_request(nullptr, nullptr, nullptr), APP_CONTROL_ERROR_INVALID_PARAMETER);
    apps::SetInstalled(kApp, false);
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
    EXPECT_EQ(device_power_request_poweroff(1), 0) << "outside a main loop there is nothing to end";
    EXPECT_EQ(power::Requests(), (std::vector<int>{3, 3, 1}));
}
