// The host TV's applications: installed and running state as marker files
// under the TV root, shared by every process; launch records per process.
#include <mutex>
#include <utility>

#include "apps_registry.h"
#include "history.h"
#include "host_files.h"
#include "registry.h"
#include "tvhost/settings.h"

namespace tvhost {
namespace detail {
namespace apps {
namespace {

// Bumped by the platform whenever an application is installed or removed.
const char kAppChangeKey[] = "memory/was/app_change";

std::mutex g_mutex;
std::vector<tvhost::apps::Launch> g_launches;

ResetHook g_reset([] {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_launches.clear();
});

std::string MarkerOf(const char *state, const std::string &appId)
{
    return StateDir(std::string("apps/") + state) + "/" + EscapeName(appId);
}

void BumpAppChange()
{
    int n = 0;
    tvhost::settings::GetInt(kAppChangeKey, n);
    tvhost::settings::SetInt(kAppChangeKey, n + 1);
}

} // namespace

void RecordLaunch(tvhost::apps::Launch launch)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_launches.push_back(std::move(launch));
    TrimHistory(g_launches);
}

} // namespace apps
} // namespace detail

namespace apps {

using namespace tvhost::detail::apps;

bool SetInstalled(const std::string &appId, bool bInstalled)
{
    const bool bWas = IsInstalled(appId);
    const bool bDone =
        bInstalled ? detail::TouchFile(MarkerOf("installed", appId))
                   : detail::RemoveFile(MarkerOf("running", appId)) && detail::RemoveFile(MarkerOf("installed", appId));
    if (bDone && bWas != bInstalled)
        BumpAppChange();
    return bDone;
}

bool SetRunning(const std::string &appId, bool bRunning)
{
    return bRunning ? detail::TouchFile(MarkerOf("running", appId)) : detail::RemoveFile(MarkerOf("running", appId));
}

bool IsInstalled(const std::string &appId)
{
    return detail::FileExists(MarkerOf("installed", appId));
}

bool IsRunning(const std::string &appId)
{
    return detail::FileExists(MarkerOf("running", appId));
}

std::vector<Launch> Launches()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_launches;
}

} // namespace apps
} // namespace tvhost
