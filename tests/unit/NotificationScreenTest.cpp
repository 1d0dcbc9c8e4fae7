// The host TV's screen model and its terminal drawing, without the service.
#include <gtest/gtest.h>

#include "tvhost/notification_screen.h"

namespace noti = tvhost::notifications;

namespace {

noti::Record Item(int id, int nButtons)
{
    noti::Record r;
    r.appId = "org.kelvar.lumora";
    r.itemId = id;
    r.buttonCount = nButtons;
    return r;
}

} // namespace

// Wide characters take two columns, control bytes become blanks and a broken
// sequence a '?', a missing app id too; long lines and many buttons wrap inside the one box.
TEST(NotificationScreen, HostileTextIsDrawnInsideOneBox)
{
    noti::Record r;
    r.itemId = 7;
    r.buttonCount = 3;
    r.title = std::string("洗濯機\tWasher\x01 bad\xff end");
    r.body = "The wash is done.\nTake it out before it wrinkles, please, it has been sitting there for a very long "
             "while now";
    r.buttonLabel = {std::string("Close"), std::string("Go to Lumora now please"),
                     std::string("Later on tonight, after dinner")};
    EXPECT_EQ("\n" + noti::Render(r), R"(
┌─ ? #7 ───────────────────────────────────────────────────────────┐
│ 洗濯機 Washer bad? end                                           │
├──────────────────────────────────────────────────────────────────┤
│ The wash is done.                                                │
│ Take it out before it wrinkles, please, it has been sitting      │
│ there for a very long while now                                  │
│                                                                  │
│ [ Close ]  [ Go to Lumora now please ]                           │
│ [ Later on tonight, after dinner ]                               │
└──────────────────────────────────────────────────────────────────┘
)");
}

TEST(NotificationScreen, OneNotificationAnItemAndOnlyItsOwnAppTakesItDown)
{
    noti::Screen screen;
    EXPECT_EQ(screen.CannotDeliver(1, false, 0), "no pop-up #1 on screen (nothing is on screen)");
    screen.Show(Item(3, 0));
    screen.Show(Item(1, 1));
    screen.Show(Item(2, 2));
    screen.Show(Item(2, 3)); // posted again: replaces
    EXPECT_EQ(noti::OnScreenText(screen.Records()), "3 on screen: #1, #2, #3");
    const struct {
        int item;
        bool bButton;
        int button;
        const char *why;
    } cases[] = {
        {3, false, 0, ""},
        {3, true, 0, "pop-up #3 has no buttons"},
        {1, true, 1, "pop-up #1 has 1 button: press 0"},
        {2, true, -1, "pop-up #2 has 3 buttons: press 0 to 2"},
        {2, true, 2, ""},
        {9, true, 0, "no pop-up #9 on screen (3 on screen: #1, #2, #3)"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(screen.CannotDeliver(c.item, c.bButton, c.button), c.why) << c.item << "/" << c.button;
    EXPECT_FALSE(screen.Close("another.app", 1));
    EXPECT_TRUE(screen.Close("org.kelvar.lumora", 1));
    EXPECT_FALSE(screen.Close("org.kelvar.lumora", 1));
    EXPECT_EQ(noti::OnScreenText(screen.Records()), "2 on screen: #2, #3");
    screen.TakeDown(2);
    EXPECT_EQ(noti::OnScreenText(screen.Records()), "1 on screen: #3");
}

TEST(NotificationScreen, ABoundedScreenPushesTheOldestOffAndNamesAFewOfMany)
{
    noti::Screen screen;
    const int nPosted = static_cast<int>(noti::Screen::kMaxOnScreen) + 20;
    for (int item = 1; item <= nPosted; ++item)
        screen.Show(Item(item, 0));
    EXPECT_EQ(screen.Records().size(), noti::Screen::kMaxOnScreen);
    const std::string range = std::to_string(noti::Screen::kMaxOnScreen) + " on screen: #21, #22, #23 ... #" +
                              std::to_string(nPosted - 2) + ", #" + std::to_string(nPosted - 1) + ", #" +
                              std::to_string(nPosted);
    EXPECT_EQ(screen.CannotDeliver(20, false, 0), "no pop-up #20 on screen (" + range + ")");
    EXPECT_EQ(screen.CannotDeliver(21, false, 0), "");
}
