// Test control of the host TV's main loop, for tests that drive the service's
// classes without appcore_efl_main.
#pragma once

#include <chrono>
#include <functional>

namespace tvhost {
namespace mainloop {

// Sets up Ecore (as appcore_efl_main does) so that pipes, fd handlers and the
// platform's change notifications work; Detach undoes it.
void Attach();
void Detach();

// Runs the main loop until pred() holds (checked every few milliseconds) or
// timeout passes; returns pred().
bool RunUntil(const std::function<bool()> &pred, std::chrono::milliseconds timeout);

// Runs the main loop for a while.
void RunFor(std::chrono::milliseconds duration);

} // namespace mainloop
} // namespace tvhost
