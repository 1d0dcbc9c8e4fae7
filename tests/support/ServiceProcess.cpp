#include "ServiceProcess.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tvhost/tvhost.h"

ServiceProcess::ServiceProcess() : m_pid(-1), m_nStatus(-1)
{
    char tmpl[] = "/tmp/lumora-service-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0)
        throw std::runtime_error("mkstemp failed");
    close(fd);
    m_strLogPath = tmpl;
}

ServiceProcess::~ServiceProcess()
{
    if (Running()) {
        kill(m_pid, SIGKILL);
        Wait(std::chrono::seconds(5));
    }
    unlink(m_strLogPath.c_str());
}

std::string ServiceProcess::Binary()
{
    return std::string(LUMORA_BINARY_DIR) + "/src/lumora";
}

void ServiceProcess::Start(const std::vector<std::string> &env)
{
    std::string binary = Binary();
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        int fd = open(m_strLogPath.c_str(), O_WRONLY | O_TRUNC);
        if (fd >= 0) {
            dup2(fd, STDERR_FILENO);
            dup2(fd, STDOUT_FILENO);
            close(fd);
        }
        setenv("TVHOST_LOG_STDERR", "1", 1);
        setenv("TVHOST_DRAW", "stderr", 1);
        for (const auto &e : env)
            putenv(const_cast<char *>(e.c_str()));
        execl(binary.c_str(), binary.c_str(), "--from-test", static_cast<char *>(nullptr));
        _exit(127);
    }
    m_pid = pid;
}

void ServiceProcess::Signal(int sig)
{
    if (m_pid > 0)
        kill(m_pid, sig);
}

bool ServiceProcess::Running()
{
    if (m_pid <= 0)
        return false;
    int status;
    pid_t r = waitpid(m_pid, &status, WNOHANG);
    if (r == m_pid) {
        m_nStatus = status;
        m_pid = -1;
        return false;
    }
    return true;
}

int ServiceProcess::Wait(std::chrono::milliseconds timeout)
{
    auto until = std::chrono::steady_clock::now() + timeout;
    while (Running()) {
        if (std::chrono::steady_clock::now() > until)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return m_nStatus;
}

std::string ServiceProcess::Log() const
{
    std::ifstream in(m_strLogPath);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool ServiceProcess::WaitForLog(const std::string &text, std::chrono::milliseconds timeout) const
{
    auto until = std::chrono::steady_clock::now() + timeout;
    do {
        if (Log().find(text) != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (std::chrono::steady_clock::now() < until);
    return false;
}
