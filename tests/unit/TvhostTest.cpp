// The host TV platform itself, where the service's own suites do not show it
// at work: the main loop's lifecycle, changes made by other processes, the
// settings store, the app registry, device power and the notification service.
#include <gtest/gtest.h>

#include <Ecore.h>
#include <app_control.h>
#include <appcore-efl.h>
#include <csignal>
#include <device/power.h>
#include <libintl.h>
#include <net_connection.h>
#include <notification_data.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vconf.h>

#include "LogCapture.h"
#include "tvhost/apps.h"
#include "tvhost/mainloop.h"
#include "tvhost/network.h"
#include "tvhost/notifications.h"
#include "tvhost/power.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
using namespace tvhost;

namespace {

const std::string kKey = "tvhost/test/key";
std::vector<std::string> g_calls;

// The other program is this one again, started afresh: it makes its changes
// before main and ends. Spawned, never forked, so that whatever threads run
// here (a sanitizer's too) cannot leave it a lock that is never released.
[[maybe_unused]] const bool g_bOtherProcess = [] {
    if (!std::getenv("TVHOST_TEST_OTHER_PROCESS"))
        return false;
    settings::SetString(kKey, "ko_KR.UTF-8\nsecond line");
    network::SetType(CONNECTION_TYPE_WIFI);
    _exit(0);
}();

void ChangeFromAnotherProcess()
{
    std::string mark = "TVHOST_TEST_OTHER_PROCESS=1";
    std::vector<char *> env{mark.data()};
    for (char **p = environ; *p; ++p)
        env.push_back(*p);
    env.push_back(nullptr);
    char name[] = "TvhostTest";
    char *argv[] = {name, nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv, env.data()), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// Ends a loop that nothing else ends, so that a fault fails instead of hanging.
int CreateWithGuard(void *)
{
    g_calls.push_back("create");
    ecore_timer_add(30.0, [](void *) -> Eina_Bool {
        g_calls.push_back("guard");
        ecore_main_loop_quit();
        return ECORE_CALLBACK_CANCEL;
    }, nullptr);
    return 0;
}

struct Heard {
    std::vector<std::string> changes;
    std::thread::id thread;
};

// Notes each change and subscribes to one more key from inside the delivery.
void OnKey(keynode_t *node, void *pData)
{
    auto *h = static_cast<Heard *>(pData);
    h->changes.push_back(std::string(vconf_keynode_get_name(node)) + ":" + std::to_string(vconf_keynode_get_type(node)));
    h->thread = std::this_thread::get_id();
    vconf_notify_key_changed("tvhost/test/other", OnKey, pData);
}

} // namespace

TEST(TvhostMainLoop, AppcoreRunsCreateTheLoopAndTerminateUntilSigtermOrAPowerOff)
{
    appcore_ops ops = {};
    ops.create = [](void *pFail) {
        CreateWithGuard(nullptr);
        if (pFail)
            return -1;
        kill(getpid(), SIGTERM);  // held back while create runs
        return 0;
    };
    ops.terminate = [](void *) {
        g_calls.push_back("terminate");
        return 0;
    };
    g_calls.clear();
    EXPECT_EQ(appcore_efl_main("test", nullptr, nullptr, &ops), 0);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"create", "terminate"}));
    EXPECT_EQ(std::string(std::getenv("PATH")).rfind(Root() + "/usr/bin:", 0), 0u) << "the TV's tools come first";

    g_calls.clear();
    ops.data = &ops;  // create fails
    EXPECT_EQ(appcore_efl_main("test", nullptr, nullptr, &ops), -1);
    EXPECT_EQ(g_calls, std::vector<std::string>{"create"}) << "no loop and no terminate after a failed create";

    // An accepted power-off ends the loop, also from the engine's thread.
    LogCapture log;
    static std::thread engine;
    ops.data = nullptr;
    ops.create = [](void *) {
        CreateWithGuard(nullptr);
        engine = std::thread([] { device_power_request_poweroff(3); });
        return 0;
    };
    g_calls.clear();
    EXPECT_EQ(appcore_efl_main("test", nullptr, nullptr, &ops), 0);
    engine.join();
    EXPECT_EQ(g_calls, (std::vector<std::string>{"create", "terminate"}));
    power::QueueResult(-1);
    EXPECT_EQ(device_power_request_poweroff(3), -1);
    EXPECT_EQ(power::Requests(), (std::vector<int>{3, 3}));
}

