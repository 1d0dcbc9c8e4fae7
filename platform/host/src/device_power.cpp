// Device power on the host: an accepted power-off ends the host TV's main
// loop, as the set switching off ends the service on the TV.
#include <device/power.h>

#include <deque>
#include <mutex>
#include <vector>

#include "registry.h"
#include "tvhost/power.h"

namespace {

std::mutex g_mutex;
std::vector<int> g_requests;
std::deque<int> g_queued;

tvhost::detail::ResetHook g_reset([] {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_requests.clear();
    g_queued.clear();
});

} // namespace

extern "C" int device_power_request_poweroff(int type)
{
    int result = 0;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_requests.push_back(type);
        if (!g_queued.empty()) {
            result = g_queued.front();
            g_queued.pop_front();
        }
    }
    if (result == 0)
        tvhost::detail::QuitMainLoop();
    return result;
}

namespace tvhost {
namespace power {

void QueueResult(int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_queued.push_back(result);
}

std::vector<int> Requests()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_requests;
}

} // namespace power
} // namespace tvhost
