#include "Supervisor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "LumoraTv.h"
#include "tvhost/parse.h"

using namespace std::chrono_literals;

Supervisor::Supervisor()
{
    char tmpl[] = "/tmp/lumora-supervised-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0)
        throw std::runtime_error("mkstemp failed");
    close(fd);
    m_strLogPath = tmpl;
    m_log = proc::Fd(open(tmpl, O_RDONLY | O_CLOEXEC));
    if (!m_log)
        throw std::runtime_error("cannot read the log");
}

Supervisor::~Supervisor()
{
    if (Running()) {
        // `lumora-tv run` ends once its service has; the child itself is
        // killed when m_child goes.
        kill(m_pidService, SIGKILL);
        Wait(5s);
    }
    unlink(m_strLogPath.c_str());
}

void Supervisor::Start(const std::vector<std::string> &runArgs, const std::vector<std::string> &env)
{
    std::vector<std::string> argv{LumoraTvBinary(), "run"};
    argv.insert(argv.end(), runArgs.begin(), runArgs.end());
    Spawn(std::move(argv), env);
    const std::string started = "lumora-tv: started ";
    if (WaitForLog(started, kHangGuard)) {
        const std::string &log = Log();
        const size_t at = log.find(" (pid ", log.find(started));
        const size_t end = at == std::string::npos ? at : log.find(')', at);
        int pid = 0;
        if (end != std::string::npos && tvhost::ParseInt(std::string_view(log).substr(at + 6, end - at - 6), pid))
            m_pidService = pid;
    }
}

void Supervisor::StartService(const std::vector<std::string> &args, const std::vector<std::string> &env)
{
    std::vector<std::string> argv{std::string(LUMORA_BINARY_DIR) + "/src/lumora"};
    argv.insert(argv.end(), args.begin(), args.end());
    Spawn(std::move(argv), env);
}

namespace {

// The environment of the child: this process's, with the log and the drawings
// going to the captured output and the given entries on top.
proc::Environment ChildEnvironment(const std::vector<std::string> &extra)
{
    proc::Environment env = proc::Environment::Current();
    const std::optional<std::string> asan = env.Get("ASAN_OPTIONS");
    // libxml2 has no frame pointers: with the fast unwinder the stacks of its
    // allocations end inside it, and the leak suppressions of what the service
    // keeps on purpose (tests/lsan.supp) cannot match them.
    env.Set("ASAN_OPTIONS", (asan ? *asan + ":" : "") + "fast_unwind_on_malloc=0");
    env.Unset("TVHOST_LOG").Set("TVHOST_LOG_STDERR", "1").Set("TVHOST_DRAW", "stdout");
    for (const std::string &e : extra)
        env.Put(e);
    return env;
}

// The texts the service sends to its supervisor.
std::string ReadinessOf(const std::string &name, pid_t pid)
{
    return "READY=1\nsd_notify READY Proc : " + name + "(" + std::to_string(pid) + ")";
}

std::string WatchdogOf(pid_t pid)
{
    return "WATCHDOG=1\nsd_notify WATCHDOG Proc : lumora(" + std::to_string(pid) + ")";
}

// The timer thread's readiness ("RAApp") comes first; the service's own
// ("lumora") once, right before the first watchdog message; every other
// message is a watchdog message, but for the plain "READY=1" that Ecore sends
// when its main loop begins. That one comes from the main thread while the
// timer thread starts, so it may come before "RAApp" as well as after.
Supervision Judge(const std::vector<NotifySocket::Message> &messages, pid_t pid, Supervisor::Clock::time_point start,
                  Supervisor::Clock::time_point end)
{
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    Supervision out;
    auto gap = [&](Supervisor::Clock::time_point from, Supervisor::Clock::time_point to) {
        out.longestGap = std::max(out.longestGap, duration_cast<milliseconds>(to - from));
    };
    size_t first = 0;
    while (first < messages.size() && messages[first].text == "READY=1")
        ++first;
    if (first == messages.size() || messages[first].text != ReadinessOf("RAApp", pid))
        out.problems.push_back("the first message is not the timer thread's readiness \"" + ReadinessOf("RAApp", pid) +
                               "\"");
    int nReady = 0;
    Supervisor::Clock::time_point last = start;
    for (size_t i = std::min(first + 1, messages.size()); i < messages.size(); ++i) {
        const NotifySocket::Message &m = messages[i];
        if (m.text == "READY=1")
            continue;
        if (m.text == ReadinessOf("lumora", pid)) {
            if (++nReady > 1)
                out.problems.push_back("a second readiness message of the service");
            if (out.nWatchdogs > 0)
                out.problems.push_back("the service's readiness came after a watchdog message");
            continue;
        }
        if (m.text != WatchdogOf(pid)) {
            out.problems.push_back("unexpected message: \"" + m.text + "\"");
            continue;
        }
        if (out.nWatchdogs == 0 && nReady == 0)
            out.problems.push_back("the first watchdog message came without the service's readiness");
        ++out.nWatchdogs;
        gap(last, m.when);
        last = m.when;
    }
    gap(last, end);
    return out;
}

} // namespace

