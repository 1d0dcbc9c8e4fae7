// The lock abstraction: ILock, the recursive CMutex and the CAutoLock guard.
#pragma once

#include <pthread.h>

class ILock {
public:
    virtual ~ILock() {}
    virtual void Lock() const = 0;
    virtual void Unlock() const = 0;
};

// Recursive: the owning thread may lock again and must unlock as often.
class CMutex : public ILock {
public:
    CMutex();
    virtual ~CMutex();
    void Lock() const override;
    void Unlock() const override;

private:
    CMutex(const CMutex &) = delete;
    CMutex &operator=(const CMutex &) = delete;

    mutable pthread_mutex_t m_mutex;
    pthread_mutexattr_t m_attr;
};

// Holds a lock for the lifetime of a block.
class CAutoLock {
public:
    explicit CAutoLock(const ILock &lock);
    ~CAutoLock();

private:
    CAutoLock(const CAutoLock &) = delete;
    CAutoLock &operator=(const CAutoLock &) = delete;

    const ILock *m_pLock;
};
