// The running service at rest: the real binary in this build's host TV root,
// the widget installed and the shipped quiet scenario, measured over a window
// after the engine has started: wake-ups (context switches of all its
// threads), CPU time and resident memory.
//
// LUMORA_BENCH_IDLE_SECONDS sets the window (default 30).
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchResults.h"
#include "proc/process.h"
#include "tvhost/apps.h"
#include "tvhost/parse.h"
#include "tvhost/network.h"
#include "tvhost/service.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

using tvhost::service::kLanguageKey;
using tvhost::service::kWidgetApp;

std::string ReadAll(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// "Name:\t value" of a /proc status file; -1 when absent.
long long StatusField(const std::string &status, const char *pName)
{
    std::istringstream in(status);
    std::string line;
    const std::string prefix = std::string(pName) + ":";
    while (std::getline(in, line))
        if (line.compare(0, prefix.size(), prefix) == 0) {
            long long value = -1;
            std::string_view field = std::string_view(line).substr(prefix.size());
            field.remove_prefix(std::min(field.find_first_not_of(" \t"), field.size()));
            return tvhost::ParseInt(field, value) ? value : -1;
        }
    return -1;
}

// What a sleeping thread waits in, from the number in /proc/.../syscall.
std::string BlockedIn(const std::string &syscall)
{
    if (syscall.empty() || syscall.compare(0, 7, "running") == 0)
        return "running";
    int number = -1;
    tvhost::ParseInt(std::string_view(syscall).substr(0, syscall.find_first_of(" \n")), number);
    switch (number) {
    case 0: return "read";
    case 7: return "poll";
    case 23: return "select";
    case 35: return "nanosleep";
    case 202: return "futex";
    case 219: return "restart_syscall";
    case 230: return "clock_nanosleep";
    case 232: return "epoll_wait";
    case 270: return "pselect6";
    case 271: return "ppoll";
    case 281: return "epoll_pwait";
    default: return "syscall " + std::to_string(number);
    }
}

struct ThreadSample {
    std::string name;
    long long nVoluntary = 0;
    long long nInvoluntary = 0;
    long long nRuntimeNs = 0; // schedstat: time on a CPU
};

struct Sample {
    std::map<int, ThreadSample> threads;
    long long nTicks = 0; // utime + stime of the process
};

Sample Take(pid_t pid)
{
    Sample s;
    const std::string dir = "/proc/" + std::to_string(pid);
    // utime and stime are fields 14 and 15; the command name may hold blanks.
    std::string stat = ReadAll(dir + "/stat");
    size_t close = stat.rfind(')');
    if (close != std::string::npos) {
        std::istringstream in(stat.substr(close + 2));
        std::vector<std::string> fields;
        std::string f;
        while (in >> f)
            fields.push_back(f);
        if (fields.size() > 12)
            s.nTicks = std::atoll(fields[11].c_str()) + std::atoll(fields[12].c_str());
    }
    DIR *pDir = opendir((dir + "/task").c_str());
    if (!pDir)
        return s;
    while (dirent *pEnt = readdir(pDir)) {
        if (pEnt->d_name[0] == '.')
            continue;
        const std::string task = dir + "/task/" + pEnt->d_name;
        const std::string status = ReadAll(task + "/status");
        if (status.empty())
            continue;
        ThreadSample t;
        t.name = ReadAll(task + "/comm");
        while (!t.name.empty() && t.name.back() == '\n')
            t.name.pop_back();
        t.nVoluntary = StatusField(status, "voluntary_ctxt_switches");
        t.nInvoluntary = StatusField(status, "nonvoluntary_ctxt_switches");
        const std::string schedstat = ReadAll(task + "/schedstat");
        tvhost::ParseInt(std::string_view(schedstat).substr(0, schedstat.find(' ')), t.nRuntimeNs);
        int tid = 0;
        tvhost::ParseInt(pEnt->d_name, tid);
        t.name += std::string(" (") + (tid == pid ? "main, " : "") + BlockedIn(ReadAll(task + "/syscall")) + ")";
        s.threads[tid] = t;
    }
    closedir(pDir);
    return s;
}

// A datagram socket standing in for systemd's notification socket.
class NotifyListener {
public:
    NotifyListener()
    {
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        // Abstract name: nothing on disk to clean up.
        m_name = "lumora-bench-notify-" + std::to_string(getpid());
        std::memcpy(addr.sun_path + 1, m_name.data(), m_name.size());
        socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + m_name.size());
        if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr *>(&addr), len) != 0) {
            std::perror("bench: notify socket");
            std::exit(2);
        }
    }
    ~NotifyListener() { close(m_fd); }
    std::string Address() const { return "@" + m_name; }

    // Forgets what was sent before now.
    void Drain()
    {
        char buf[512];
        while (recv(m_fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {}
    }

    // Receives messages until deadline; counts the watchdog ones. Returns
    // true as soon as one arrives when bUntilWatchdog.
    bool Pump(Clock::time_point deadline, bool bUntilWatchdog)
    {
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0)
                return false;
            pollfd pfd{m_fd, POLLIN, 0};
            if (poll(&pfd, 1, static_cast<int>(left)) <= 0)
                continue;
            char buf[512];
            ssize_t n = recv(m_fd, buf, sizeof buf - 1, 0);
            if (n <= 0)
                continue;
            buf[n] = '\0';
            if (std::strncmp(buf, "WATCHDOG=1", 10) == 0) {
                ++m_nWatchdogs;
                if (bUntilWatchdog)
                    return true;
            }
        }
    }
    int Watchdogs() const { return m_nWatchdogs; }
    void ResetCount() { m_nWatchdogs = 0; }

