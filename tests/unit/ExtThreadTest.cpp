#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "ExtThread.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

class Worker : public CThread {
public:
    std::atomic<int> nRuns{0};
    std::atomic<bool> bRelease{false};

protected:
    void t_Main() override
    {
        ++nRuns;
        while (!bRelease)
            CThread::Sleep(5);
    }
};

class Looper : public CLoop {
public:
    std::atomic<int> nLoops{0};
    bool StopFlag() const { return m_bStop; }

protected:
    void t_Loop() override
    {
        ++nLoops;
        CThread::Sleep(5);
    }
};

} // namespace

TEST(ExtThread, CreateTwiceMakesNoSecondThreadAndDestroyWaitsForTheBody)
{
    Worker w;
    EXPECT_FALSE(w.FlagCreate());
    ASSERT_TRUE(w.Create());
    EXPECT_TRUE(w.FlagCreate());
    EXPECT_FALSE(w.Create());

    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(w.nRuns, 1);

    std::thread releaser([&] {
        std::this_thread::sleep_for(100ms);
        w.bRelease = true;
    });
    auto t0 = Clock::now();
    w.Destroy();  // does not ask the body to end: it waits for it
    EXPECT_GE(Clock::now() - t0, 90ms);
    releaser.join();
    EXPECT_FALSE(w.FlagCreate());

    // The object can run again once joined.
    w.bRelease = true;
    ASSERT_TRUE(w.Create());
    w.Destroy();
    EXPECT_EQ(w.nRuns, 2);
}

TEST(ExtThread, LoopRunsUntilDestroyedAndRefusesASecondCreate)
{
    Looper l;
    EXPECT_TRUE(l.StopFlag()) << "no loop thread runs yet";
    ASSERT_TRUE(l.Create());
    EXPECT_FALSE(l.StopFlag());
    EXPECT_FALSE(l.Create());
    EXPECT_FALSE(l.StopFlag()) << "a refused Create leaves the stop flag alone";

    std::this_thread::sleep_for(100ms);
    l.Destroy();
    EXPECT_TRUE(l.StopFlag());
    int nAfterStop = l.nLoops;
    EXPECT_GT(nAfterStop, 1);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(l.nLoops, nAfterStop);
}

namespace {
void NoOpHandler(int) {}
} // namespace

TEST(ExtThread, SleepLastsItsWholeTimeAcrossSignals)
{
    struct sigaction sa = {};
    sa.sa_handler = NoOpHandler;  // no SA_RESTART: nanosleep returns EINTR
    struct sigaction old;
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);

    pthread_t sleeper = pthread_self();
    std::atomic<bool> bDone{false};
    std::thread interrupter([&] {
        for (int i = 0; i < 10 && !bDone; ++i) {
            std::this_thread::sleep_for(100ms);
            if (!bDone)
                pthread_kill(sleeper, SIGUSR1);
        }
    });
    auto t0 = Clock::now();
    CThread::Sleep(1500);
    auto elapsed = Clock::now() - t0;
    bDone = true;
    interrupter.join();
    sigaction(SIGUSR1, &old, nullptr);

    EXPECT_GE(elapsed, 1500ms);
}

TEST(ExtThreadDeathTest, ThreadEntryWithoutObjectEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(CThread::m_ThreadProc(nullptr), "m_ThreadProc.*pThis != __null");
}