TEST(TvhostSettings, ChangesFromAnyProcessReachEachSubscriberOnceOnTheMainLoopAndKeepTheirType)
{
    LogCapture log;
    network::SetType(CONNECTION_TYPE_ETHERNET);
    mainloop::Attach();
    connection_h h = nullptr;
    ASSERT_EQ(connection_create(&h), 0);
    int type = -1;
    auto onType = [](connection_type_e t, void *p) { *static_cast<int *>(p) = t; };
    ASSERT_EQ(connection_set_type_changed_cb(h, onType, &type), 0);
    Heard heard;
    ASSERT_EQ(vconf_notify_key_changed(kKey.c_str(), OnKey, &heard), 0);
    ASSERT_EQ(vconf_notify_key_changed(kKey.c_str(), OnKey, &heard), 0);
    EXPECT_EQ(settings::Subscribers(kKey), 1);
    ChangeFromAnotherProcess();
    EXPECT_TRUE(mainloop::RunUntil([&] { return !heard.changes.empty() && type == CONNECTION_TYPE_WIFI; }, 30s));
    EXPECT_EQ(heard.thread, std::this_thread::get_id());
    connection_type_e now;
    EXPECT_EQ(connection_get_type(h, &now), 0);
    EXPECT_EQ(now, CONNECTION_TYPE_WIFI);
    EXPECT_NE(connection_destroy(reinterpret_cast<connection_h>(&h)), 0) << "not a handle: refused untouched";
    EXPECT_EQ(connection_destroy(h), 0);
    network::ClearOverride();
    EXPECT_EQ(settings::Subscribers("tvhost/test/other"), 1) << "subscribed from inside the delivery";
    char *pText = vconf_get_str(kKey.c_str());
    ASSERT_NE(pText, nullptr);
    EXPECT_STREQ(pText, "ko_KR.UTF-8\nsecond line");
    free(pText);
    int n = 5;
    EXPECT_NE(vconf_get_int(kKey.c_str(), &n), 0);
    EXPECT_EQ(n, 5) << "a failed read leaves the result alone";

    // A write in this process arrives on the loop too, not on the writer's call.
    settings::SetInt(kKey, -17);
    EXPECT_EQ(heard.changes.size(), 1u);
    EXPECT_TRUE(mainloop::RunUntil([&] { return heard.changes.size() > 1; }, 30s));
    mainloop::RunFor(300ms);
    mainloop::Detach();
    settings::SetInt(kKey, 8);  // without a loop the writer's call delivers
    EXPECT_EQ(heard.changes, (std::vector<std::string>{kKey + ":40", kKey + ":41", kKey + ":41"}));
    EXPECT_EQ(vconf_get_int(kKey.c_str(), &n), 0);
    EXPECT_EQ(n, 8);
    EXPECT_EQ(vconf_get_str(kKey.c_str()), nullptr) << "an integer is not a string";

    Reset();
    settings::SetInt(kKey, 2);
    EXPECT_EQ(heard.changes.size(), 3u) << "a reset drops the subscribers";
}

TEST(TvhostMainLoop, TranslationsFollowTheTvLanguage)
{
    std::string dir = Root() + "/usr/apps/org.kelvar.lumora/res/locale";
    settings::SetString("db/menu_widget/language", "ko_KR.UTF-8");
    EXPECT_EQ(appcore_set_i18n("lumora", dir.c_str()), 0);
    EXPECT_STREQ(std::getenv("LANGUAGE"), "ko_KR");
    EXPECT_STRNE(dgettext("lumora", "SID_CLOSE"), "SID_CLOSE") << "the Korean catalogue is used";
    settings::SetString("db/menu_widget/language", "en_US.UTF-8");
    EXPECT_EQ(appcore_set_i18n("lumora", dir.c_str()), 0);
    EXPECT_STREQ(std::getenv("LANGUAGE"), "en_US");
    EXPECT_STREQ(dgettext("lumora", "SID_CLOSE"), "Close");
}

