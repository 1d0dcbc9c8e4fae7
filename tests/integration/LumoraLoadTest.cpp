// The service under load for about a minute: the engine's "storm" scenario
// (20,000 rounds of events 0, 1, 5 and 12290 back to back from the engine
// thread) while another process presses pop-up buttons and flips the display
// language every 100 ms. The service keeps running, the supervisor never
// waits longer than a watchdog period and a margin, and its memory grows only
// by what it is defined to keep: an action item per posted pop-up (with the
// platform's copy of the pop-up, which lives in this process on the host TV)
// and the document of each master-key message. The bytes each of those keep
// are measured in this process with the same code and the same documents.
#include <gtest/gtest.h>

#include <libxml/parser.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>
#include <unistd.h>

#include "LumoraNotification.h"
#include "LumoraParameter.h"
#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/apps.h"
#include "tvhost/log.h"
#include "tvhost/network.h"
#include "tvhost/notifications.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Shadow memory and the allocators' quarantines make RSS say nothing here.
constexpr bool kMeasureMemory = false;
#else
constexpr bool kMeasureMemory = true;
#endif

// How long the storm may run before the numbers are taken.
constexpr auto kLoadTime = 60s;
constexpr int kRounds = 20000;
// Blocks from 128 KiB up come from mmap in both processes, and go back to the
// system when freed: RSS then follows the heap, not the holes that doubling
// buffers (the host platform's record lists) leave behind, which glibc's
// moving threshold would keep mapped.
constexpr int kMmapThreshold = 128 * 1024;

long RssKiB(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return -1;
}

int Count(const std::string &text, const std::string &needle)
{
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size()))
        ++n;
    return n;
}

// The first parameter of the first event nEvent in the service's log.
std::string FirstDocument(const std::string &log, int nEvent)
{
    const std::string head =
        "Enter LumoraManager::OnQorvEvent, event type is " + std::to_string(nEvent) + ", strParam1 = ";
    size_t at = log.find(head);
    if (at == std::string::npos)
        return "";
    at += head.size();
    return log.substr(at, log.find(", strParam2 = ", at) - at);
}

struct Tally {
    int nRounds = 0;       // master-key messages handled
    int nDevicePopups = 0; // device notifications posted
    int nNewDevicePopups = 0;
};

Tally Read(const std::string &log)
{
    Tally t;
    t.nRounds = Count(log, "Enter LumoraManager::OnQorvEvent, event type is 12290,");
    t.nDevicePopups = Count(log, ">LumoraNotification::m_AddDeviceNotification show the notification");
    t.nNewDevicePopups = Count(log, ">LumoraNotification::m_AddNewDeviceFound");
    return t;
}

// What the service is defined to keep, done alone in this process on a
// thread of its own (as the engine's events are): for every round of the
// storm a new-device and a device pop-up posted by the presenter (its action
// items, and the platform's copies, which on the host TV live in the same
// process) and a master-key document parsed and kept: the growth of this
// process's RSS in KiB, and the heap's bytes per document.
struct Replay {
    long nRssKiB = 0;
    double dDocumentBytes = 0;
};

Replay KeepWhatTheServiceKeeps(int nRounds, const std::string &device, const std::string &newDevices,
                               const std::string &masterKeys)
{
    Replay replay;
    std::thread worker([&] {
        tvhost::Reset();
        tvhost::log::SetEnabled(false);
        tvhost::notifications::DrawTo(nullptr);
        CDeviceNotification notification;
        EXPECT_TRUE(notification.Parse(device.c_str(), ""));
        CNewDeviceList list;
        EXPECT_TRUE(list.Parse(newDevices.c_str(), ""));
        std::vector<xmlDocPtr> docs;
        docs.reserve(static_cast<size_t>(nRounds));
        {
            LumoraNotification presenter;
            const long nBefore = RssKiB(getpid());
            size_t nDocumentBytes = 0;
            for (int i = 0; i < nRounds; ++i) {
                presenter.Add(1, &list);
                presenter.Add(5, &notification);
                const size_t nHeap = mallinfo2().uordblks;
                docs.push_back(xmlParseMemory(masterKeys.data(), static_cast<int>(masterKeys.size())));
                nDocumentBytes += mallinfo2().uordblks - nHeap;
            }
            replay.nRssKiB = RssKiB(getpid()) - nBefore;
            replay.dDocumentBytes = static_cast<double>(nDocumentBytes) / nRounds;
        }
        for (xmlDocPtr d : docs)
            xmlFreeDoc(d);
        tvhost::log::SetEnabled(true);
    });
    worker.join();
    return replay;
}

} // namespace

