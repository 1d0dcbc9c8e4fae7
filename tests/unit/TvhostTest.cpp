// The host TV platform itself, where the service's own suites do not show it
// at work: the settings store's deliveries and the notification service's
// copies and threads. The main loop's lifecycle and changes made by other
// processes are the integration suites' (the service run under lumora-tv).
#include <gtest/gtest.h>

#include <notification_data.h>
#include <optional>
#include <thread>
#include <vconf.h>

#include "LogCapture.h"
#include "tvhost/mainloop.h"
#include "tvhost/notifications.h"
#include "tvhost/parse.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
using namespace tvhost;

namespace {

const std::string kKey = "tvhost/test/key";

// Notes each change and subscribes to one more key from inside the delivery.
void OnKey(keynode_t *node, void *pData)
{
    static_cast<std::vector<std::string> *>(pData)->push_back(std::string(vconf_keynode_get_name(node)) + ":" +
                                                              std::to_string(vconf_keynode_get_type(node)));
    vconf_notify_key_changed("tvhost/test/other", OnKey, pData);
}

} // namespace

TEST(TvhostSettings, ChangesReachEachSubscriberOnceOnTheMainLoopAndKeepTheirType)
{
    LogCapture log;
    mainloop::Attach();
    std::vector<std::string> heard;
    ASSERT_EQ(vconf_notify_key_changed(kKey.c_str(), OnKey, &heard), 0);
    ASSERT_EQ(vconf_notify_key_changed(kKey.c_str(), OnKey, &heard), 0);
    EXPECT_EQ(settings::Subscribers(kKey), 1);
    // With a loop attached, settings arrive on the loop, never on the writer's call.
    settings::SetString(kKey, "ko_KR.UTF-8\nsecond line");
    EXPECT_TRUE(heard.empty());
    EXPECT_TRUE(mainloop::RunUntil([&] { return !heard.empty(); }, 30s));
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

namespace noti = tvhost::notifications;

TEST(TvhostNotifications, KeepsCopiesRemovesOnlyItsOwnAndDeliversOnItsOwnThreadUntilClosed)
{
    LogCapture log;
    noti::DrawTo(nullptr);
    ASSERT_EQ(init_notification_data_manager("org.kelvar.lumora", 0), 0);
    std::string app = "org.kelvar.lumora", title = "Washer", label = "OK";
    notification_data_t d = {};
    d.app_id = app.c_str();
    d.item_id = 1;
    d.title = title.c_str();
    d.button_count = 1;
    d.button_label[0] = label.c_str();
    ASSERT_EQ(add_notification_data(&d), 0);
    for (std::string *s : {&app, &title, &label})
        s->assign(s->size(), 'X'); // overwritten in place right after the post
    const auto shown = noti::Shown();
    ASSERT_EQ(shown.size(), 1u);
    const noti::Record &r = shown[0];
    EXPECT_EQ(r.appId.value_or("-") + r.title.value_or("-") + r.body.value_or("-") + r.buttonLabel[0].value_or("-") +
                  r.buttonLabel[1].value_or("-"),
              "org.kelvar.lumoraWasher-OK-");
    EXPECT_EQ(remove_notification_data("another.app", 1), -1);
    ASSERT_EQ(noti::Shown().size(), 1u);

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
    EXPECT_TRUE(noti::PressButton(1, 0));
    noti::WaitDelivered();
    EXPECT_EQ(events, std::vector<std::string>{"1/0"});
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(close_notification_data_manager(), 0);
    EXPECT_FALSE(noti::PressButton(1, 0));
    noti::WaitDelivered();
    EXPECT_EQ(noti::Delivered(), 1);
}

namespace {

// A text, and what the one number reader makes of it as an int, a double
// and a %XX byte (nothing: refused).
struct NumberCase {
    const char *text;
    std::optional<int> integer;
    std::optional<double> real;
};

class TvhostParse : public ::testing::TestWithParam<NumberCase> {};

} // namespace

TEST_P(TvhostParse, ReadsTheWholeDecimalTextOrNothing)
{
    const NumberCase &c = GetParam();
    int n = -7;
    EXPECT_EQ(ParseInt(c.text, n) ? std::optional<int>(n) : std::nullopt, c.integer);
    EXPECT_EQ(n, c.integer.value_or(-7)) << "written on a refusal";
    double d = -7;
    EXPECT_EQ(ParseReal(c.text, d) ? std::optional<double>(d) : std::nullopt, c.real);
}

INSTANTIATE_TEST_SUITE_P(Texts, TvhostParse,
                         ::testing::Values(NumberCase{"5", 5, 5.0}, NumberCase{"-12", -12, -12.0},
                                           NumberCase{"0", 0, 0.0}, NumberCase{"2147483647", 2147483647, 2147483647.0},
                                           NumberCase{"2147483648", {}, 2147483648.0}, NumberCase{"0.5", {}, 0.5},
                                           NumberCase{"1.5e+06", {}, 1.5e6}, NumberCase{"1e400", {}, {}},
                                           NumberCase{"12abc", {}, {}}, NumberCase{"0x10", {}, {}},
                                           NumberCase{"+5", {}, {}}, NumberCase{" 5", {}, {}}, NumberCase{"5 ", {}, {}},
                                           NumberCase{"", {}, {}}, NumberCase{"-", {}, {}}, NumberCase{"inf", {}, {}},
                                           NumberCase{"nan", {}, {}}, NumberCase{"5\n", {}, {}}));

TEST(TvhostParse, ARangedNumberOutsideItsRangeIsRefusedAndLeavesTheValue)
{
    int n = 0;
    EXPECT_TRUE(ParseInt("10", n, 1, 10));
    EXPECT_FALSE(ParseInt("11", n, 1, 10));
    EXPECT_FALSE(ParseInt("0", n, 1, 10));
    EXPECT_EQ(n, 10);
}

TEST(TvhostParse, AHexByteIsExactlyTwoHexDigits)
{
    unsigned char byte = 0;
    EXPECT_TRUE(ParseHexByte("2F", byte));
    EXPECT_EQ(byte, 0x2F);
    for (const char *bad : {"2", "2G", "-1", "+1", "123", " 1"})
        EXPECT_FALSE(ParseHexByte(bad, byte)) << bad;
}
