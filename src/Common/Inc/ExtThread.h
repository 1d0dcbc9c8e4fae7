// Joinable worker threads: CThread runs t_Main once, CLoop calls t_Loop until stopped.
#pragma once

#include <atomic>
#include <pthread.h>

class CThread {
public:
    CThread();
    virtual ~CThread();

    bool Create();
    void Destroy(); // joins; does not ask t_Main to end
    bool FlagCreate();

    static void Sleep(unsigned long ulMilliseconds);
    static void *m_ThreadProc(void *pThis);

protected:
    virtual void t_Main() = 0;

private:
    CThread(const CThread &) = delete;
    CThread &operator=(const CThread &) = delete;

    bool m_bCreated;
    pthread_t *m_hThread;
};

class CLoop : public CThread {
public:
    CLoop();
    virtual ~CLoop();

    bool Create();
    void Destroy(); // asks the loop to stop, then joins after the current t_Loop
    void t_Main() override;

protected:
    // Called again and again with no pause in between: it must block or sleep.
    virtual void t_Loop() = 0;

    // Read by the loop thread, written by the owner.
    std::atomic<bool> m_bStop;
};
