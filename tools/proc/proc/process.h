// proc: the one way the host kit starts, watches and stops a program (the
// service, lumora-tv, the web server, the engine's variants): lumora-tv run,
// web and replay, the test harness and the benchmarks all start theirs here.
//
// A child gets exactly what its Command names: its arguments, its whole
// environment, its descriptors (0, 1 and 2 are inherited unless mapped; every
// other one is closed), its own process group if asked, no blocked signal and
// every signal at its default. Nothing in the starting program changes, so
// any thread may start a child. It is watched through a pidfd and waited for
// with time limits. LUMORA_EXEC_WRAPPER, when set, names a program that every
// child is started through (`WRAPPER PROGRAM ARGS...`): an emulator such as
// qemu-user, which does not follow an exec of a foreign program by itself.
#pragma once

#include <chrono>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace proc {

// A failure to start or watch a child, with the program and the system's reason.
class Error : public std::runtime_error {
public:
    Error(const std::string &text, int error) : std::runtime_error(text), m_errno(error) {}
    int Errno() const { return m_errno; }

private:
    int m_errno;
};

// An owned file descriptor: closed when it goes.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd() { Reset(); }
    Fd(Fd &&other) noexcept : m_fd(other.Release()) {}
    Fd &operator=(Fd &&other) noexcept
    {
        if (this != &other)
            Reset(other.Release());
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int Get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    int Release() { return std::exchange(m_fd, -1); }
    void Reset(int fd = -1);

private:
    int m_fd = -1;
};

// A whole environment, "NAME=value" entries, built for a child; the starting
// program's own environment is only ever read.
class Environment {
public:
    // This program's environment as it is now.
    static Environment Current();
    Environment &Set(const std::string &name, const std::string &value);
    Environment &Unset(const std::string &name);
    // An entry "NAME=value" set as it stands.
    Environment &Put(const std::string &entry);
    std::optional<std::string> Get(const std::string &name) const;
    const std::vector<std::string> &Entries() const { return m_entries; }

private:
    std::vector<std::string> m_entries;
};

struct Command {
    std::vector<std::string> argv; // argv[0]: the program's path
    Environment env = Environment::Current();
    // The child's descriptor number and the starter's descriptor it gets.
    std::vector<std::pair<int, int>> fds;
    bool bOwnGroup = false; // a process group of its own, as a shell's job
    // Sent to the child when the thread that started it ends (the starter
    // died, however): no child outlives a front end that was killed.
    int deathSignal = SIGTERM;
};

class Child {
public:
    using Clock = std::chrono::steady_clock;

    Child() = default;
    // Starts command.argv; an Error when the program cannot be started (it is
    // missing, not executable, ...), with nothing left running.
    static Child Start(const Command &command);
    // A child still running is killed (SIGKILL) and reaped: none is left behind.
    ~Child();
    Child(Child &&other) noexcept;
    Child &operator=(Child &&other) noexcept;
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    explicit operator bool() const { return m_pid > 0; }
    pid_t Pid() const { return m_pid; }
    // Readable once the child has ended: for poll().
    int PidFd() const { return m_pidfd.Get(); }

    // Its wait status once it has ended (it is reaped then); nothing while it
    // still runs after timeout.
    std::optional<int> Wait(std::chrono::milliseconds timeout);
    bool Running() { return m_pid > 0 && !Wait(std::chrono::milliseconds(0)); }
    std::optional<int> Status() const { return m_status; }
    // Sends sig unless it has ended; whether it was sent.
    bool Signal(int sig);
    // SIGTERM, up to grace for the end, then SIGKILL: its wait status.
    int Stop(std::chrono::milliseconds grace);

private:
    void Kill();

    pid_t m_pid = -1;
    Fd m_pidfd;
    std::optional<int> m_status;
};

// The stop signals of a front end (SIGINT, SIGTERM, SIGHUP), blocked from
// construction on and read through a signalfd, so that a wait for a child or
// a sleep ends on them. Made in the main thread before any other thread
// starts, so that every thread has them blocked; children start with none.
class StopSignals {
public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals &) = delete;
    StopSignals &operator=(const StopSignals &) = delete;

    struct Received {
        int signo = 0;
        bool bFromTerminal = false; // the terminal's key, which reached the whole foreground group
    };
    // The first stop signal received so far, if any (reads what is pending).
    std::optional<Received> Got();
    // Readable when a stop signal is pending: for a poll() of one's own.
    int Descriptor() const { return m_fd.Get(); }
    // Waits until deadline, a stop signal, or the end of child (when given);
    // true when it was a stop signal.
    bool WaitUntil(Child::Clock::time_point deadline, const Child *child = nullptr);

private:
    bool Read();

    proc::Fd m_fd;
    sigset_t m_old;
    std::optional<Received> m_got;
};

// How a child ended, from its wait status, for an exit status of our own:
// its exit status, or 128 + the signal that ended it.
int ExitStatusOf(int waitStatus);

} // namespace proc
