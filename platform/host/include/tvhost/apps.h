// Test control of the host TV's applications: which are installed and running
// (kept under the TV root, shared by every process), the launch requests made
// through application control, and faults of the web-application service.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tvhost {
namespace apps {

// Installing or removing an application bumps the settings key
// "memory/was/app_change", as the TV does. Removing also stops it.
void SetInstalled(const std::string &appId, bool bInstalled);
void SetRunning(const std::string &appId, bool bRunning);
bool IsInstalled(const std::string &appId);
bool IsRunning(const std::string &appId);

// One app_control_send_launch_request, accepted or not.
struct Launch {
    std::string appId;
    std::string operation;
    std::vector<std::pair<std::string, std::string>> extraData;
    int result = 0; // what the request returned
};
std::vector<Launch> Launches();

// The next `times` calls of was_get_app_info return result whatever is installed.
void QueueAppInfoResult(int result, int times = 1);
// The next `times` calls of was_get_app_status set *status to status and return result.
void QueueAppStatusResult(int result, int status = 0, int times = 1);
// The next launch request returns result; a non-zero result launches nothing.
void QueueLaunchResult(int result);
// The next call of an app_control_* function (e.g. "app_control_create")
// returns result and does nothing else: a failing create leaves the handle
// as it was.
void QueueResult(const std::string &function, int result);

// Calls of a was_* or app_control_* function since the last reset.
int CallCount(const std::string &function);
// Names of those calls, in the order they were made.
std::vector<std::string> Calls();

} // namespace apps
} // namespace tvhost
