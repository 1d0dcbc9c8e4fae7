// A thread that waits a fixed period with select() and then calls back, once
// or repeatedly. The watchdog of the service is one.
#pragma once

#include <atomic>
#include <pthread.h>
#include <sys/time.h>

class CTimer {
public:
    CTimer();
    CTimer(long lSeconds, void (*pfnCallback)(void *), void *pArg, bool bRepeat);
    virtual ~CTimer();

    void SetTimer(long lSeconds, void (*pfnCallback)(void *), void *pArg, bool bRepeat);
    int StartTimer();
    // Returns after the wait in progress and one more callback.
    int StopTimer();

    void thread_proc();
    static void *OnTimer_stub(void *pThis);

private:
    CTimer(const CTimer &) = delete;
    CTimer &operator=(const CTimer &) = delete;

    pthread_t m_hTimerThread;
    struct timeval m_tvPeriod;
    void (*m_pfnCallback)(void *);
    void *m_pArg;
    std::atomic<bool> m_bRunning; // set by the timer thread, cleared to stop it
    bool m_bRepeat;
};