TEST(TvhostApps, InstallingBumpsAppChangeAndOnlyInstalledAppsLaunch)
{
    LogCapture log;
    const std::string app = "TvhostTest.App";
    apps::SetInstalled(app, false);
    int before = 0, n = 0;
    settings::GetInt("memory/was/app_change", before);
    apps::SetInstalled(app, true);
    apps::SetInstalled(app, true);
    ASSERT_TRUE(settings::GetInt("memory/was/app_change", n));
    EXPECT_EQ(n, before + 1) << "only a change of state counts";

    app_control_h h = nullptr;
    ASSERT_EQ(app_control_create(&h), APP_CONTROL_ERROR_NONE);
    app_control_set_app_id(h, app.c_str());
    app_control_add_extra_data(h, "deviceID", "b");
    EXPECT_EQ(app_control_send_launch_request(h, nullptr, nullptr), APP_CONTROL_ERROR_NONE);
    EXPECT_TRUE(apps::IsRunning(app));
    apps::SetInstalled(app, false);
    EXPECT_FALSE(apps::IsRunning(app)) << "removal stops the app";
    EXPECT_EQ(app_control_send_launch_request(h, nullptr, nullptr), APP_CONTROL_ERROR_APP_NOT_FOUND);
    app_control_destroy(h);
    auto launches = apps::Launches();
    ASSERT_EQ(launches.size(), 2u);
    EXPECT_EQ(launches[0].extraData, (std::vector<std::pair<std::string, std::string>>{{"deviceID", "b"}}));
    EXPECT_EQ(launches[1].result, APP_CONTROL_ERROR_APP_NOT_FOUND);
}

namespace {

namespace noti = tvhost::notifications;

// Posts a record whose texts are overwritten in place right after; body and
// icon are null.
int Post(int item, std::string title)
{
    std::string app = "org.kelvar.lumora", label = "OK";
    notification_data_t d = {};
    d.app_id = app.c_str();
    d.item_id = item;
    d.title = title.c_str();
    d.button_count = 1;
    d.button_label[0] = label.c_str();
    int n = add_notification_data(&d);
    for (std::string *s : {&app, &title, &label})
        s->assign(s->size(), 'X');
    return n;
}

} // namespace

TEST(TvhostNotifications, KeepsCopiesRemovesOnlyItsOwnAndDeliversOnItsOwnThreadUntilClosed)
{
    LogCapture log;
    noti::DrawTo(nullptr);
    EXPECT_EQ(Post(1, "Washer"), -1) << "not initialised yet";
    ASSERT_EQ(init_notification_data_manager("org.kelvar.lumora", 0), 0);
    ASSERT_EQ(Post(1, "Washer"), 0);
    EXPECT_EQ(Post(3, "Oven"), 0);
    auto shown = noti::Shown();
    ASSERT_EQ(shown.size(), 2u);
    const noti::Record &r = shown[0];
    EXPECT_EQ(r.appId.value_or("-") + r.title.value_or("-") + r.body.value_or("-") + r.subText.value_or("-") +
                  r.buttonLabel[0].value_or("-") + r.buttonIcon[0].value_or("-") + r.buttonLabel[1].value_or("-"),
              "org.kelvar.lumoraWasher--OK--");
    EXPECT_EQ(remove_notification_data("org.kelvar.lumora", 2), -1);
    EXPECT_EQ(remove_notification_data("another.app", 3), -1);
    EXPECT_EQ(remove_notification_data("org.kelvar.lumora", 3), 0);
    std::vector<bool> found;
    for (const auto &removal : noti::Removals())
        found.push_back(removal.found);
    EXPECT_EQ(found, (std::vector<bool>{false, false, true}));

    static std::vector<std::string> events;
    static std::thread::id thread;
    events.clear();
    ASSERT_EQ(register_notification_button_callback([](int item, int index, void *) {
                  events.push_back(std::to_string(item) + "/" + std::to_string(index));
                  thread = std::this_thread::get_id();
              }, nullptr), 0);
    ASSERT_EQ(register_notification_timeout_callback(
                  [](int item, void *) { events.push_back("timeout " + std::to_string(item)); }, nullptr), 0);
    EXPECT_FALSE(noti::PressButton(5, 0)) << "no such notification";
    EXPECT_FALSE(noti::PressButton(1, 1)) << "it has one button";
    EXPECT_FALSE(noti::PressButton(1, -1));
    EXPECT_TRUE(noti::PressButton(1, 0));
    EXPECT_TRUE(noti::TimeOut(1));
    noti::WaitDelivered();
    EXPECT_EQ(events, (std::vector<std::string>{"1/0", "timeout 1"}));
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(close_notification_data_manager(), 0);
    EXPECT_FALSE(noti::PressButton(1, 0));
    EXPECT_FALSE(noti::TimeOut(1));
    noti::WaitDelivered();
    EXPECT_EQ(noti::Delivered(), 2);
}
