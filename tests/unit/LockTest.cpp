#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "lock.h"

using namespace std::chrono_literals;

TEST(Lock, RecursiveMutexIsReleasedToAnotherThreadOnlyAfterTheLastUnlock)
{
    CMutex mutex;
    mutex.Lock();
    mutex.Lock();  // must not deadlock

    std::atomic<bool> bTaken{false};
    std::thread other([&] {
        mutex.Lock();
        bTaken = true;
        mutex.Unlock();
    });

    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(bTaken);
    mutex.Unlock();
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(bTaken) << "one unlock of two must not release the mutex";
    mutex.Unlock();
    other.join();
    EXPECT_TRUE(bTaken);
}

TEST(Lock, NestedGuardsOnOneMutexWork)
{
    CMutex mutex;
    {
        CAutoLock outer(mutex);
        {
            CAutoLock inner(mutex);
        }
        CAutoLock again(mutex);
    }
    // Fully released: another thread can take it at once.
    std::atomic<bool> bTaken{false};
    std::thread([&] { CAutoLock l(mutex); bTaken = true; }).join();
    EXPECT_TRUE(bTaken);
}

namespace {
class CountingLock : public ILock {
public:
    void Lock() const override { ++nLocks; }
    void Unlock() const override { ++nUnlocks; }
    mutable int nLocks = 0;
    mutable int nUnlocks = 0;
};
} // namespace

TEST(Lock, GuardLocksAnyILockOnceAndUnlocksOnce)
{
    CountingLock lock;
    {
        CAutoLock guard(lock);
        EXPECT_EQ(lock.nLocks, 1);
        EXPECT_EQ(lock.nUnlocks, 0);
    }
    EXPECT_EQ(lock.nLocks, 1);
    EXPECT_EQ(lock.nUnlocks, 1);
}
