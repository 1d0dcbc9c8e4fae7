// The host notification-data service on its own: what the presenter's suite
// does not reach.
#include <gtest/gtest.h>

#include <notification_data.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <sstream>
#include <thread>

#include "LogCapture.h"
#include "tvhost/notifications.h"
#include "tvhost/tvhost.h"

namespace {

namespace noti = tvhost::notifications;

// The 88-byte record of 4-byte pointers; with 8-byte pointers every pointer
// field is naturally aligned.
constexpr bool kNarrow = sizeof(void *) == 4;
static_assert(!kNarrow || sizeof(notification_data_t) == 88, "22 words");
static_assert(!kNarrow || offsetof(notification_data_t, button_icon[2]) == 84, "last word");

TEST(NotificationData, RecordLayoutMatchesThePlatformForThisWordSize)
{
    struct Field {
        const char *name;
        size_t offset, narrow, wide;
    };
    const Field fields[] = {
        {"version", offsetof(notification_data_t, version), 0, 0},
        {"popup", offsetof(notification_data_t, popup), 4, 4},
        {"style", offsetof(notification_data_t, style), 8, 8},
        {"app_id", offsetof(notification_data_t, app_id), 12, 16},
        {"item_id", offsetof(notification_data_t, item_id), 16, 24},
        {"reserved1", offsetof(notification_data_t, reserved1), 20, 28},
        {"title", offsetof(notification_data_t, title), 32, 40},
        {"body", offsetof(notification_data_t, body), 36, 48},
        {"sub_text", offsetof(notification_data_t, sub_text), 40, 56},
        {"reserved2", offsetof(notification_data_t, reserved2), 44, 64},
        {"button_count", offsetof(notification_data_t, button_count), 56, 76},
        {"need_answer", offsetof(notification_data_t, need_answer), 60, 80},
        {"button_label", offsetof(notification_data_t, button_label), 64, 88},
        {"button_icon", offsetof(notification_data_t, button_icon), 76, 112},
    };
    for (const Field &f : fields)
        EXPECT_EQ(f.offset, kNarrow ? f.narrow : f.wide) << f.name;
    EXPECT_EQ(sizeof(notification_data_t), kNarrow ? 88u : 136u);
}

struct Received {
    std::mutex mutex;
    std::vector<std::string> events;
    std::thread::id thread;
    void Add(const std::string &e)
    {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(e);
        thread = std::this_thread::get_id();
    }
};

void OnButton(int item, int index, void *data)
{
    static_cast<Received *>(data)->Add("button " + std::to_string(item) + "/" + std::to_string(index));
}

void OnTimeout(int item, void *data)
{
    static_cast<Received *>(data)->Add("timeout " + std::to_string(item));
}

class NotificationDataTest : public ::testing::Test {
protected:
    void SetUp() override { noti::DrawTo(nullptr); }
    void TearDown() override { noti::DrawTo(nullptr); }

    // Posts a record whose texts live in buffers that are overwritten after.
    int PostWithScratch(int item, const char *title, const char *label)
    {
        char app[32], t[64], body[64], l[32], icon[64];
        std::strcpy(app, "org.kelvar.lumora");
        std::strcpy(t, title);
        std::strcpy(body, "body text");
        std::strcpy(l, label);
        std::strcpy(icon, "/icons/ok.png");
        notification_data_t d;
        std::memset(&d, 0, sizeof d);
        d.version = 1;
        d.app_id = app;
        d.item_id = item;
        d.title = t;
        d.body = body;
        d.sub_text = "";
        d.button_count = 1;
        d.button_label[0] = l;
        d.button_icon[0] = icon;
        int n = add_notification_data(&d);
        for (char *p : {app, t, body, l, icon})
            std::memset(p, 'X', std::strlen(p));
        return n;
    }

