// The host TV platform itself, where the service's own suites do not show it
// at work: the main loop's lifecycle, the settings store's deliveries, device
// power and the notification service. Changes made by other processes are the
// integration suites' (lumora-tv against the running service).
#include <gtest/gtest.h>

#include <Ecore.h>
#include <appcore-efl.h>
#include <csignal>
#include <device/power.h>
#include <net_connection.h>
#include <notification_data.h>
#include <thread>
#include <unistd.h>
#include <vconf.h>

#include "LogCapture.h"
#include "tvhost/mainloop.h"
#include "tvhost/faults.h"
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

// Ends a loop that nothing else ends, so that a fault fails instead of hanging.
int CreateWithGuard(void *)
{
    g_calls.push_back("create");
    ecore_timer_add(
        30.0,
        [](void *) -> Eina_Bool {
            g_calls.push_back("guard");
            ecore_main_loop_quit();
            return ECORE_CALLBACK_CANCEL;
        },
        nullptr);
    return 0;
}

// Notes each change and subscribes to one more key from inside the delivery.
void OnKey(keynode_t *node, void *pData)
{
    static_cast<std::vector<std::string> *>(pData)->push_back(std::string(vconf_keynode_get_name(node)) + ":" +
                                                              std::to_string(vconf_keynode_get_type(node)));
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
        kill(getpid(), SIGTERM); // held back while create runs
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
    ops.data = &ops; // create fails
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
    tvhost::faults::Queue("device_power_request_poweroff", -1);
    EXPECT_EQ(device_power_request_poweroff(3), -1);
    EXPECT_EQ(power::Requests(), (std::vector<int>{3, 3}));
}

TEST(TvhostSettings, ChangesReachEachSubscriberOnceOnTheMainLoopAndKeepTheirType)
{
    LogCapture log;
    network::SetType(CONNECTION_TYPE_ETHERNET);
    mainloop::Attach();
    connection_h h = nullptr;
    ASSERT_EQ(connection_create(&h), 0);
    int type = -1;
    auto onType = [](connection_type_e t, void *p) { *static_cast<int *>(p) = t; };
    ASSERT_EQ(connection_set_type_changed_cb(h, onType, &type), 0);
    std::vector<std::string> heard;
    ASSERT_EQ(vconf_notify_key_changed(kKey.c_str(), OnKey, &heard), 0);
    ASSERT_EQ(vconf_notify_key_changed(kKey.c_str(), OnKey, &heard), 0);
    EXPECT_EQ(settings::Subscribers(kKey), 1);
    // With a loop attached, settings arrive on the loop, never on the writer's call.
    settings::SetString(kKey, "ko_KR.UTF-8\nsecond line");
    network::SetType(CONNECTION_TYPE_WIFI);
    EXPECT_TRUE(heard.empty());
    EXPECT_TRUE(mainloop::RunUntil([&] { return !heard.empty() && type == CONNECTION_TYPE_WIFI; }, 30s));
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
    int n = 0;
    EXPECT_NE(vconf_get_int(kKey.c_str(), &n), 0) << "a string is not an integer";

    settings::SetInt(kKey, -17);
    EXPECT_TRUE(mainloop::RunUntil([&] { return heard.size() > 1; }, 30s));
    mainloop::RunFor(300ms);
    mainloop::Detach();
    settings::SetInt(kKey, 8); // without a loop the writer's call delivers
    EXPECT_EQ(heard, (std::vector<std::string>{kKey + ":40", kKey + ":41", kKey + ":41"}));
    EXPECT_EQ(vconf_get_int(kKey.c_str(), &n), 0);
    EXPECT_EQ(n, 8);

    Reset();
    settings::SetInt(kKey, 2);
    EXPECT_EQ(heard.size(), 3u) << "a reset drops the subscribers";
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
    ASSERT_EQ(register_notification_button_callback(
                  [](int item, int index, void *) {
                      events.push_back(std::to_string(item) + "/" + std::to_string(index));
                      thread = std::this_thread::get_id();
                  },
                  nullptr),
              0);
    ASSERT_EQ(register_notification_timeout_callback(
                  [](int item, void *) { events.push_back("timeout " + std::to_string(item)); }, nullptr),
              0);
    EXPECT_FALSE(noti::PressButton(5, 0)) << "no such notification";
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