private:
    int m_fd = -1;
    std::string m_name;
    int m_nWatchdogs = 0;
};

bool WaitForLog(const std::string &path, const std::string &text, proc::Child &service, Clock::time_point deadline)
{
    while (Clock::now() < deadline) {
        if (ReadAll(path).find(text) != std::string::npos)
            return true;
        if (!service.Running())
            return false;
        std::this_thread::sleep_for(100ms);
    }
    return false;
}

std::string Dirname(const std::string &path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

} // namespace

int main()
{
    double dWindow = 30;
    if (const char *p = std::getenv("LUMORA_BENCH_IDLE_SECONDS"))
        if (double d = 0; tvhost::ParseReal(p, d) && d > 0)
            dWindow = d;

    // The host TV as a viewer's TV would be: widget installed, English, the
    // network as the machine has it, and a first start (the data folder gets
    // the shipped quiet mode.xml).
    const std::string root = tvhost::Root();
    tvhost::apps::SetInstalled(kWidgetApp, true);
    tvhost::apps::SetRunning(kWidgetApp, false);
    tvhost::settings::SetString(kLanguageKey, "en_US.UTF-8");
    tvhost::network::ClearOverride();
    unlink((root + "/opt/usr/apps/org.kelvar.lumora/data/mode.xml").c_str());

    NotifyListener notify;
    char logPath[] = "/tmp/lumora-bench-idle-XXXXXX";
    int logFd = mkstemp(logPath);
    if (logFd < 0) {
        std::perror("bench: log file");
        return 2;
    }

    const std::string binary = LUMORA_SERVICE_BINARY;
    proc::Command command;
    command.argv = {binary};
    command.env.Set("PATH", root + "/usr/bin:" + command.env.Get("PATH").value_or("/usr/bin:/bin"))
        .Set("NOTIFY_SOCKET", notify.Address())
        .Set("TVHOST_DRAW", "0")
        .Set("QORV_SIM_QUIET", "1");
    for (const char *name : {"TVHOST_LOG", "TVHOST_LOG_STDERR", "QORV_SIM_MODE", "QORV_SIM_SPEED"})
        command.env.Unset(name);
    command.fds = {{STDOUT_FILENO, logFd}, {STDERR_FILENO, logFd}};
    proc::Child service;
    try {
        service = proc::Child::Start(command);
    } catch (const proc::Error &e) {
        std::fprintf(stderr, "idle: %s\n", e.what());
        return 2;
    }
    close(logFd);
    const pid_t pid = service.Pid();
    std::printf("idle: %s (pid %d), log in %s\n", binary.c_str(), static_cast<int>(pid), logPath);

    auto Fail = [&](const char *what) {
        std::fprintf(stderr, "idle: %s; the service's log is %s\n", what, logPath);
        return 1; // the service is killed as it goes
    };
    // Engine started, callback registered and the language sent: the end of
    // the start sequence.
    if (!WaitForLog(logPath, "Success to start qorv!", service, Clock::now() + 30s) ||
        !WaitForLog(logPath, "Begin to Execute strCommand = SetSystemLanguage!", service, Clock::now() + 10s))
        return Fail("the engine did not start");
    // The window starts just after a watchdog tick, so it holds whole periods.
    notify.Drain();
    if (!notify.Pump(Clock::now() + 10s, true))
        return Fail("no watchdog message came");
    std::this_thread::sleep_for(250ms);

    // The settings store wakes the service for every key changed under it.
    const std::string keyDir = Dirname(tvhost::settings::KeyPath(kLanguageKey));
    int inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    inotify_add_watch(inotifyFd, keyDir.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE);

    notify.ResetCount();
    const Sample before = Take(pid);
    const auto t0 = Clock::now();
    notify.Pump(t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(dWindow)), false);
    const Sample after = Take(pid);
    const double dSeconds = std::chrono::duration<double>(Clock::now() - t0).count();
    const std::string status = ReadAll("/proc/" + std::to_string(pid) + "/status");

    int nSettingChanges = 0;
    alignas(inotify_event) char buf[4096];
    ssize_t n;
    while ((n = read(inotifyFd, buf, sizeof buf)) > 0)
        for (char *p = buf; p < buf + n;) {
            auto *ev = reinterpret_cast<inotify_event *>(p);
            if (ev->len > 0 && ev->name[0] != '.')
                ++nSettingChanges;
            p += sizeof(inotify_event) + ev->len;
        }
    close(inotifyFd);

    // An end within 10 s of SIGTERM, or a kill.
    service.Signal(SIGTERM);
    if (!service.Wait(10s))
        return Fail("the service did not end on SIGTERM");
    const int nStatus = *service.Status();
    const double dPerMinute = 60.0 / dSeconds;
    long long nVoluntary = 0, nInvoluntary = 0, nRuntimeNs = 0;
    std::printf("idle: %.1f s window after the engine start, %zu threads\n", dSeconds, after.threads.size());
    std::printf("idle:   %-8s %-28s %10s %12s %12s\n", "tid", "thread (waits in)", "voluntary", "involuntary",
                "cpu us");
    for (const auto &kv : after.threads) {
        ThreadSample b;
        auto it = before.threads.find(kv.first);
        if (it != before.threads.end())
            b = it->second;
        const long long v = kv.second.nVoluntary - b.nVoluntary;
        const long long i = kv.second.nInvoluntary - b.nInvoluntary;
        const long long r = kv.second.nRuntimeNs - b.nRuntimeNs;
        nVoluntary += v;
        nInvoluntary += i;
        nRuntimeNs += r;
        std::printf("idle:   %-8d %-28s %10lld %12lld %12.1f\n", kv.first, kv.second.name.c_str(), v, i, r / 1e3);
        lumorabench::RecordText("idle.thread." + std::to_string(kv.first),
                                kv.second.name + "\t" + std::to_string(static_cast<double>(v) * dPerMinute) + "\t" +
                                    std::to_string(static_cast<double>(i) * dPerMinute));
    }
    const long long nTicks = after.nTicks - before.nTicks;
    const double dTickMs = 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
    std::printf("idle: %d watchdog messages, %d settings changed, exit status %d\n", notify.Watchdogs(),
                nSettingChanges, WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus));

    using lumorabench::Record;
    Record("idle.window_s", dSeconds);
    Record("idle.threads", static_cast<double>(after.threads.size()));
    Record("idle.wakeups_per_min", static_cast<double>(nVoluntary + nInvoluntary) * dPerMinute);
    Record("idle.voluntary_per_min", static_cast<double>(nVoluntary) * dPerMinute);
    Record("idle.involuntary_per_min", static_cast<double>(nInvoluntary) * dPerMinute);
    Record("idle.cpu_ms_per_min_ticks", static_cast<double>(nTicks) * dTickMs * dPerMinute);
    Record("idle.cpu_ms_per_min", static_cast<double>(nRuntimeNs) / 1e6 * dPerMinute);
    Record("idle.watchdogs_per_min", notify.Watchdogs() * dPerMinute);
    Record("idle.settings_changes_per_min", nSettingChanges * dPerMinute);
    Record("idle.rss_kb", static_cast<double>(StatusField(status, "VmRSS")));
    Record("idle.hwm_kb", static_cast<double>(StatusField(status, "VmHWM")));
    unlink(logPath);
    return 0;
}
