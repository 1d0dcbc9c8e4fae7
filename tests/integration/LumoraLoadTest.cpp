// The service under load for about a minute: the engine's "storm" scenario
// (20,000 rounds of events 0, 1, 5 and 12290 back to back from the engine
// thread) while another process presses pop-up buttons and flips the display
// language every 100 ms. The service keeps running, shows every pop-up, and
// the supervisor never waits longer than a watchdog period and a margin. The
// heap the service keeps per event is the accounting bench's (bench/).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "LumoraTv.h"
#include "Supervisor.h"

using namespace std::chrono_literals;

// How long the storm may run before the numbers are taken.
constexpr auto kLoadTime = 60s;
constexpr int kRounds = 20000;

using LumoraLoad = HostTvTest;

TEST_F(LumoraLoad, AStormWithPressesAndLanguageFlipsKeepsTheServiceUpAndFed)
{
    Supervisor tv;
    tv.Start({"--scenario", "storm"});
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", kHangGuard)) << tv.Log().substr(0, 4000);

    // Another process, every 100 ms: a press of "Yes" on the newest new-device
    // pop-up on screen (the odd items), or a language flip. The bounded screen
    // pushes pop-ups off faster than a person presses: a press may find its
    // pop-up gone (exit 1), but every one is answered.
    std::atomic<bool> bStop{false};
    int nPresses = 0, nPressesDone = 0, nPressesAnswered = 0, nFlips = 0, nFlipsDone = 0;
    std::thread driver([&] {
        for (int i = 0; !bStop; ++i) {
            if (i % 2 == 0) {
                ++nPresses;
                std::string item = "1";
                for (const std::string &line : Popups())
                    if (std::atoi(line.c_str()) % 2)
                        item = std::to_string(std::atoi(line.c_str()));
                const LumoraTvResult r = LumoraTv({"press", item, "1"});
                nPressesDone += r.status == 0;
                nPressesAnswered += r.status == 0 || (r.status == 1 && r.err.find("no pop-up #") != std::string::npos);
            } else {
                ++nFlips;
                const char *language = (i / 2) % 2 ? "en_US.UTF-8" : "ko_KR.UTF-8";
                nFlipsDone += LumoraTv({"set", "db/menu_widget/language", language}).status == 0;
            }
            std::this_thread::sleep_for(100ms); // the pace of a person, not a wait
        }
    });
    // Until the storm is over or the time is up.
    tv.WaitForLog("Enter LumoraManager::OnQorvEvent, event type is 12290,", kLoadTime, kRounds);
    bStop = true;
    driver.join();
    ASSERT_TRUE(tv.Running()) << tv.Log().substr(0, 4000);
    // One snapshot: the storm goes on while it is counted.
    const std::string log = tv.Log();
    const int nRounds = Occurrences(log, "Enter LumoraManager::OnQorvEvent, event type is 12290,");
    const int nDevicePopups = Occurrences(log, ">LumoraNotification::m_AddDeviceNotification show the notification");
    const int nNewDevicePopups = Occurrences(log, ">LumoraNotification::m_AddNewDeviceFound");
    const int nKorean = Occurrences(log, ">CLumoraQorvHelper Begin to Execute strParam1 = ko_KR!");
    const Supervision seen = tv.Terminate(kHangGuard);
    ExpectSupervised(seen);

    std::printf("storm: %d rounds; %d/%d presses and %d/%d language flips done; longest watchdog gap %lld ms\n",
                nRounds, nPressesDone, nPresses, nFlipsDone, nFlips, static_cast<long long>(seen.longestGap.count()));
    EXPECT_GE(nRounds, 1000);
    // Every device and new-device notification of the storm is shown (the
    // log may end inside a round).
    EXPECT_LE(std::abs(nDevicePopups - nRounds), 1);
    EXPECT_LE(std::abs(nNewDevicePopups - nRounds), 1);
    EXPECT_EQ(nPressesAnswered, nPresses);
    EXPECT_GE(nKorean, 2);
    EXPECT_EQ(nFlipsDone, nFlips);
}
