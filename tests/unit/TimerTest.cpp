#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

#include "NotifySocket.h"
#include "Timer.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

struct Ticks {
    std::mutex mutex;
    std::vector<Clock::time_point> when;
    void *pLastArg = nullptr;

    static void Callback(void *pArg)
    {
        auto *self = static_cast<Ticks *>(pArg);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->when.push_back(Clock::now());
        self->pLastArg = pArg;
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return when.size();
    }
};

} // namespace

TEST(Timer, StartsWithTheRAAppReadinessMessageThenRepeatsEveryPeriod)
{
    NotifySocket sock;
    Ticks ticks;
    CTimer timer;
    timer.SetTimer(1, Ticks::Callback, &ticks, true);
    auto t0 = Clock::now();
    ASSERT_EQ(timer.StartTimer(), 0);

    NotifySocket::Message msg;
    ASSERT_TRUE(sock.Receive(msg, 5s));
    EXPECT_EQ(msg.text, "READY=1\nsd_notify READY Proc : RAApp(" + std::to_string(getpid()) + ")");
    EXPECT_LT(msg.when - t0, 900ms) << "the readiness message comes before the first wait";

    while (ticks.Count() < 3 && Clock::now() - t0 < 20s)
        std::this_thread::sleep_for(20ms);
    EXPECT_EQ(timer.StopTimer(), 0);

    std::lock_guard<std::mutex> lock(ticks.mutex);
    ASSERT_GE(ticks.when.size(), 3u);
    EXPECT_EQ(ticks.pLastArg, &ticks);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_GE(ticks.when[i] - t0, std::chrono::seconds(i + 1)) << "tick " << i << " came early";
    EXPECT_FALSE(sock.Receive(msg, 0ms)) << "only one readiness message per timer thread";
}

TEST(Timer, OneShotCallsBackExactlyOnceAfterOnePeriod)
{
    Ticks ticks;
    auto t0 = Clock::now();
    {
        CTimer timer(1, Ticks::Callback, &ticks, false);
        ASSERT_EQ(timer.StartTimer(), 0);
        std::this_thread::sleep_for(2500ms);
        EXPECT_EQ(ticks.Count(), 1u);
        // The fired one-shot timer cleared its flag and is not joined again.
        EXPECT_EQ(timer.StopTimer(), 0);
    }
    ASSERT_EQ(ticks.Count(), 1u);
    EXPECT_GE(ticks.when[0] - t0, 1s);
}

TEST(Timer, StopDuringAWaitReturnsAfterTheWaitAndOneMoreCallback)
{
    Ticks ticks;
    CTimer timer(2, Ticks::Callback, &ticks, true);
    auto t0 = Clock::now();
    ASSERT_EQ(timer.StartTimer(), 0);
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(ticks.Count(), 0u);

    EXPECT_EQ(timer.StopTimer(), 0);
    auto stoppedAt = Clock::now();
    EXPECT_GE(stoppedAt - t0, 2s) << "the stop is seen only after the current wait";
    EXPECT_EQ(ticks.Count(), 1u) << "the callback runs once more after the stop request";
}

TEST(Timer, NullCallbackOnlyWaits)
{
    CTimer timer(1, nullptr, nullptr, false);
    ASSERT_EQ(timer.StartTimer(), 0);
    EXPECT_EQ(timer.StopTimer(), 0);
}
