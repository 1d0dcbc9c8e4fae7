#include "ExtThread.h"

#include <cerrno>
#include <ctime>

#include "ExtAssert.h"

CThread::CThread() : m_bCreated(false), m_hThread(nullptr) {}

CThread::~CThread()
{
    Destroy();
}

bool CThread::Create()
{
    if (m_bCreated)
        return false;
    EXT_ASSERT(m_hThread == NULL);

    m_bCreated = true;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    // Below the platform minimum the request is refused and the default stack is used.
    pthread_attr_setstacksize(&attr, 4096);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);

    pthread_t *pThread = new pthread_t;
    bool bResult;
    if (pthread_create(pThread, &attr, m_ThreadProc, this) != 0) {
        delete pThread;
        bResult = false;
    } else {
        m_hThread = pThread;
        bResult = true;
    }
    pthread_attr_destroy(&attr);
    m_bCreated = bResult;
    return bResult;
}

void CThread::Destroy()
{
    if (!m_bCreated)
        return;
    EXT_ASSERT(m_hThread != NULL);
    pthread_join(*m_hThread, nullptr);
    delete m_hThread;
    m_hThread = nullptr;
    m_bCreated = false;
}

bool CThread::FlagCreate()
{
    return m_bCreated;
}

void CThread::Sleep(unsigned long ulMilliseconds)
{
    struct timespec req;
    req.tv_sec = static_cast<time_t>(ulMilliseconds / 1000);
    req.tv_nsec = static_cast<long>((ulMilliseconds % 1000) * 1000000UL);
    struct timespec rem = {0, 0};
    while (nanosleep(&req, &rem) != 0) {
        if (rem.tv_sec == 0 && rem.tv_nsec == 0)
            break;
        req = rem;
    }
}

void *CThread::m_ThreadProc(void *pThis)
{
    EXT_ASSERT(pThis != NULL);
    static_cast<CThread *>(pThis)->t_Main();
    return nullptr;
}

CLoop::CLoop() : m_bStop(true) {}

CLoop::~CLoop()
{
    Destroy();
}

bool CLoop::Create()
{
    if (FlagCreate())
        return false;
    m_bStop = false;
    bool bResult = CThread::Create();
    if (!bResult)
        m_bStop = true;
    return bResult;
}

void CLoop::Destroy()
{
    m_bStop = true;
    CThread::Destroy();
}

void CLoop::t_Main()
{
    while (!m_bStop.load(std::memory_order_relaxed))
        t_Loop();
}
