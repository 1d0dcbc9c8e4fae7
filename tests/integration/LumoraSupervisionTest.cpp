// The service as systemd and a platform engineer see it: readiness and an
// unbroken watchdog while the main loop sleeps before the engine start, a
// widget installed after the start, an event injected from another process,
// the pop-up it shows and its buttons, and SIGTERM; and the binary started
// directly, as systemd starts it on the TV.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <device/power.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sys/wait.h>
#include <thread>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/notifications.h"
#include "tvhost/power.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Optional;
namespace noti = tvhost::notifications;

namespace {

// One run of `lumora-tv run --scenario quiet` with the widget not installed,
// for half a minute; its tests follow it in order.
class LumoraSupervision : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(LumoraTv({"reset"}).status, 0);
        ASSERT_EQ(LumoraTv({"widget", "uninstall"}).status, 0);
        ASSERT_EQ(device_power_request_poweroff(3), 0) << "a record left by an earlier run";
        tv = std::make_unique<Supervisor>();
        tv->Start({"--scenario", "quiet"});
        ASSERT_TRUE(tv->WaitForLog("CLumoraWidgetChecker in SetWidgetInstalledCB function", kHangGuard)) << tv->Log();
    }
    static void TearDownTestSuite()
    {
        tv.reset();
        LeaveHostTvFresh();
    }
    static std::unique_ptr<Supervisor> tv;
};
std::unique_ptr<Supervisor> LumoraSupervision::tv;

using LumoraStartedDirectly = HostTvTest;

} // namespace

// The refusals of run and reset while it runs are LumoraTvCliTest's.
TEST_F(LumoraSupervision, RunCopiesTheScenarioClearsThePowerRecordAndTheEngineWaitsForTheWidget)
{
    const std::string bin = tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin";
    EXPECT_EQ(ReadFile(tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data/mode.xml"),
              ReadFile(bin + "/scenarios/quiet.xml"));
    EXPECT_TRUE(tvhost::power::Recorded().empty());
    LumoraTvResult r = LumoraTv({"status"});
    EXPECT_THAT(r.out, HasSubstr("service:   running (pid " + std::to_string(tv->Pid()) + "), 0 pop-ups on screen"));
    EXPECT_THAT(r.out, HasSubstr("engine:    not started"));
    r = LumoraTv({"event", "5", "-"}, "<x/>");
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, AllOf(HasSubstr("is not started"), HasSubstr("lumora-tv widget install")));
}

// Installed 4 s in, the engine start's 3 s sleep on the main loop spans the
// watchdog's first tick at 6 s.
TEST_F(LumoraSupervision, AWidgetInstalledLateStartsTheEngine)
{
    std::this_thread::sleep_until(tv->StartedAt() + 4s);
    ASSERT_EQ(LumoraTv({"widget", "install"}).status, 0);
    ASSERT_TRUE(tv->WaitForLog(">Begin to start qorv!", kHangGuard)) << "the service did not hear of the install\n"
                                                                     << tv->Log();
    ASSERT_TRUE(tv->WaitForLog(">Success to start qorv!", kHangGuard)) << tv->Log();
    EXPECT_THAT(LumoraTv({"status"}).out, HasSubstr("engine:    started"));
}

TEST_F(LumoraSupervision, AnEventsTextsCrossTheControlSocketWhole)
{
    const std::string event =
        "<DeviceNotification id=\"e2e-1\" type=\"Alarm\"><Device id=\"rc-hall\" type=\"Robot Cleaner\">Hall\tcleaner"
        "</Device><Notification>Stuck under the sofa.\nPlease help: 100% sure.</Notification><Action type=\"Widget\">"
        "Open</Action><DisplayOption flag=\"On\" condition=\"Always\"/></DeviceNotification>";
    EXPECT_EQ(LumoraTv({"event", "5", "-"}, event).out,
              "event 5: the service answered 0\npop-up #1 shown: Hall cleaner [ Close ] [ Go to Lumora ] (see: "
              "lumora-tv notifications 1)\n");
    EXPECT_EQ(LumoraTv({"event", "4", "-"}, "ignored").out, "event 4: the service answered 0\n");

    std::vector<noti::Record> shown;
    noti::remote::Error error;
    ASSERT_TRUE(noti::remote::Shown(shown, error)) << error.text;
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_THAT(shown[0].title, Optional(std::string("Hall\tcleaner")));
    EXPECT_THAT(shown[0].body, Optional(std::string("Stuck under the sofa.\nPlease help: 100% sure.")));
    EXPECT_EQ(LumoraTv({"notifications", "1"}).out, noti::Render(shown[0]));
    EXPECT_EQ(LumoraTv({"timeout", "1"}).out, "pop-up #1 timed out and left the screen\n");
    EXPECT_EQ(tv->CountInLog(">m_OnNotificationTimeoutCallback: nItemId = 1"), 1);
}

TEST_F(LumoraSupervision, HalfAMinuteFedThenSigtermEndsItCleanly)
{
    std::this_thread::sleep_until(tv->StartedAt() + 30s);
    ASSERT_TRUE(tv->Running()) << tv->Log();
    ExpectSupervised(tv->Terminate(), 4);
    EXPECT_EQ(tv->CountInLog("main.cpp:_app_terminate("), 1);
    EXPECT_EQ(tv->CountInLog("############ Out LumoraApp Main, ret is 0 ############"), 1);
    EXPECT_FALSE(std::filesystem::exists(noti::ControlSocketPath())) << "the control socket goes with the service";
}

TEST_F(LumoraStartedDirectly, WithTheWidgetInstalledTheEngineStartsInTheTvLanguage)
{
    ASSERT_EQ(LumoraTv({"set", "db/menu_widget/language", "de_DE.UTF-8"}).status, 0);
    Supervisor tv;
    tv.StartService({"--from-test"});
    ASSERT_TRUE(tv.WaitForLog("Success to start qorv!", kHangGuard)) << tv.Log();
    EXPECT_TRUE(tv.WaitForLog("CLumoraQorvHelper Begin to Execute strParam1 = de_DE!", kHangGuard)) << tv.Log();
    EXPECT_EQ(tv.CountInLog("argv[1]-----[--from-test]"), 1);
    ASSERT_TRUE(tv.WaitForMessages(4, kHangGuard)) << "readiness and the first watchdog messages";
    ExpectSupervised(tv.Terminate());
}

TEST_F(LumoraStartedDirectly, CreateFailsWhenTheDataFolderCannotBePrepared)
{
    const std::string tools = tvhost::Root() + "/../failing-tools";
    std::filesystem::create_directories(tools);
    std::ofstream(tools + "/mkdir") << "#!/bin/sh\nexit 1\n";
    std::filesystem::permissions(tools + "/mkdir", std::filesystem::perms::owner_all);

    Supervisor tv;
    tv.StartService({}, {"PATH=" + tools + ":" + std::getenv("PATH")});
    const int status = tv.Wait(kHangGuard);
    ASSERT_NE(status, -1) << tv.Log();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "main returns 0 whatever the framework says";
    EXPECT_EQ(tv.CountInLog("_app_terminate"), 0) << "no terminate after a failed create";
    for (const char *line : {"F/LUMORA", ">Create the data folder failed", ">LumoraManager Construct error!",
                             "############ Out LumoraApp Main, ret is -1 ############"})
        EXPECT_EQ(tv.CountInLog(line), 1) << line << "\n" << tv.Log();
}