    LogCapture log;  // resets tvhost
};

TEST_F(NotificationDataTest, KeepsItsOwnCopiesAndAnswersFaults)
{
    EXPECT_EQ(PostWithScratch(1, "Washer", "OK"), -1) << "not initialised yet";
    ASSERT_EQ(init_notification_data_manager("org.kelvar.lumora", 0), 0);
    ASSERT_EQ(PostWithScratch(1, "Washer", "OK"), 0);

    auto shown = noti::Shown();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].appId, "org.kelvar.lumora");
    EXPECT_EQ(shown[0].title, "Washer");
    EXPECT_EQ(shown[0].body, "body text");
    EXPECT_EQ(shown[0].subText, std::optional<std::string>(""));
    EXPECT_EQ(shown[0].buttonLabel[0], "OK");
    EXPECT_EQ(shown[0].buttonIcon[0], "/icons/ok.png");
    EXPECT_FALSE(shown[0].buttonLabel[1].has_value());

    noti::QueueResult("add_notification_data", -7);
    EXPECT_EQ(PostWithScratch(2, "Dryer", "OK"), -7);
    EXPECT_EQ(PostWithScratch(3, "Oven", "OK"), 0);
    EXPECT_EQ(noti::Posted().size(), 2u);

    EXPECT_EQ(remove_notification_data("org.kelvar.lumora", 2), -1);
    EXPECT_EQ(remove_notification_data("another.app", 3), -1);
    EXPECT_EQ(remove_notification_data("org.kelvar.lumora", 3), 0);
    auto removals = noti::Removals();
    ASSERT_EQ(removals.size(), 3u);
    EXPECT_FALSE(removals[0].found);
    EXPECT_FALSE(removals[1].found);
    EXPECT_TRUE(removals[2].found);
    EXPECT_EQ(noti::Shown().size(), 1u);
    EXPECT_EQ(noti::CallCount("add_notification_data"), 4);
    EXPECT_EQ(close_notification_data_manager(), 0);

    tvhost::Reset();
    EXPECT_TRUE(noti::Posted().empty());
    EXPECT_TRUE(noti::Calls().empty());
}

TEST_F(NotificationDataTest, DeliversPressesAndTimeoutsOnItsOwnThreadUntilClosed)
{
    Received got;
    ASSERT_EQ(init_notification_data_manager("org.kelvar.lumora", 0), 0);
    ASSERT_EQ(register_notification_button_callback(OnButton, &got), 0);
    ASSERT_EQ(register_notification_timeout_callback(OnTimeout, &got), 0);
    ASSERT_EQ(PostWithScratch(4, "Washer", "OK"), 0);

    EXPECT_FALSE(noti::PressButton(5, 0)) << "no such notification";
    EXPECT_FALSE(noti::PressButton(4, 1)) << "it has one button";
    EXPECT_FALSE(noti::PressButton(4, -1));
    EXPECT_TRUE(noti::PressButton(4, 0));
    EXPECT_TRUE(noti::TimeOut(4));
    noti::WaitDelivered();
    EXPECT_EQ(noti::Delivered(), 2);
    {
        std::lock_guard<std::mutex> lock(got.mutex);
        EXPECT_EQ(got.events, (std::vector<std::string>{"button 4/0", "timeout 4"}));
        EXPECT_NE(got.thread, std::this_thread::get_id());
    }

    EXPECT_EQ(close_notification_data_manager(), 0);
    EXPECT_FALSE(noti::PressButton(4, 0));
    EXPECT_FALSE(noti::TimeOut(4));
    noti::WaitDelivered();
    EXPECT_EQ(noti::Delivered(), 2);
    EXPECT_EQ(noti::Calls(), (std::vector<std::string>{
                                 "init_notification_data_manager",
                                 "register_notification_button_callback", "register_notification_timeout_callback",
                                 "add_notification_data", "close_notification_data_manager"}));
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
    ASSERT_GE(lines.size(), 6u) << box;
    // Every line spans the same number of columns (one per code point here).
    auto columns = [](const std::string &s) {
        size_t n = 0;
        for (unsigned char c : s)
            n += (c & 0xC0) != 0x80;
        return n;
    };
    for (const auto &line : lines)
        EXPECT_EQ(columns(line), columns(lines[0])) << box;
    EXPECT_NE(lines[0].find("org.kelvar.lumora #12"), std::string::npos) << box;
    EXPECT_NE(lines[1].find("Washer"), std::string::npos) << box;
    EXPECT_NE(box.find("[ Close ]  [ Go to Lumora ]"), std::string::npos) << box;
    // The long body is wrapped, not cut.
    std::string words;
    for (size_t i = 3; i + 3 < lines.size(); ++i) {
        std::string inner = lines[i].substr(std::strlen("│ "));
        inner = inner.substr(0, inner.size() - std::strlen(" │"));
        while (!inner.empty() && inner.back() == ' ')
            inner.pop_back();
        words += (words.empty() ? "" : " ") + inner;
    }
    EXPECT_EQ(words, *r.body) << box;
}

} // namespace
