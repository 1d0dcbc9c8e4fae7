// Fault injection for every service of the host TV: one table of queued
// answers per platform function, and the calls made. Tests and tools queue
// here; each emulated platform function asks it first, on every call.
#pragma once

#include <string>
#include <vector>

namespace tvhost {
namespace faults {

// What a platform function answers instead of doing its work. value is what
// it writes to its out-parameter when it has one (was_get_app_status's status).
struct Answer {
    int result = 0;
    int value = 0;
};

// The next `times` calls of function (e.g. "add_notification_data") answer
// result and do nothing else. Queued answers are used up in order. A queued
// non-zero answer makes vconf_get_str return NULL; a failing app_control_create
// leaves the handle as it was.
void Queue(const std::string &function, int result, int times = 1);
void Queue(const std::string &function, Answer answer, int times = 1);

// Calls of function since the last reset (kept whole).
int Calls(const std::string &function);
// Names of the functions called, in order: at least the latest 4096.
std::vector<std::string> CallLog();

// Forgets the queued answers and the calls. A process started with
// TVHOST_FAULTS="function=result,..." begins with those answers queued, one
// call each, in order; a reset does not bring them back.
void Reset();

// For tvhost's platform functions: counts a call of function and, when an
// answer waits for it, takes it and returns true.
bool Take(const char *function, Answer &answer);
bool Take(const char *function, int &result);

} // namespace faults
} // namespace tvhost
