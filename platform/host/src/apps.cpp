// The host TV's applications: installed and running state as marker files
// under the TV root, shared by every process; faults and records per process.
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "apps_registry.h"
#include "fault.h"
#include "host_files.h"
#include "registry.h"
#include "tvhost/settings.h"

namespace tvhost {
namespace detail {
namespace apps {
namespace {

// Bumped by the platform whenever an application is installed or removed.
const char kAppChangeKey[] = "memory/was/app_change";

struct StatusAnswer {
    int result;
    int status;
};

std::mutex g_mutex;
std::vector<std::string> g_calls;
std::map<std::string, int> g_callCounts;
std::deque<int> g_appInfoResults;
std::deque<StatusAnswer> g_appStatusResults;
std::deque<int> g_launchResults;
std::vector<tvhost::apps::Launch> g_launches;
std::map<std::string, std::deque<int>> g_results;

ResetHook g_reset([] {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.clear();
    g_callCounts.clear();
    g_appInfoResults.clear();
    g_appStatusResults.clear();
    g_launchResults.clear();
    g_launches.clear();
    g_results.clear();
});

std::string MarkerOf(const char *state, const std::string &appId)
{
    return StateDir(std::string("apps/") + state) + "/" + EscapeName(appId);
}

template <typename T>
bool Take(std::deque<T> &queue, T &out)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (queue.empty())
        return false;
    out = queue.front();
    queue.pop_front();
    return true;
}

void BumpAppChange()
{
    int n = 0;
    tvhost::settings::GetInt(kAppChangeKey, n);
    tvhost::settings::SetInt(kAppChangeKey, n + 1);
}

} // namespace

void CountCall(const char *function)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.emplace_back(function);
    TrimHistory(g_calls);
    ++g_callCounts[function];
}

bool TakeAppInfoResult(int &result)
{
    return Take(g_appInfoResults, result);
}

bool TakeAppStatusResult(int &result, int &status)
{
    StatusAnswer answer{};
    if (!Take(g_appStatusResults, answer))
        return false;
    result = answer.result;
    status = answer.status;
    return true;
}

bool TakeLaunchResult(int &result)
{
    return Take(g_launchResults, result);
}

bool TakeResult(const char *function, int &result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_results.find(function);
    if (it == g_results.end() || it->second.empty())
        return false;
    result = it->second.front();
    it->second.pop_front();
    return true;
}

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

void SetInstalled(const std::string &appId, bool bInstalled)
{
    const bool bWas = IsInstalled(appId);
    if (bInstalled) {
        detail::TouchFile(MarkerOf("installed", appId));
    } else {
        detail::RemoveFile(MarkerOf("running", appId));
        detail::RemoveFile(MarkerOf("installed", appId));
    }
    if (bWas != bInstalled)
        BumpAppChange();
}

void SetRunning(const std::string &appId, bool bRunning)
{
    if (bRunning)
        detail::TouchFile(MarkerOf("running", appId));
    else
        detail::RemoveFile(MarkerOf("running", appId));
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

void QueueAppInfoResult(int result, int times)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    for (int i = 0; i < times; ++i)
        g_appInfoResults.push_back(result);
}

void QueueAppStatusResult(int result, int status, int times)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    for (int i = 0; i < times; ++i)
        g_appStatusResults.push_back({result, status});
}

void QueueLaunchResult(int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_launchResults.push_back(result);
}

void QueueResult(const std::string &function, int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_results[function].push_back(result);
}

int CallCount(const std::string &function)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_callCounts.find(function);
    return it == g_callCounts.end() ? 0 : it->second;
}

std::vector<std::string> Calls()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_calls;
}

} // namespace apps
} // namespace tvhost
