#include "PlatformAccounting.h"

#include <dlog.h>
#include <malloc.h>
#include <notification_data.h>
#include <sys/mman.h>
#include <was.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace platformacct {

namespace {

// Which wrapped platform call the thread is in, and how long it has spent in them.
thread_local Owner t_eOwner = kNobody;
thread_local long long t_nPlatformNs = 0;
std::atomic<bool> g_bAnswerAtOnce{false};

// Used by the wrappers below, outside this namespace.
bool AnsweringAtOnce()
{
    return g_bAnswerAtOnce.load(std::memory_order_relaxed);
}

} // namespace

struct OwnerScope {
    Owner ePrevious;
    std::chrono::steady_clock::time_point start;
    explicit OwnerScope(Owner e) : ePrevious(t_eOwner), start(std::chrono::steady_clock::now()) { t_eOwner = e; }
    ~OwnerScope()
    {
        t_eOwner = ePrevious;
        t_nPlatformNs +=
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count();
    }
};

namespace {

// Open addressing with linear probing: pointer -> (chunk size, owner). Kept in
// its own mapping so that it never shows in the heap it measures.
struct Entry {
    std::uintptr_t p;
    std::uint32_t nSize;
    std::uint32_t eOwner;
};
constexpr unsigned kSlotBits = 23;
constexpr std::size_t kSlots = std::size_t(1) << kSlotBits;
constexpr std::size_t kMask = kSlots - 1;

Entry *g_pTable = nullptr;
std::atomic<bool> g_bTrack{false};
std::atomic<long long> g_nEntries{0};
std::atomic_flag g_lock = ATOMIC_FLAG_INIT;
Live g_live;

struct SpinLock {
    SpinLock()
    {
        while (g_lock.test_and_set(std::memory_order_acquire)) {}
    }
    ~SpinLock() { g_lock.clear(std::memory_order_release); }
};

std::size_t Slot(std::uintptr_t p)
{
    return static_cast<std::size_t>(((p >> 4) * 0x9E3779B97F4A7C15ull) >> (64 - kSlotBits));
}

long long ChunkSize(void *p)
{
    return static_cast<long long>(malloc_usable_size(p) + sizeof(std::size_t));
}

void Insert(void *p)
{
    const Owner eOwner = t_eOwner;
    if (!p || eOwner == kNobody || !g_bTrack.load(std::memory_order_relaxed))
        return;
    const long long nSize = ChunkSize(p);
    SpinLock lock;
    if (static_cast<std::size_t>(g_nEntries.load()) >= kSlots / 2) {
        std::fputs("bench: heap accounting table full\n", stderr);
        std::abort();
    }
    std::size_t i = Slot(reinterpret_cast<std::uintptr_t>(p));
    while (g_pTable[i].p)
        i = (i + 1) & kMask;
    g_pTable[i] = {reinterpret_cast<std::uintptr_t>(p), static_cast<std::uint32_t>(nSize), eOwner};
    g_nEntries.fetch_add(1);
    g_live.bytes[eOwner] += nSize;
    g_live.blocks[eOwner] += 1;
}

void Erase(void *p)
{
    if (!p || g_nEntries.load(std::memory_order_relaxed) == 0)
        return;
    const std::uintptr_t key = reinterpret_cast<std::uintptr_t>(p);
    SpinLock lock;
    std::size_t i = Slot(key);
    while (g_pTable[i].p && g_pTable[i].p != key)
        i = (i + 1) & kMask;
    if (!g_pTable[i].p)
        return;
    g_live.bytes[g_pTable[i].eOwner] -= g_pTable[i].nSize;
    g_live.blocks[g_pTable[i].eOwner] -= 1;
    g_nEntries.fetch_sub(1);
    // Backward-shift deletion keeps every probe chain unbroken.
    std::size_t j = i;
    for (;;) {
        j = (j + 1) & kMask;
        if (!g_pTable[j].p)
            break;
        const std::size_t k = Slot(g_pTable[j].p);
        const bool bMovable = (i <= j) ? (k <= i || k > j) : (k <= i && k > j);
        if (bMovable) {
            g_pTable[i] = g_pTable[j];
            i = j;
        }
    }
    g_pTable[i] = Entry{};
}

void *Allocate(std::size_t nSize)
{
    void *p = std::malloc(nSize ? nSize : 1);
    if (!p)
        throw std::bad_alloc();
    Insert(p);
    return p;
}

void *AllocateAligned(std::size_t nSize, std::align_val_t align)
{
    void *p = nullptr;
    if (posix_memalign(&p, static_cast<std::size_t>(align), nSize ? nSize : 1) != 0)
        throw std::bad_alloc();
    Insert(p);
    return p;
}

void Release(void *p)
{
    Erase(p);
    std::free(p);
}

} // namespace

