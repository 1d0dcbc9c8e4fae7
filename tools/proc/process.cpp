#include "proc/process.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace proc {

void Fd::Reset(int fd)
{
    if (m_fd >= 0)
        close(m_fd);
    m_fd = fd;
}

// ---- Environment ------------------------------------------------------------

namespace {

std::string NameOf(const std::string &entry)
{
    return entry.substr(0, entry.find('='));
}

} // namespace

Environment Environment::Current()
{
    Environment env;
    for (char **e = environ; e && *e; ++e)
        env.m_entries.emplace_back(*e);
    return env;
}

Environment &Environment::Unset(const std::string &name)
{
    m_entries.erase(
        std::remove_if(m_entries.begin(), m_entries.end(), [&](const std::string &e) { return NameOf(e) == name; }),
        m_entries.end());
    return *this;
}

Environment &Environment::Set(const std::string &name, const std::string &value)
{
    Unset(name);
    m_entries.push_back(name + "=" + value);
    return *this;
}

Environment &Environment::Put(const std::string &entry)
{
    Unset(NameOf(entry));
    m_entries.push_back(entry);
    return *this;
}

std::optional<std::string> Environment::Get(const std::string &name) const
{
    for (const std::string &e : m_entries)
        if (NameOf(e) == name && e.size() > name.size())
            return e.substr(name.size() + 1);
    return std::nullopt;
}

// ---- Child ------------------------------------------------------------------

namespace {

std::vector<char *> Pointers(std::vector<std::string> &texts)
{
    std::vector<char *> out;
    out.reserve(texts.size() + 1);
    for (std::string &t : texts)
        out.push_back(t.data());
    out.push_back(nullptr);
    return out;
}

int PidfdOpen(pid_t pid)
{
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

// In the child, between fork and exec: async-signal-safe calls only, since
// the starter may have threads. Reports a failure's errno through report.
[[noreturn]] void Become(const Command &command, char *program, char **argv, char **envp, int report, pid_t parent)
{
    auto fail = [report]() {
        const int error = errno;
        ssize_t ignored = write(report, &error, sizeof error);
        (void)ignored;
        _exit(127);
    };
    if (command.bOwnGroup && setpgid(0, 0) != 0)
        fail();
    if (command.deathSignal) {
        if (prctl(PR_SET_PDEATHSIG, command.deathSignal) != 0)
            fail();
        // The starter may have ended before the request took hold.
        if (getppid() != parent)
            _exit(127);
    }
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig)
        if (sig != SIGKILL && sig != SIGSTOP)
            sigaction(sig, &dfl, nullptr);
    // The C library's own signals (32 and 33) refuse sigaction, yet one
    // that is ignored stays ignored across exec, and GNU make starts its
    // commands with both ignored: the kernel's call sets them.
    for (int sig = 32; sig < SIGRTMIN; ++sig) {
        unsigned long action[8] = {}; // the kernel's sigaction: SIG_DFL, no flags, no mask
        syscall(SYS_rt_sigaction, sig, action, nullptr, (NSIG - 1) / 8);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);

    // Every source out of the way first (above every target), so that one
    // dup2 cannot overwrite another's source.
    int above = 3;
    for (const auto &m : command.fds)
        above = std::max(above, m.first + 1);
    int moved[64];
    const size_t n = std::min(command.fds.size(), sizeof moved / sizeof moved[0]);
    for (size_t i = 0; i < n; ++i)
        if ((moved[i] = fcntl(command.fds[i].second, F_DUPFD_CLOEXEC, above)) < 0)
            fail();
    const int reportHigh = fcntl(report, F_DUPFD_CLOEXEC, above);
    if (reportHigh >= 0)
        report = reportHigh;
    for (size_t i = 0; i < n; ++i)
        if (dup2(moved[i], command.fds[i].first) < 0)
            fail();
    // Nothing else of the starter's reaches the program: a web server's
    // sockets or a test's files would otherwise outlive it there.
    unsigned from = 3;
    for (;;) {
        unsigned next = ~0U;
        for (size_t i = 0; i < n; ++i)
            if (static_cast<unsigned>(command.fds[i].first) >= from)
                next = std::min(next, static_cast<unsigned>(command.fds[i].first));
        if (next > from)
            close_range(from, next == ~0U ? ~0U : next - 1, CLOSE_RANGE_CLOEXEC);
        if (next == ~0U)
            break;
        from = next + 1;
    }
    execve(program, argv, envp);
    fail();
    _exit(127); // fail() does not return; the compiler cannot tell
}

} // namespace

