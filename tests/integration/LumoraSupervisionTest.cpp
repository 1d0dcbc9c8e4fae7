// The service as systemd and a platform engineer see it over half a minute:
// readiness and an unbroken watchdog while the main loop sleeps before the
// engine start, a widget installed after the start, an event injected from
// another process, the pop-up it shows and its buttons, and SIGTERM; and the
// binary started directly, as systemd starts it on the TV.
#include <gtest/gtest.h>

#include <device/power.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <thread>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/notifications.h"
#include "tvhost/power.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
namespace noti = tvhost::notifications;

namespace {

std::string FileText(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string Text(const std::optional<std::string> &s)
{
    return s ? "\"" + *s + "\"" : "null";
}

// Every field of a record on one line.
std::string Words(const noti::Record &r)
{
    std::ostringstream out;
    out << r.version << ' ' << r.popup << ' ' << r.style << ' ' << Text(r.appId) << " #" << r.itemId;
    for (int w : r.reserved1)
        out << ' ' << w;
    out << ' ' << Text(r.title) << ' ' << Text(r.body) << ' ' << Text(r.subText);
    for (int w : r.reserved2)
        out << ' ' << w;
    out << " n=" << r.buttonCount << ' ' << r.needAnswer;
    for (int i = 0; i < 3; ++i)
        out << " [" << Text(r.buttonLabel[i]) << ' ' << Text(r.buttonIcon[i]) << ']';
    return out.str();
}

class LumoraSupervision : public ::testing::Test {
protected:
    void TearDown() override { LeaveHostTvFresh(); }
};

} // namespace

TEST_F(LumoraSupervision, StaysReadyAndFedWhileAWidgetInstalledLateStartsTheEngineAndLumoraTvDrivesIt)
{
    ASSERT_EQ(LumoraTv({"reset"}).status, 0);
    ASSERT_EQ(LumoraTv({"widget", "uninstall"}).status, 0);
    ASSERT_EQ(device_power_request_poweroff(3), 0) << "a record left by an earlier run";

    Supervisor tv;
    tv.Start({"--scenario", "quiet"});
    const pid_t pid = tv.Pid();
    ASSERT_TRUE(tv.WaitForLog("CLumoraWidgetChecker in SetWidgetInstalledCB function", 10s)) << tv.Log();

    // What `run` prepared, and what it refuses while the service runs.
    const std::string bin = tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin";
    EXPECT_EQ(FileText(tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data/mode.xml"),
              FileText(bin + "/scenarios/quiet.xml"));
    EXPECT_TRUE(tvhost::power::Recorded().empty());
    LumoraTvResult r = LumoraTv({"run"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("the service already runs on this host TV (pid " + std::to_string(pid) + ")"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(LumoraTv({"reset"}).status, 1);
    r = LumoraTv({"status"});
    EXPECT_NE(r.out.find("service:   running (pid " + std::to_string(pid) + "), 0 pop-ups on screen"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("engine:    not started"), std::string::npos) << r.out;
    r = LumoraTv({"event", "5", "-"}, "<x/>");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("is not started"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("lumora-tv widget install"), std::string::npos) << r.err;

    // Installed 4 s in, the engine start's 3 s sleep on the main loop spans
    // the watchdog's first tick at 6 s.
    std::this_thread::sleep_until(tv.StartedAt() + 4s);
    ASSERT_EQ(LumoraTv({"widget", "install"}).status, 0);
    ASSERT_TRUE(tv.WaitForLog(">Begin to start qorv!", 5s)) << "the service did not hear of the install\n" << tv.Log();
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", 10s)) << tv.Log();
    EXPECT_NE(LumoraTv({"status"}).out.find("engine:    started"), std::string::npos);

    // An event from another process, with texts that must cross the control socket whole.
    const std::string event =
        "<DeviceNotification id=\"e2e-1\" type=\"Alarm\"><Device id=\"rc-hall\" type=\"Robot Cleaner\">Hall\tcleaner"
        "</Device><Notification>Stuck under the sofa.\nPlease help: 100% sure.</Notification><Action type=\"Widget\">"
        "Open</Action><DisplayOption flag=\"On\" condition=\"Always\"/></DeviceNotification>";
    r = LumoraTv({"event", "5", "-"}, event);
    EXPECT_EQ(r.out, "event 5: the service answered 0\npop-up #1 shown: Hall cleaner [ Close ] [ Go to Lumora ] (see: "
                     "lumora-tv notifications 1)\n")
        << r.err;
    EXPECT_EQ(LumoraTv({"event", "4", "-"}, "ignored").out, "event 4: the service answered 0\n");

    std::vector<noti::Record> shown;
    noti::remote::Error error;
    ASSERT_TRUE(noti::remote::Shown(shown, error)) << error.text;
    ASSERT_EQ(shown.size(), 1u);
    const std::string icons = tvhost::Root() + "/usr/share/COMMONRESOURCE/IMAGE/ICON/ICON_BLACK/SMALL/";
    EXPECT_EQ(Words(shown[0]), "1 1 1 \"org.kelvar.lumora\" #1 0 0 0 \"Hall\tcleaner\" \"Stuck under the sofa.\nPlease "
                               "help: 100% sure.\" \"\" 0 0 0 n=2 0 [\"Close\" \"" +
                                   icons + "i_close_cancel.png\"] [\"Go to Lumora\" \"" + icons +
                                   "i_go.png\"] [null null]");
    EXPECT_EQ(LumoraTv({"notifications", "1"}).out, noti::Render(shown[0]));

    r = LumoraTv({"press", "1", "1"});
    EXPECT_NE(r.out.find("the service launched PzKmRvTqXa.Lumora with deviceID=rc-hall\n"), std::string::npos)
        << r.out << r.err;
    // The pressed pop-up left the screen: another one times out.
    ASSERT_EQ(LumoraTv({"event", "5", "-"}, event).status, 0);
    r = LumoraTv({"timeout", "2"});
    EXPECT_EQ(r.out, "pop-up #2 timed out and left the screen\n") << r.err;
    EXPECT_EQ(tv.CountInLog(">m_OnNotificationTimeoutCallback: nItemId = 2"), 1);

    // Half a minute under supervision, then the supervisor stops it.
    std::this_thread::sleep_until(tv.StartedAt() + 30s);
    ASSERT_TRUE(tv.Running()) << tv.Log();
    ExpectSupervised(tv.Terminate(), 4);
    EXPECT_EQ(tv.CountInLog("main.cpp:_app_terminate("), 1);
    EXPECT_EQ(tv.CountInLog("############ Out LumoraApp Main, ret is 0 ############"), 1);
    EXPECT_FALSE(std::filesystem::exists(noti::ControlSocketPath())) << "the control socket goes with the service";
}

// As systemd starts it on the TV: the binary itself, the widget installed before.
TEST_F(LumoraSupervision, StartedDirectlyWithTheWidgetInstalledStartsTheEngineInTheTvLanguage)
{
    ASSERT_EQ(LumoraTv({"reset"}).status, 0);
    ASSERT_EQ(LumoraTv({"set", "db/menu_widget/language", "de_DE.UTF-8"}).status, 0);
    Supervisor tv;
    tv.StartService({"--from-test"});
    ASSERT_TRUE(tv.WaitForLog("Success to start qorv!", 10s)) << tv.Log();
    EXPECT_TRUE(tv.WaitForLog("CLumoraQorvHelper Begin to Execute strParam1 = de_DE!", 5s)) << tv.Log();
    EXPECT_EQ(tv.CountInLog("argv[1]-----[--from-test]"), 1);
    ASSERT_TRUE(tv.WaitForMessages(4, 10s)) << "readiness and the first watchdog messages";
    ExpectSupervised(tv.Terminate());
}

TEST_F(LumoraSupervision, CreateFailsWhenTheDataFolderCannotBePrepared)
{
    ASSERT_EQ(LumoraTv({"reset"}).status, 0);
    const std::string tools = tvhost::Root() + "/../failing-tools";
    std::filesystem::create_directories(tools);
    std::ofstream(tools + "/mkdir") << "#!/bin/sh\nexit 1\n";
    std::filesystem::permissions(tools + "/mkdir", std::filesystem::perms::owner_all);

    Supervisor tv;
    tv.StartService({}, {"PATH=" + tools + ":" + std::getenv("PATH")});
    const int status = tv.Wait(20s);
    ASSERT_NE(status, -1) << tv.Log();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "main returns 0 whatever the framework says";
    EXPECT_EQ(tv.CountInLog("F/LUMORA"), 1) << tv.Log();
    EXPECT_EQ(tv.CountInLog(">Create the data folder failed"), 1);
    EXPECT_EQ(tv.CountInLog(">LumoraManager Construct error!"), 1);
    EXPECT_EQ(tv.CountInLog("############ Out LumoraApp Main, ret is -1 ############"), 1);
    EXPECT_EQ(tv.CountInLog("_app_terminate"), 0) << "no terminate after a failed create";
}