void Supervisor::Spawn(std::vector<std::string> argv, const std::vector<std::string> &env)
{
    proc::Fd log(open(m_strLogPath.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (!log)
        throw std::runtime_error("cannot write " + m_strLogPath);
    proc::Command command;
    command.argv = std::move(argv);
    command.env = ChildEnvironment(env);
    command.fds = {{STDOUT_FILENO, log.Get()}, {STDERR_FILENO, log.Get()}};
    // Its own group, as a shell's job: a test may signal the whole of it.
    command.bOwnGroup = true;
    m_started = Clock::now();
    m_child = proc::Child::Start(command);
    m_pidStarted = m_pidService = m_child.Pid();
    m_strLog.clear();
    lseek(m_log.Get(), 0, SEEK_SET);
}

bool Supervisor::Running()
{
    return m_child.Running();
}

int Supervisor::Wait(std::chrono::milliseconds timeout)
{
    return m_child.Wait(timeout).value_or(-1);
}

Supervision Supervisor::Terminate(std::chrono::milliseconds timeout)
{
    if (Running())
        kill(m_pidService, SIGTERM);
    return Ended(timeout);
}

Supervision Supervisor::Ended(std::chrono::milliseconds timeout)
{
    const int status = Wait(timeout);
    Supervision seen = Judge(Messages(), m_pidService, m_started, Clock::now());
    if (status == -1)
        seen.problems.push_back("still running " + std::to_string(timeout.count()) + " ms after the end began");
    else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        seen.problems.push_back("ended with wait status " + std::to_string(status) + "\n" + Log().substr(0, 4000));
    return seen;
}

void Supervisor::ReadLog()
{
    char buf[65536];
    for (ssize_t n; (n = read(m_log.Get(), buf, sizeof buf)) > 0;)
        m_strLog.append(buf, static_cast<size_t>(n));
}

const std::string &Supervisor::Log()
{
    ReadLog();
    return m_strLog;
}

int Occurrences(const std::string &text, const std::string &part)
{
    int n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++n;
    return n;
}

int Supervisor::CountInLog(const std::string &text)
{
    return Occurrences(Log(), text);
}

bool Supervisor::WaitForLog(const std::string &text, std::chrono::milliseconds timeout, int count)
{
    const auto until = Clock::now() + timeout;
    int n = 0;
    size_t scanned = 0; // the text found so far is not searched again
    for (;;) {
        const bool bEnded = !Running(); // what an ended service wrote is all there is
        ReadLog();
        for (size_t at; (at = m_strLog.find(text, scanned)) != std::string::npos; ++n)
            scanned = at + text.size();
        if (n >= count)
            return true;
        // A partial match may complete with the next read.
        scanned = std::max(scanned, m_strLog.size() >= text.size() ? m_strLog.size() - text.size() + 1 : 0);
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
        if (bEnded || left.count() <= 0)
            return false;
        // Woken by the end of the service, or a moment later to read on.
        struct pollfd pfd = {m_child.PidFd(), POLLIN, 0};
        poll(&pfd, 1, static_cast<int>(std::min<long long>(left.count(), 20)));
    }
}

void ExpectSupervised(const Supervision &seen, int nMinWatchdogs)
{
    EXPECT_TRUE(seen.problems.empty()) << ::testing::PrintToString(seen.problems);
    EXPECT_GE(seen.nWatchdogs, nMinWatchdogs);
    EXPECT_LE(seen.longestGap, 8s) << "a 6 s watchdog period and a margin";
}
