#include "tvhost/tvhost.h"

#include <mutex>
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
} // namespace detail

const std::string &Root()
{
    static const std::string root = LUMORA_TV_ROOT;
    return root;
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
