// The platform log reader on big logs: its throughput on a 100 MB log of a
// whole TV (the service's lines among other processes', in threadtime form)
// and its peak memory, which must not grow with the log's size.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "BenchResults.h"
#include "tvlog/tvlog.h"

namespace {

// Writes about mb megabytes of log to path, a chunk at a time.
void WriteLog(const std::string &path, size_t mb)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    const std::string event = "11-23 01:34:20.001  4242  4250 D LUMORA  : LumoraManager.cpp:OnQorvEvent(274)>Enter "
                              "LumoraManager::OnQorvEvent, event type is 5, strParam1 = <DeviceNotification id=\"n1\">"
                              "<Device id=\"ac-living\" type=\"Air Conditioner\">Living room</Device>\n"
                              "<Notification>The living room has reached 24 °C.</Notification></DeviceNotification>, "
                              "strParam2 = \n";
    const std::string others = "11-23 01:34:20.002   811   830 I WifiService: scan done, 12 networks\n"
                               "11-23 01:34:20.003  4242  4250 D LUMORA  : LumoraNotification.cpp:Add(61)>"
                               "LumoraNotification::Add, nEvent=5\n"
                               "11-23 01:34:20.004   902   902 W Launcher: frame took 18 ms\n";
    std::string chunk;
    while (chunk.size() < (size_t{1} << 20))
        chunk += others + others + event;
    for (size_t written = 0; written < mb << 20; written += chunk.size())
        out << chunk;
}

long PeakKb()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.compare(0, 6, "VmHWM:") == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

// Reads every record; the seconds it took.
double ReadAll(const std::string &path, size_t &nRecords)
{
    const auto start = std::chrono::steady_clock::now();
    tvlog::Reader reader(path);
    tvlog::Record r;
    nRecords = 0;
    while (reader.Next(r))
        ++nRecords;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int main()
{
    const std::string small = "tvlog_bench_10mb.log", big = "tvlog_bench_100mb.log";
    WriteLog(small, 10);
    WriteLog(big, 100);
    size_t n = 0;
    ReadAll(small, n);
    const long peakSmall = PeakKb();
    const double seconds = ReadAll(big, n);
    const long peakBig = PeakKb();
    const double mb = static_cast<double>(std::ifstream(big, std::ios::ate | std::ios::binary).tellg()) / 1e6;
    std::printf("tvlog reader: %.0f MB, %zu records in %.2f s: %.0f MB/s; peak memory %ld KiB after the 10 MB log, "
                "%ld KiB after the 100 MB log\n",
                mb, n, seconds, mb / seconds, peakSmall, peakBig);
    lumorabench::Record("tvlog.mb_per_s", mb / seconds);
    lumorabench::Record("tvlog.peak_10mb_kb", static_cast<double>(peakSmall));
    lumorabench::Record("tvlog.peak_100mb_kb", static_cast<double>(peakBig));
    std::remove(small.c_str());
    std::remove(big.c_str());
    return 0;
}
