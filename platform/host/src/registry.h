// Internal to tvhost: what the emulated services share with each other.
#pragma once

#include <functional>

namespace tvhost {
namespace detail {

// Every emulated service registers how tvhost::Reset() puts it back.
struct ResetHook {
    explicit ResetHook(std::function<void()> fn);
};

// Ends the running main loop (appcore_efl_main) as the TV does when it is
// switched off. Does nothing when no main loop runs, as in unit tests.
void QuitMainLoop();

// Installed by appcore_efl_main for the length of the loop.
void SetMainLoopQuitter(std::function<void()> fn);

} // namespace detail
} // namespace tvhost
