// The real `lumora` binary run as a child process in this build's host TV
// root, with its platform log captured to a file.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

class ServiceProcess {
public:
    ServiceProcess();
    ~ServiceProcess();  // ends the process (SIGKILL) if it still runs

    // Starts the service with these extra environment entries ("NAME=value").
    void Start(const std::vector<std::string> &env = {});
    // Sends sig; Wait returns the exit status, or -1 after timeout.
    void Signal(int sig);
    int Wait(std::chrono::milliseconds timeout);
    bool Running();

    // The service's log (stderr) so far.
    std::string Log() const;
    // Waits until the log contains text; false after timeout.
    bool WaitForLog(const std::string &text, std::chrono::milliseconds timeout) const;
    pid_t Pid() const { return m_pid; }

    static std::string Binary();

private:
    pid_t m_pid;
    int m_nStatus;
    std::string m_strLogPath;
};
