#include "trace.h"

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace qorvsim {

namespace {
std::atomic<bool> g_bQuiet{false};
std::atomic<long long> g_startNs{0};

long long NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
} // namespace

void SetQuiet(bool bQuiet)
{
    g_bQuiet.store(bQuiet, std::memory_order_relaxed);
}

void MarkStart()
{
    g_startNs.store(NowNs(), std::memory_order_relaxed);
}

void Trace(const char *pFormat, ...)
{
    if (g_bQuiet.load(std::memory_order_relaxed))
        return;
    long long start = g_startNs.load(std::memory_order_relaxed);
    double seconds = start ? (NowNs() - start) / 1e9 : 0.0;

    char text[1024];
    va_list args;
    va_start(args, pFormat);
    vsnprintf(text, sizeof text, pFormat, args);
    va_end(args);

    // One write per line, so lines of several threads do not interleave.
    std::string line = "[engine] ";
    char stamp[32];
    snprintf(stamp, sizeof stamp, "%7.3fs ", seconds);
    line += stamp;
    line += text;
    line += '\n';
    fputs(line.c_str(), stderr);
}

} // namespace qorvsim
