#include "tvhost/tvhost.h"

#include <Ecore.h>
#include <atomic>
#include <mutex>
#include <memory>
#include <vector>

#include "registry.h"

namespace tvhost {
namespace {

std::mutex &HooksMutex()
{
    static std::mutex m;
    return m;
}

std::vector<std::function<void()>> &Hooks()
{
    static std::vector<std::function<void()>> hooks;
    return hooks;
}

} // namespace

namespace detail {
ResetHook::ResetHook(std::function<void()> fn)
{
    std::lock_guard<std::mutex> lock(HooksMutex());
    Hooks().push_back(std::move(fn));
}

namespace {
std::mutex g_quitMutex;
std::function<void()> g_quitter;
} // namespace

void SetMainLoopQuitter(std::function<void()> fn)
{
    std::lock_guard<std::mutex> lock(g_quitMutex);
    g_quitter = std::move(fn);
}

void QuitMainLoop()
{
    std::function<void()> fn;
    {
        std::lock_guard<std::mutex> lock(g_quitMutex);
        fn = g_quitter;
    }
    if (fn)
        fn();
}

namespace {
std::atomic<bool> g_bLoopActive{false};

void RunQueued(void *pData)
{
    std::unique_ptr<std::function<void()>> fn(static_cast<std::function<void()> *>(pData));
    (*fn)();
}

std::vector<std::function<void()>> &StopHooks()
{
    static std::vector<std::function<void()>> hooks;
    return hooks;
}
} // namespace

bool MainLoopActive()
{
    return g_bLoopActive.load();
}

LoopStopHook::LoopStopHook(std::function<void()> fn)
{
    std::lock_guard<std::mutex> lock(HooksMutex());
    StopHooks().push_back(std::move(fn));
}

void SetMainLoopActive(bool bActive)
{
    if (!bActive && g_bLoopActive) {
        std::vector<std::function<void()>> hooks;
        {
            std::lock_guard<std::mutex> lock(HooksMutex());
            hooks = StopHooks();
        }
        for (auto &fn : hooks)
            fn();
    }
    g_bLoopActive = bActive;
}

void RunOnMainLoop(std::function<void()> fn)
{
    if (!MainLoopActive()) {
        fn();
        return;
    }
    ecore_main_loop_thread_safe_call_async(RunQueued, new std::function<void()>(std::move(fn)));
}
} // namespace detail

const std::string &Root()
{
    // Never destroyed: tvhost's own threads (notification delivery) may still
    // build paths while the process's statics go at exit.
    static const std::string *root = new std::string(LUMORA_TV_ROOT);
    return *root;
}

void Reset()
{
    std::vector<std::function<void()>> hooks;
    {
        std::lock_guard<std::mutex> lock(HooksMutex());
        hooks = Hooks();
    }
    for (auto &fn : hooks)
        fn();
}

} // namespace tvhost
