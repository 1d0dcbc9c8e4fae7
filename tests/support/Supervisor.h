// A stand-in for systemd supervising the real service: it binds NOTIFY_SOCKET,
// starts the service, either the way a developer does (`lumora-tv run`, which
// starts it as its child and waits) or the binary itself, with its log and drawings in a file, and
// records every readiness and watchdog message with its arrival time, so that
// the gaps are measured while a test drives it. It watches the child through
// a pidfd and reads the log on from where it stopped.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

#include "NotifySocket.h"
#include "proc/process.h"

// The limit of a wait for something that does come (a log line, an end):
// only a guard against a hang, ten times and more what a loaded machine
// takes. A wait whose length is what is tested (a watchdog period) has its own.
constexpr std::chrono::seconds kHangGuard{300};

// The messages of one run, judged as systemd would see them.
struct Supervision {
    std::vector<std::string> problems; // empty when every message and the exit were as they must be
    int nWatchdogs = 0;
    // The longest time without a watchdog message: from the start to the
    // first, between two, and from the last to the end of the run.
    std::chrono::milliseconds longestGap{0};
};

class Supervisor {
public:
    using Clock = std::chrono::steady_clock;

    Supervisor();
    ~Supervisor(); // kills the service (SIGKILL) if it still runs
    Supervisor(const Supervisor &) = delete;
    Supervisor &operator=(const Supervisor &) = delete;

    // Runs `lumora-tv run <runArgs>` with these extra environment entries
    // ("NAME=value"), in a process group of its own, and returns once it
    // said which pid the service has (or ended without).
    void Start(const std::vector<std::string> &runArgs, const std::vector<std::string> &env = {});
    // Runs the service binary itself, with these arguments, as systemd does.
    void StartService(const std::vector<std::string> &args, const std::vector<std::string> &env = {});
    // Runs argv[0] with its arguments, its output in the log, as the others do.
    void Spawn(std::vector<std::string> argv, const std::vector<std::string> &env = {});
    // The service's pid; RunPid() the process this started (`lumora-tv run`,
    // or the service itself), whose end Wait and Ended see.
    pid_t Pid() const { return m_pidService; }
    pid_t RunPid() const { return m_pidStarted; }
    Clock::time_point StartedAt() const { return m_started; }

    bool Running();
    // The exit status as waitpid gives it, or -1 when it still runs after timeout.
    int Wait(std::chrono::milliseconds timeout);

    // Sends SIGTERM and waits for the end, then judges the run: an exit that
    // does not come within timeout or is not a clean 0 is one more problem.
    Supervision Terminate(std::chrono::milliseconds timeout = kHangGuard);
    // Waits for an end the service comes to itself, then judges the run.
    Supervision Ended(std::chrono::milliseconds timeout);

    // What the service wrote so far.
    const std::string &Log();
    int CountInLog(const std::string &text);
    // Waits until the log holds text at least count times; false after timeout
    // or when the service ended without it.
    bool WaitForLog(const std::string &text, std::chrono::milliseconds timeout, int count = 1);

    std::vector<NotifySocket::Message> Messages() const { return m_socket.Messages(); }
    // Waits until at least count messages arrived.
    bool WaitForMessages(size_t count, std::chrono::milliseconds timeout) const
    {
        return m_socket.WaitFor(count, timeout);
    }

private:
    // Appends what the log gained since the last read.
    void ReadLog();

    NotifySocket m_socket;
    std::string m_strLogPath;
    proc::Fd m_log; // read on from its offset
    std::string m_strLog;
    proc::Child m_child;
    pid_t m_pidStarted = -1;
    pid_t m_pidService = -1;
    Clock::time_point m_started;
};

// How often part occurs in text.
int Occurrences(const std::string &text, const std::string &part);

// A run systemd would have been content with: no problem, at least
// nMinWatchdogs watchdog messages, never more than the 6 s period and a
// margin without one.
void ExpectSupervised(const Supervision &seen, int nMinWatchdogs = 1);
