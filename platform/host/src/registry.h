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

// True while an Ecore main loop is set up (appcore_efl_main, or a test that
// attached one): platform events are then delivered on it, as on the TV.
// Without one they are delivered at once on the thread that caused them.
bool MainLoopActive();
void SetMainLoopActive(bool bActive);

// Called when the main loop is torn down, so that services drop the fd
// handlers they added to it.
struct LoopStopHook {
    explicit LoopStopHook(std::function<void()> fn);
};

// Runs fn on the main loop when one is active (from any thread), else at once.
void RunOnMainLoop(std::function<void()> fn);

} // namespace detail
} // namespace tvhost
