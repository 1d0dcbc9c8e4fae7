// Internal to tvhost: what the web-application service and application
// control share: call accounting and queued faults. Installed and running
// state is the files behind tvhost/apps.h.
#pragma once

#include "tvhost/apps.h"

namespace tvhost {
namespace detail {
namespace apps {

// Counts a call of a was_* or app_control_* function and notes its order.
void CountCall(const char *function);

// True with the queued fault result when one waits.
bool TakeAppInfoResult(int &result);
bool TakeAppStatusResult(int &result, int &status);
bool TakeLaunchResult(int &result);
// For any app_control_* function queued with tvhost::apps::QueueResult.
bool TakeResult(const char *function, int &result);

void RecordLaunch(tvhost::apps::Launch launch);

} // namespace apps
} // namespace detail
} // namespace tvhost
