#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vector>

#include "NotifySocket.h"
#include "ServiceProcess.h"
#include "tvhost/apps.h"
#include "tvhost/network.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;

namespace {

const char *const kWidgetApp = "PzKmRvTqXa.Lumora";

std::string Readiness(const char *name, pid_t pid)
{
    return std::string("READY=1\nsd_notify READY Proc : ") + name + "(" + std::to_string(pid) + ")";
}

std::string Watchdog(pid_t pid)
{
    return "WATCHDOG=1\nsd_notify WATCHDOG Proc : lumora(" + std::to_string(pid) + ")";
}

class LumoraProcess : public ::testing::Test {
protected:
    void SetUp() override
    {
        tvhost::settings::SetString("db/menu_widget/language", "en_US.UTF-8");
        tvhost::network::SetType(3);
    }
    void TearDown() override { tvhost::network::ClearOverride(); }
};

} // namespace

TEST_F(LumoraProcess, TellsSystemdItIsReadyFeedsTheWatchdogStartsTheEngineAndEndsOnSigterm)
{
    tvhost::apps::SetInstalled(kWidgetApp, true);
    NotifySocket sock;
    ServiceProcess service;
    auto t0 = std::chrono::steady_clock::now();
    service.Start();

    NotifySocket::Message msg;
    ASSERT_TRUE(sock.Receive(msg, 5s)) << service.Log();
    EXPECT_EQ(msg.text, Readiness("RAApp", service.Pid())) << "the timer thread's own readiness comes first";

    // Every tick sends the watchdog message; only the first one also says ready.
    // A wait cut short by a signal calls back early (run as root, Ecore's
    // start-up makes glibc signal every thread once), so gaps are checked, not
    // the time of the first tick.
    int nReadyLumora = 0;
    std::vector<std::chrono::steady_clock::time_point> ticks;
    auto until = t0 + 13500ms;
    while (std::chrono::steady_clock::now() < until &&
           sock.Receive(msg, std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()))) {
        if (msg.text == "READY=1")
            continue;  // Ecore's own, when its main loop begins
        if (msg.text == Readiness("lumora", service.Pid())) {
            EXPECT_TRUE(ticks.empty()) << "readiness comes with the first tick";
            ++nReadyLumora;
        } else {
            EXPECT_EQ(msg.text, Watchdog(service.Pid()));
            ticks.push_back(msg.when);
        }
    }
    EXPECT_EQ(nReadyLumora, 1);
    ASSERT_GE(ticks.size(), 2u);
    auto previous = t0;
    for (auto tick : ticks) {
        EXPECT_LE(tick - previous, 8s) << "the watchdog went quiet for longer than its period";
        previous = tick;
    }
    EXPECT_GE(ticks.back() - ticks[ticks.size() - 2], 5s) << "once running, ticks keep their 6 s period";

    // The widget was installed before the start: the engine runs, told the language.
    EXPECT_TRUE(service.WaitForLog("Success to start qorv!", 10s)) << service.Log();
    EXPECT_TRUE(service.WaitForLog("CLumoraQorvHelper Begin to Execute strCommand = SetSystemLanguage!", 5s));
    EXPECT_NE(service.Log().find("CLumoraQorvHelper Begin to Execute strParam1 = en_US!"), std::string::npos);
    EXPECT_NE(service.Log().find("argv[1]-----[--from-test]"), std::string::npos);

    service.Signal(SIGTERM);
    int status = service.Wait(15s);
    ASSERT_NE(status, -1) << "no exit within a timer period after SIGTERM";
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << service.Log();
    std::string log = service.Log();
    EXPECT_NE(log.find("main.cpp:_app_terminate("), std::string::npos);
    EXPECT_NE(log.find("############ Out LumoraApp Main, ret is 0 ############"), std::string::npos);
}

TEST_F(LumoraProcess, CreateFailsWhenTheDataFolderCannotBePrepared)
{
    std::filesystem::remove_all(tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data");
    std::string tools = tvhost::Root() + "/../failing-tools";
    std::filesystem::create_directories(tools);
    {
        std::ofstream script(tools + "/mkdir");
        script << "#!/bin/sh\nexit 1\n";
    }
    chmod((tools + "/mkdir").c_str(), 0755);

    NotifySocket sock;
    ServiceProcess service;
    service.Start({"PATH=" + tools + ":" + std::getenv("PATH")});
    int status = service.Wait(20s);
    ASSERT_NE(status, -1) << service.Log();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "main returns 0 whatever the framework says";
    std::string log = service.Log();
    EXPECT_NE(log.find("F/LUMORA"), std::string::npos) << log;
    EXPECT_NE(log.find(">Create the data folder failed"), std::string::npos) << log;
    EXPECT_NE(log.find(">LumoraManager Construct error!"), std::string::npos);
    EXPECT_NE(log.find("############ Out LumoraApp Main, ret is -1 ############"), std::string::npos);
    EXPECT_EQ(log.find("_app_terminate"), std::string::npos) << "no terminate after a failed create";
}