Child Child::Start(const Command &command)
{
    if (command.argv.empty())
        throw Error("nothing to start", EINVAL);
    if (command.fds.size() > 64)
        throw Error("too many descriptors for " + command.argv[0], EINVAL);
    // Every text and array before the fork.
    std::vector<std::string> args = command.argv;
    const char *pWrapper = std::getenv("LUMORA_EXEC_WRAPPER");
    if (pWrapper && *pWrapper) {
        // Through a wrapper the exec that fails would be the program's, after
        // the wrapper started: a program that cannot run is refused here, as
        // it is without one.
        if (access(command.argv[0].c_str(), X_OK) != 0) {
            const int error = errno;
            throw Error("cannot start " + command.argv[0] + ": " + std::strerror(error), error);
        }
        args.insert(args.begin(), pWrapper);
    }
    std::vector<std::string> envTexts = command.env.Entries();
    std::vector<char *> argv = Pointers(args);
    std::vector<char *> envp = Pointers(envTexts);

    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0)
        throw Error("cannot start " + command.argv[0] + ": " + std::strerror(errno), errno);
    Fd reader(report[0]);
    Fd writer(report[1]);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        const int error = errno;
        throw Error("cannot start " + command.argv[0] + ": " + std::strerror(error), error);
    }
    if (pid == 0)
        Become(command, argv[0], argv.data(), envp.data(), writer.Get(), parent);
    writer.Reset();

    Child child;
    child.m_pid = pid;
    // An errno from the child, or nothing once the exec closed the pipe.
    int error = 0;
    ssize_t got;
    while ((got = read(reader.Get(), &error, sizeof error)) < 0 && errno == EINTR) {}
    if (got == static_cast<ssize_t>(sizeof error)) {
        child.Wait(std::chrono::milliseconds(-1));
        throw Error("cannot start " + args[0] + ": " + std::strerror(error), error);
    }
    child.m_pidfd.Reset(PidfdOpen(pid));
    if (!child.m_pidfd) {
        const int pidfdError = errno;
        throw Error("cannot watch " + command.argv[0] + " (pidfd_open): " + std::strerror(pidfdError), pidfdError);
    }
    return child;
}

Child::~Child()
{
    Kill();
}

void Child::Kill()
{
    if (m_pid > 0 && !m_status) {
        Signal(SIGKILL);
        Wait(std::chrono::milliseconds(-1));
    }
}

Child::Child(Child &&other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)), m_pidfd(std::move(other.m_pidfd)),
      m_status(std::exchange(other.m_status, std::nullopt))
{}

Child &Child::operator=(Child &&other) noexcept
{
    if (this != &other) {
        Kill();
        m_pid = std::exchange(other.m_pid, -1);
        m_pidfd = std::move(other.m_pidfd);
        m_status = std::exchange(other.m_status, std::nullopt);
    }
    return *this;
}

std::optional<int> Child::Wait(std::chrono::milliseconds timeout)
{
    if (m_status || m_pid <= 0)
        return m_status;
    if (m_pidfd) {
        const auto deadline = Clock::now() + timeout;
        for (;;) {
            int ms = -1;
            if (timeout.count() >= 0)
                ms = static_cast<int>(std::max<long long>(
                    0, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count()));
            struct pollfd pfd = {m_pidfd.Get(), POLLIN, 0};
            const int n = poll(&pfd, 1, ms);
            if (n > 0)
                break;
            if (n == 0 || errno != EINTR)
                return std::nullopt;
        }
    }
    int status = 0;
    pid_t done;
    while ((done = waitpid(m_pid, &status, 0)) < 0 && errno == EINTR) {}
    m_status = done == m_pid ? status : 0;
    return m_status;
}

bool Child::Signal(int sig)
{
    if (m_pid <= 0 || m_status)
        return false;
    if (m_pidfd)
        return syscall(SYS_pidfd_send_signal, m_pidfd.Get(), sig, nullptr, 0) == 0;
    return kill(m_pid, sig) == 0;
}

int Child::Stop(std::chrono::milliseconds grace)
{
    Signal(SIGTERM);
    if (!Wait(grace)) {
        Signal(SIGKILL);
        Wait(std::chrono::milliseconds(-1));
    }
    return m_status.value_or(0);
}

// ---- StopSignals ------------------------------------------------------------

namespace {

sigset_t StopSet()
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, sig);
    return set;
}

} // namespace

StopSignals::StopSignals()
{
    const sigset_t set = StopSet();
    pthread_sigmask(SIG_BLOCK, &set, &m_old);
    m_fd.Reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!m_fd)
        throw Error(std::string("signalfd: ") + std::strerror(errno), errno);
}

StopSignals::~StopSignals()
{
    m_fd.Reset();
    pthread_sigmask(SIG_SETMASK, &m_old, nullptr);
}

bool StopSignals::Read()
{
    bool bAny = false;
    signalfd_siginfo info;
    while (read(m_fd.Get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        bAny = true;
        if (!m_got)
            m_got = Received{static_cast<int>(info.ssi_signo), info.ssi_code == SI_KERNEL};
    }
    return bAny;
}

std::optional<StopSignals::Received> StopSignals::Got()
{
    Read();
    return m_got;
}

bool StopSignals::WaitUntil(Child::Clock::time_point deadline, const Child *child)
{
    for (;;) {
        if (Got())
            return true;
        struct pollfd pfds[2] = {{m_fd.Get(), POLLIN, 0}, {child ? child->PidFd() : -1, POLLIN, 0}};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Child::Clock::now());
        if (left.count() <= 0)
            return false;
        // Whole milliseconds, rounded up, so that the deadline is met, not missed by a hair.
        const int n = poll(pfds, 2, static_cast<int>(std::min<long long>(left.count() + 1, 24 * 3600 * 1000LL)));
        if (n > 0 && (pfds[1].revents & POLLIN))
            return Got().has_value();
        if (n == 0 && Child::Clock::now() >= deadline)
            return false;
    }
}

int ExitStatusOf(int waitStatus)
{
    return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
}

} // namespace proc
