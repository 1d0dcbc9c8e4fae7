// The service binary started directly, as systemd starts it on the TV.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/apps.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;

namespace {

class LumoraProcess : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(LumoraTv({"reset"}).status, 0); }
    void TearDown() override { LeaveHostTvFresh(); }
};

} // namespace

TEST_F(LumoraProcess, WithTheWidgetInstalledStartsTheEngineInTheTvLanguageAndEndsOnSigterm)
{
    tvhost::settings::SetString("db/menu_widget/language", "de_DE.UTF-8");
    Supervisor tv;
    tv.StartService({"--from-test"});
    const pid_t pid = tv.Pid();

    ASSERT_TRUE(tv.WaitForLog("Success to start qorv!", 10s)) << tv.Log();
    EXPECT_TRUE(tv.WaitForLog("CLumoraQorvHelper Begin to Execute strParam1 = de_DE!", 5s)) << tv.Log();
    EXPECT_EQ(tv.CountInLog("argv[1]-----[--from-test]"), 1);
    ASSERT_TRUE(tv.WaitForMessages(4, 10s)) << "readiness and the first watchdog messages";

    tv.Signal(SIGTERM);
    const int status = tv.Wait(15s);
    const auto ended = Supervisor::Clock::now();
    ASSERT_NE(status, -1) << "no exit within a watchdog period after SIGTERM";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << tv.Log();
    EXPECT_EQ(tv.CountInLog("main.cpp:_app_terminate("), 1);
    EXPECT_EQ(tv.CountInLog("############ Out LumoraApp Main, ret is 0 ############"), 1);

    Supervision seen = Judge(tv.Messages(), pid, tv.StartedAt(), ended);
    EXPECT_TRUE(seen.problems.empty()) << ::testing::PrintToString(seen.problems);
    EXPECT_GE(seen.nWatchdogs, 1);
    EXPECT_LE(seen.longestGap, 8s);
}

TEST_F(LumoraProcess, CreateFailsWhenTheDataFolderCannotBePrepared)
{
    std::filesystem::remove_all(tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data");
    const std::string tools = tvhost::Root() + "/../failing-tools";
    std::filesystem::create_directories(tools);
    std::ofstream(tools + "/mkdir") << "#!/bin/sh\nexit 1\n";
    chmod((tools + "/mkdir").c_str(), 0755);

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