TEST(LumoraLoad, AStormWithPressesAndLanguageFlipsKeepsTheServiceUpFedAndItsMemoryToWhatItKeeps)
{
    ASSERT_EQ(LumoraTv({"reset"}).status, 0);
    mallopt(M_MMAP_THRESHOLD, kMmapThreshold);
    Supervisor tv;
    tv.Start({"--scenario", "storm"}, {"GLIBC_TUNABLES=glibc.malloc.mmap_threshold=" + std::to_string(kMmapThreshold)});
    const pid_t pid = tv.Pid();
    // The storm begins half a second after the engine start: memory is read first.
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", 20s)) << tv.Log().substr(0, 4000);
    const long nRssBefore = RssKiB(pid);
    const auto stormStart = Supervisor::Clock::now();

    // Another process, every 100 ms: a press of "Yes" on the newest new-device
    // pop-up on screen (the odd items; an answered one leaves the screen), or
    // a language flip.
    std::atomic<bool> bStop{false};
    int nPresses = 0, nPressesDone = 0, nFlips = 0, nFlipsDone = 0;
    std::thread driver([&] {
        for (int i = 0; !bStop; ++i) {
            if (i % 2 == 0) {
                ++nPresses;
                std::istringstream shown(LumoraTv({"notifications", "--brief"}).out);
                std::string line, item = "1";
                while (std::getline(shown, line))
                    if (std::atoi(line.c_str()) % 2)
                        item = std::to_string(std::atoi(line.c_str()));
                nPressesDone += LumoraTv({"press", item, "1"}).status == 0;
            } else {
                ++nFlips;
                const char *language = (i / 2) % 2 ? "en_US.UTF-8" : "ko_KR.UTF-8";
                nFlipsDone += LumoraTv({"set", "db/menu_widget/language", language}).status == 0;
            }
            std::this_thread::sleep_for(100ms);
        }
    });

    // Until the storm is over or the time is up.
    std::string log;
    Tally tally;
    while (Supervisor::Clock::now() - stormStart < kLoadTime && tv.Running()) {
        std::this_thread::sleep_for(5s);
        log = tv.Log();
        if (Read(log).nRounds >= kRounds)
            break;
    }
    const long nRssAfter = RssKiB(pid);
    const auto stormEnd = Supervisor::Clock::now();
    bStop = true;
    driver.join();
    ASSERT_TRUE(tv.Running()) << tv.Log().substr(0, 4000);
    log = tv.Log();
    tally = Read(log);

    const Supervision seen = tv.Terminate(30s);
    ExpectSupervised(seen);

    // Work was done on every side.
    const double dSeconds = std::chrono::duration<double>(stormEnd - stormStart).count();
    std::printf("storm: %d rounds (%d device and %d new-device pop-ups, %d master-key documents) in %.1f s; "
                "%d/%d presses and %d/%d language flips done; longest watchdog gap %lld ms\n",
                tally.nRounds, tally.nDevicePopups, tally.nNewDevicePopups, tally.nRounds, dSeconds, nPressesDone,
                nPresses, nFlipsDone, nFlips, static_cast<long long>(seen.longestGap.count()));
    EXPECT_GE(tally.nRounds, 1000);
    // Every device and new-device notification of the storm is shown (the
    // log may end inside a round).
    EXPECT_LE(std::abs(tally.nDevicePopups - tally.nRounds), 1);
    EXPECT_LE(std::abs(tally.nNewDevicePopups - tally.nRounds), 1);
    EXPECT_GE(nPressesDone, nPresses / 2);
    EXPECT_GE(Count(log, ">CLumoraQorvHelper Begin to Execute strParam1 = ko_KR!"), 2);
    EXPECT_EQ(nFlipsDone, nFlips);

    if (!kMeasureMemory)
        return;
    const long nGrowthKiB = nRssAfter - nRssBefore;
    const std::string device = FirstDocument(log, 5), newDevices = FirstDocument(log, 1),
                      masterKeys = FirstDocument(log, 12290);
    log.clear();
    log.shrink_to_fit();
    const Replay kept = KeepWhatTheServiceKeeps(tally.nRounds, device, newDevices, masterKeys);
    std::printf("memory: the service's RSS grew %ld KiB (%ld -> %ld) over %d rounds; keeping what it is defined to "
                "keep alone grows %ld KiB, of which the master-key documents %.0f KiB (%.0f B each) and the rest the "
                "pop-ups' action items with the platform's copies (%.0f B per pop-up)\n",
                nGrowthKiB, nRssBefore, nRssAfter, tally.nRounds, kept.nRssKiB,
                kept.dDocumentBytes * tally.nRounds / 1024, kept.dDocumentBytes,
                (kept.nRssKiB * 1024.0 - kept.dDocumentBytes * tally.nRounds) / (2.0 * tally.nRounds));
    // Allocator slack, the service's own temporaries between the kept blocks,
    // and the first use of catalogues and buffers on top.
    EXPECT_LE(nGrowthKiB, kept.nRssKiB * 1.25 + 16 * 1024);
}
