// The demo tour end to end: the real service under a supervisor, the engine
// playing its demo scenario, and lumora-tv doing what the viewer and the
// platform do in between, from other processes.
#include <gtest/gtest.h>

#include "LumoraTv.h"
#include "Supervisor.h"

using namespace std::chrono_literals;

namespace {

std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
        out.push_back(text.substr(start, nl - start));
    return out;
}

class LumoraDemoTour : public ::testing::Test {
protected:
    void TearDown() override { LeaveHostTvFresh(); }
};

} // namespace

TEST_F(LumoraDemoTour, FromTheWidgetFoundToTheTvSwitchedOffDrivenByLumoraTv)
{
    LumoraTvResult r = LumoraTv({"reset"});
    ASSERT_EQ(r.status, 0) << Describe({"reset"}, r);

    Supervisor tv;
    tv.Start({"--scenario", "demo"});
    ASSERT_TRUE(tv.WaitForLog(">Begin to start qorv!", 10s)) << tv.Log();
    const auto found = Supervisor::Clock::now();
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", 10s)) << tv.Log();
    EXPECT_GE(Supervisor::Clock::now() - found, 2500ms) << "the engine starts 3 s after the widget was found";
    ASSERT_TRUE(tv.WaitForLog(">LumoraManager::Construct SetSystemLanguage strReturn = OK", 5s)) << tv.Log();
    EXPECT_EQ(tv.CountInLog("Begin to Execute strParam1 = en_US!"), 2) << "SetLanguage and SetSystemLanguage";

    ASSERT_TRUE(tv.WaitForLog(">Device list : strID = ac-bedroom", 10s)) << tv.Log();
    EXPECT_EQ(tv.CountInLog(">Device list : strID = ac-living"), 1);

    std::vector<std::string> popups;
    ASSERT_TRUE(WaitForPopups(2, 15s, popups)) << tv.Log();
    EXPECT_EQ(popups, (std::vector<std::string>{"1\tNew home appliance detected\tYes\tNo",
                                                "2\tLiving room\tClose\tGo to Lumora"}));
    r = LumoraTv({"notifications", "2"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("│ The living room has reached 24 °C."), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("[ Close ]  [ Go to Lumora ]"), std::string::npos) << r.out;

    // The viewer switches the TV to Korean in another process.
    r = LumoraTv({"set", "db/menu_widget/language", "ko_KR.UTF-8"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(tv.WaitForLog("Begin to Execute strParam1 = ko_KR!", 5s, 2)) << "the engine is told ko_KR\n"
                                                                             << tv.Log();

    // Presses: wrong ones are refused with the reason, Yes does nothing, Go to Lumora launches; an
    // answered pop-up leaves the screen.
    r = LumoraTv({"press", "9", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "lumora-tv: no pop-up #9 on screen (2 on screen: #1, #2)\n");
    r = LumoraTv({"press", "2", "2"});
    EXPECT_EQ(r.err, "lumora-tv: pop-up #2 has 2 buttons: press 0 to 1\n");
    r = LumoraTv({"press", "1", "0"});
    EXPECT_EQ(r.out, "pressed [ Yes ] (button 0) of pop-up #1\nthe service launched nothing\n") << r.err;
    r = LumoraTv({"press", "2", "1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Lines(r.out),
              (std::vector<std::string>{"pressed [ Go to Lumora ] (button 1) of pop-up #2",
                                        "the service launched PzKmRvTqXa.Lumora with deviceID=ac-living"}));
    EXPECT_EQ(LumoraTv({"widget"}).out, "PzKmRvTqXa.Lumora is installed, running\n");
    EXPECT_EQ(tv.CountInLog("=== Succeeded to launch a WebApp ====="), 1);

    // The network goes Wi-Fi: the engine refreshes and reports its devices again.
    ASSERT_EQ(LumoraTv({"network", "wifi"}).status, 0);
    EXPECT_TRUE(tv.WaitForLog("m_ConnectionTypeChangedCB() is called. type : 1", 5s)) << tv.Log();
    EXPECT_TRUE(tv.WaitForLog("event type is 0,", 5s, 2)) << tv.Log();

    // Korean from now on, and with the widget running only an OK button.
    ASSERT_TRUE(WaitForPopups(1, 15s, popups)) << tv.Log();
    EXPECT_EQ(popups.back(), "3\tLaundry\t확인");
    EXPECT_NE(LumoraTv({"notifications", "3"}).out.find("세탁이 완료되었습니다."), std::string::npos);

    // The engine switches the TV off: the main loop ends and the service exits cleanly.
    ExpectSupervised(tv.Ended(30s), 3);
    EXPECT_EQ(tv.CountInLog("In HAC_EVENT_TV_POWER_OFF condition "), 1);
    EXPECT_EQ(tv.CountInLog("CLumoraTvControl success to power off the TV!"), 1);
    EXPECT_EQ(tv.CountInLog("############ Out LumoraApp Main, ret is 0 ############"), 1);
    EXPECT_EQ(LumoraTv({"power"}).out, "off: the TV was switched off (power-off request of kind 3)\n");
    r = LumoraTv({"notifications"});
    EXPECT_EQ(r.status, 1) << "the control socket ends with the service";
    EXPECT_NE(r.err.find("start it with: lumora-tv run"), std::string::npos);
}
