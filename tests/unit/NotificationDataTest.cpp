// The host notification-data service on its own: what the presenter's suite
// does not reach.
#include <gtest/gtest.h>

#include <notification_data.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <sstream>
#include <thread>

#include "LogCapture.h"
#include "tvhost/notifications.h"

namespace {

namespace noti = tvhost::notifications;

// The 88-byte record of 4-byte pointers; with 8-byte pointers every pointer
// field is naturally aligned.
constexpr bool kNarrow = sizeof(void *) == 4;
static_assert(!kNarrow || sizeof(notification_data_t) == 88, "22 words");
static_assert(!kNarrow || offsetof(notification_data_t, button_icon[2]) == 84, "last word");

TEST(NotificationData, RecordLayoutMatchesThePlatformForThisWordSize)
{
#define EXPECT_AT(field, narrow, wide) \
    EXPECT_EQ(offsetof(notification_data_t, field), kNarrow ? (narrow) : (wide)) << #field
    EXPECT_AT(popup, 4u, 4u);
    EXPECT_AT(style, 8u, 8u);
    EXPECT_AT(app_id, 12u, 16u);
    EXPECT_AT(item_id, 16u, 24u);
    EXPECT_AT(reserved1, 20u, 28u);
    EXPECT_AT(title, 32u, 40u);
    EXPECT_AT(body, 36u, 48u);
    EXPECT_AT(sub_text, 40u, 56u);
    EXPECT_AT(reserved2, 44u, 64u);
    EXPECT_AT(button_count, 56u, 76u);
    EXPECT_AT(need_answer, 60u, 80u);
    EXPECT_AT(button_label, 64u, 88u);
    EXPECT_AT(button_icon, 76u, 112u);
#undef EXPECT_AT
    EXPECT_EQ(sizeof(notification_data_t), kNarrow ? 88u : 136u);
}

// What the callbacks saw; read only after WaitDelivered().
struct Received {
    std::vector<std::string> events;
    std::thread::id thread;
};

class NotificationDataTest : public ::testing::Test {
protected:
    void SetUp() override { noti::DrawTo(nullptr); }

    // Posts a record whose texts are overwritten in place right after.
    static int Post(int item, std::string title)
    {
        std::string app = "org.kelvar.lumora", body = "body text", label = "OK", icon = "/icons/ok.png";
        notification_data_t d;
        std::memset(&d, 0, sizeof d);
        d.app_id = app.c_str();
        d.item_id = item;
        d.title = title.c_str();
        d.body = body.c_str();
        d.button_count = 1;
        d.button_label[0] = label.c_str();
        d.button_icon[0] = icon.c_str();
        int n = add_notification_data(&d);
        for (std::string *s : {&app, &title, &body, &label, &icon})
            s->assign(s->size(), 'X');
        return n;
    }