long long HeapInUse()
{
    struct mallinfo2 mi = mallinfo2();
    return static_cast<long long>(mi.uordblks + mi.hblkhd);
}

long long PlatformNs()
{
    return t_nPlatformNs;
}

void AnswerAtOnce(bool bOn)
{
    g_bAnswerAtOnce = bOn;
}

Live Tracked()
{
    SpinLock lock;
    return g_live;
}

void Track(bool bOn)
{
    if (bOn && !g_pTable) {
        void *p = mmap(nullptr, kSlots * sizeof(Entry), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) {
            std::fputs("bench: no room for the heap accounting table\n", stderr);
            std::abort();
        }
        g_pTable = static_cast<Entry *>(p);
    }
    g_bTrack = bOn;
}

} // namespace platformacct

// ---- the service's calls into the platform, wrapped at link time ----------

using platformacct::AnsweringAtOnce;
using platformacct::OwnerScope;

extern "C" {
int __real_add_notification_data(const notification_data_t *data);
int __real_was_get_app_info(const char *app_id, was_app_info_t *info);
int __real_was_get_app_status(const char *app_id, int *status);
int __real___dlog_vprint(log_id_t log_id, int prio, const char *tag, const char *fmt, va_list ap);

// What the linker calls instead of the platform's functions.
int __wrap_add_notification_data(const notification_data_t *data);
int __wrap_was_get_app_info(const char *app_id, was_app_info_t *info);
int __wrap_was_get_app_status(const char *app_id, int *status);
int __wrap___dlog_vprint(log_id_t log_id, int prio, const char *tag, const char *fmt, va_list ap);

int __wrap_add_notification_data(const notification_data_t *data)
{
    if (AnsweringAtOnce())
        return 0;
    OwnerScope scope(platformacct::kAddNotification);
    return __real_add_notification_data(data);
}

int __wrap_was_get_app_info(const char *app_id, was_app_info_t *info)
{
    if (AnsweringAtOnce())
        return WAS_ERROR_NONE;
    OwnerScope scope(platformacct::kWasAppInfo);
    return __real_was_get_app_info(app_id, info);
}

int __wrap_was_get_app_status(const char *app_id, int *status)
{
    if (AnsweringAtOnce()) {
        *status = 0;
        return WAS_ERROR_NONE;
    }
    OwnerScope scope(platformacct::kWasAppStatus);
    return __real_was_get_app_status(app_id, status);
}

int __wrap___dlog_vprint(log_id_t log_id, int prio, const char *tag, const char *fmt, va_list ap)
{
    OwnerScope scope(platformacct::kDlog);
    return __real___dlog_vprint(log_id, prio, tag, fmt, ap);
}
}

// ---- every C++ allocation of the process ----------------------------------

void *operator new(std::size_t n)
{
    return platformacct::Allocate(n);
}
void *operator new[](std::size_t n)
{
    return platformacct::Allocate(n);
}
void *operator new(std::size_t n, const std::nothrow_t &) noexcept
{
    try {
        return platformacct::Allocate(n);
    } catch (...) {
        return nullptr;
    }
}
void *operator new[](std::size_t n, const std::nothrow_t &) noexcept
{
    try {
        return platformacct::Allocate(n);
    } catch (...) {
        return nullptr;
    }
}
void *operator new(std::size_t n, std::align_val_t a)
{
    return platformacct::AllocateAligned(n, a);
}
void *operator new[](std::size_t n, std::align_val_t a)
{
    return platformacct::AllocateAligned(n, a);
}
void operator delete(void *p) noexcept
{
    platformacct::Release(p);
}
void operator delete[](void *p) noexcept
{
    platformacct::Release(p);
}
void operator delete(void *p, std::size_t) noexcept
{
    platformacct::Release(p);
}
void operator delete[](void *p, std::size_t) noexcept
{
    platformacct::Release(p);
}
void operator delete(void *p, const std::nothrow_t &) noexcept
{
    platformacct::Release(p);
}
void operator delete[](void *p, const std::nothrow_t &) noexcept
{
    platformacct::Release(p);
}
void operator delete(void *p, std::align_val_t) noexcept
{
    platformacct::Release(p);
}
void operator delete[](void *p, std::align_val_t) noexcept
{
    platformacct::Release(p);
}
void operator delete(void *p, std::size_t, std::align_val_t) noexcept
{
    platformacct::Release(p);
}
void operator delete[](void *p, std::size_t, std::align_val_t) noexcept
{
    platformacct::Release(p);
}
