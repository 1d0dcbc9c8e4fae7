// Device power on the host: an accepted power-off ends the host TV's main
// loop, as the set switching off ends the service on the TV, and is noted in
// a file under the TV root for the other processes of the host TV.
#include <device/power.h>

#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

#include "host_files.h"
#include "registry.h"
#include "tvhost/faults.h"
#include "tvhost/power.h"

namespace {

std::mutex g_mutex;
std::vector<int> g_requests;

tvhost::detail::ResetHook g_reset([] {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_requests.clear();
});

} // namespace

extern "C" int device_power_request_poweroff(int type)
{
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_requests.push_back(type);
    }
    int result = 0;
    tvhost::faults::Take("device_power_request_poweroff", result);
    if (result == 0) {
        // One short append is one write: concurrent writers never mix lines.
        std::string line = std::to_string(type) + "\n";
        int fd = open(tvhost::power::RecordPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd >= 0) {
            (void)!write(fd, line.data(), line.size());
            close(fd);
        }
        tvhost::detail::QuitMainLoop();
    }
    return result;
}

namespace tvhost {
namespace power {

std::vector<int> Requests()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_requests;
}

std::string RecordPath()
{
    return detail::StateDir("power") + "/poweroff";
}

std::vector<int> Recorded()
{
    std::vector<int> out;
    std::ifstream in(RecordPath());
    int type = 0;
    while (in >> type)
        out.push_back(type);
    return out;
}

void ClearRecorded()
{
    detail::RemoveFile(RecordPath());
}

} // namespace power
} // namespace tvhost
