// The demo tour end to end: the real service under a supervisor, the engine
// playing its demo scenario, and lumora-tv doing what the viewer and the
// platform do in between, from other processes. The scenario runs once for
// the suite; its tests follow it in order. The start, the language commands
// and a language change from another process are the unit and fault suites'.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "LumoraTv.h"
#include "Supervisor.h"

using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

class LumoraDemoTour : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(LumoraTv({"reset"}).status, 0);
        tv = std::make_unique<Supervisor>();
        tv->Start({"--scenario", "demo"});
    }
    static void TearDownTestSuite()
    {
        tv.reset();
        LeaveHostTvFresh();
    }
    static std::unique_ptr<Supervisor> tv;
};
std::unique_ptr<Supervisor> LumoraDemoTour::tv;

} // namespace

TEST_F(LumoraDemoTour, NewDeviceAndDevicePopupsAreShown)
{
    ASSERT_TRUE(tv->WaitForLog("┌─ org.kelvar.lumora #2 ", kHangGuard)) << tv->Log();
    EXPECT_THAT(Popups(),
                ElementsAre("1\tNew home appliance detected\tYes\tNo", "2\tLiving room\tClose\tGo to Lumora"));
    EXPECT_THAT(LumoraTv({"notifications", "2"}).out,
                AllOf(HasSubstr("│ The living room has reached 24 °C."), HasSubstr("[ Close ]  [ Go to Lumora ]")));
}

// Wrong presses are refused with the reason; an answered pop-up leaves the screen.
TEST_F(LumoraDemoTour, YesLaunchesNothingAndGoToLumoraLaunchesTheWidget)
{
    LumoraTvResult r = LumoraTv({"press", "9", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "lumora-tv: no pop-up #9 on screen (2 on screen: #1, #2)\n");
    EXPECT_EQ(LumoraTv({"press", "2", "2"}).err, "lumora-tv: pop-up #2 has 2 buttons: press 0 to 1\n");
    EXPECT_EQ(LumoraTv({"press", "1", "0"}).out,
              "pressed [ Yes ] (button 0) of pop-up #1\nthe service launched nothing\n");
    r = LumoraTv({"press", "2", "1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "pressed [ Go to Lumora ] (button 1) of pop-up #2\n"
                     "the service launched PzKmRvTqXa.Lumora with deviceID=ac-living\n");
    EXPECT_EQ(tv->CountInLog("=== Succeeded to launch a WebApp ====="), 1);
    EXPECT_THAT(Popups(), ElementsAre());
}

// The network, then the TV language, changed from other processes.
TEST_F(LumoraDemoTour, WifiRefreshesTheEngineAndLaterPopupsAreKoreanWithOnlyOkWhileTheWidgetRuns)
{
    ASSERT_EQ(LumoraTv({"network", "wifi"}).status, 0);
    EXPECT_TRUE(tv->WaitForLog("m_ConnectionTypeChangedCB() is called. type : 1", kHangGuard)) << tv->Log();
    EXPECT_TRUE(tv->WaitForLog("event type is 0,", kHangGuard, 2)) << "the engine reports its devices again\n"
                                                                   << tv->Log();
    ASSERT_EQ(LumoraTv({"set", "db/menu_widget/language", "ko_KR.UTF-8"}).status, 0);
    ASSERT_TRUE(tv->WaitForLog("┌─ org.kelvar.lumora #3 ", kHangGuard)) << tv->Log();
    EXPECT_THAT(Popups(), ElementsAre("3\tLaundry\t확인"));
    EXPECT_THAT(LumoraTv({"notifications", "3"}).out, HasSubstr("세탁이 완료되었습니다."));
}

TEST_F(LumoraDemoTour, EnginePowerOffEndsTheServiceCleanly)
{
    ExpectSupervised(tv->Ended(kHangGuard), 3);
    EXPECT_EQ(tv->CountInLog("In HAC_EVENT_TV_POWER_OFF condition "), 1);
    EXPECT_EQ(tv->CountInLog("CLumoraTvControl success to power off the TV!"), 1);
    EXPECT_EQ(tv->CountInLog("############ Out LumoraApp Main, ret is 0 ############"), 1);
    EXPECT_EQ(LumoraTv({"power"}).out, "off: the TV was switched off (power-off request of kind 3)\n");
}
