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
// "memory/was/app_change", as the TV does. Removing also stops it. False,
// with errno, when the state cannot be written.
bool SetInstalled(const std::string &appId, bool bInstalled);
bool SetRunning(const std::string &appId, bool bRunning);
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

} // namespace apps
} // namespace tvhost