    LogCapture log;  // resets tvhost
};

TEST_F(NotificationDataTest, KeepsItsOwnCopiesAndAnswersFaults)
{
    EXPECT_EQ(Post(1, "Washer"), -1) << "not initialised yet";
    ASSERT_EQ(init_notification_data_manager("org.kelvar.lumora", 0), 0);
    ASSERT_EQ(Post(1, "Washer"), 0);
    noti::QueueResult("add_notification_data", -7);
    EXPECT_EQ(Post(2, "Dryer"), -7);
    EXPECT_EQ(Post(3, "Oven"), 0);

    auto shown = noti::Shown();
    ASSERT_EQ(shown.size(), 2u);
    const noti::Record &r = shown[0];
    EXPECT_EQ(r.appId.value_or("-") + r.title.value_or("-") + r.body.value_or("-") + r.subText.value_or("-") +
                  r.buttonLabel[0].value_or("-") + r.buttonIcon[0].value_or("-") + r.buttonLabel[1].value_or("-"),
              "org.kelvar.lumoraWasherbody text-OK/icons/ok.png-");

    EXPECT_EQ(remove_notification_data("org.kelvar.lumora", 2), -1);
    EXPECT_EQ(remove_notification_data("another.app", 3), -1);
    EXPECT_EQ(remove_notification_data("org.kelvar.lumora", 3), 0);
    std::vector<bool> found;
    for (const auto &r : noti::Removals())
        found.push_back(r.found);
    EXPECT_EQ(found, (std::vector<bool>{false, false, true}));
    EXPECT_EQ(noti::Shown().size(), 1u);
    EXPECT_EQ(noti::CallCount("add_notification_data"), 4);
    EXPECT_EQ(close_notification_data_manager(), 0);
}

TEST_F(NotificationDataTest, DeliversPressesAndTimeoutsOnItsOwnThreadUntilClosed)
{
    Received got;
    ASSERT_EQ(init_notification_data_manager("org.kelvar.lumora", 0), 0);
    ASSERT_EQ(register_notification_button_callback(
                  [](int item, int index, void *p) {
                      static_cast<Received *>(p)->events.push_back(std::to_string(item) + "/" + std::to_string(index));
                      static_cast<Received *>(p)->thread = std::this_thread::get_id();
                  },
                  &got),
              0);
    ASSERT_EQ(register_notification_timeout_callback(
                  [](int item, void *p) { static_cast<Received *>(p)->events.push_back("timeout " + std::to_string(item)); },
                  &got),
              0);
    ASSERT_EQ(Post(4, "Washer"), 0);

    EXPECT_FALSE(noti::PressButton(5, 0)) << "no such notification";
    EXPECT_FALSE(noti::PressButton(4, 1)) << "it has one button";
    EXPECT_FALSE(noti::PressButton(4, -1));
    EXPECT_TRUE(noti::PressButton(4, 0));
    EXPECT_TRUE(noti::TimeOut(4));
    noti::WaitDelivered();
    EXPECT_EQ(noti::Delivered(), 2);
    EXPECT_EQ(got.events, (std::vector<std::string>{"4/0", "timeout 4"}));
    EXPECT_NE(got.thread, std::this_thread::get_id());

    EXPECT_EQ(close_notification_data_manager(), 0);
    EXPECT_FALSE(noti::PressButton(4, 0));
    EXPECT_FALSE(noti::TimeOut(4));
    noti::WaitDelivered();
    EXPECT_EQ(noti::Delivered(), 2);
}

TEST_F(NotificationDataTest, DrawsABoxWithTitleBodyAndButtons)
{
    noti::Record r;
    r.appId = "org.kelvar.lumora";
    r.itemId = 12;
    r.title = "Washer";
    r.body = "The laundry cycle has finished and the drum is ready to be emptied, "
             "so please take the clothes out before they start to crease";
    r.buttonCount = 2;
    r.buttonLabel = {std::string("Close"), std::string("Go to Lumora"), std::nullopt};
    const std::string box = noti::Render(r);

    std::vector<std::string> lines;
    std::istringstream in(box);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    ASSERT_GE(lines.size(), 7u) << box;
    // Every line spans as many columns as the first (one per code point here).
    auto columns = [](const std::string &s) { return std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xC0) != 0x80; }); };
    std::string inner;  // the body's lines, frame and padding removed
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(columns(lines[i]), columns(lines[0])) << box;
        if (i >= 3 && i + 3 < lines.size()) {
            std::string s = lines[i].substr(std::strlen("│ "), lines[i].size() - std::strlen("│ │"));
            inner += (inner.empty() ? "" : " ") + s.substr(0, s.find_last_not_of(' ') + 1);
        }
    }
    EXPECT_EQ(inner, *r.body) << "wrapped, not cut:\n" << box;
    EXPECT_NE(lines[0].find("org.kelvar.lumora #12"), std::string::npos) << box;
    EXPECT_NE(lines[1].find("Washer"), std::string::npos) << box;
    EXPECT_NE(lines[lines.size() - 2].find("[ Close ]  [ Go to Lumora ]"), std::string::npos) << box;
}

} // namespace
