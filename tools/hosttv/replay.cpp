// The service as a child of a replay, and engine events with both texts.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "hosttv/replay.h"
#include "qorv_sim_client.h"
#include "tvhost/tvhost.h"

namespace hosttv {

std::string ReplayLogPath()
{
    return tvhost::Root() + "/opt/var/tvhost/replay.log";
}

void PlaceModeFile(const std::string &modeXml)
{
    const std::string dir = tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data";
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    std::ofstream out(dir + "/mode.xml", std::ios::binary | std::ios::trunc);
    out << modeXml;
    if (ec || !out.flush())
        throw Error(Error::Kind::kCannot, "cannot write the engine's mode file in " + dir);
}

pid_t SpawnService(const RunPlan &plan, const std::string &logPath)
{
    const int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        throw Error(Error::Kind::kCannot, "cannot write " + logPath + ": " + std::strerror(errno));
    const pid_t pid = fork();
    if (pid < 0) {
        close(fd);
        throw Error(Error::Kind::kCannot, std::string("cannot start the service: ") + std::strerror(errno));
    }
    if (pid == 0) {
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        setenv("TVHOST_LOG", "1", 1);
        setenv("TVHOST_LOG_STDERR", "1", 1);
        setenv("TVHOST_DRAW", "0", 1);
        setenv("QORV_SIM_QUIET", "1", 1);
        unsetenv("TVHOST_LOG_FORMAT");
        unsetenv("QORV_SIM_SPEED");
        unsetenv("QORV_SIM_MODE");
        unsetenv("NOTIFY_SOCKET");
        execl(plan.binary.c_str(), plan.binary.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    close(fd);
    return pid;
}

bool WaitService(pid_t pid, std::chrono::milliseconds timeout, int &status)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid || (done < 0 && errno == ECHILD))
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

int StopService(pid_t pid, std::chrono::milliseconds timeout)
{
    int status = 0;
    kill(pid, SIGTERM);
    if (!WaitService(pid, timeout, status)) {
        kill(pid, SIGKILL);
        WaitService(pid, timeout, status);
    }
    return status;
}

int RaiseEvent(int number, const std::string &param1, const std::string &param2)
{
    int answer = 0;
    std::string reason;
    if (!qorvsim::InjectEvent(qorvsim::DefaultSocketPath(), number, param1, param2, answer, reason))
        throw Error(Error::Kind::kCannot,
                    "the engine of the service did not take event " + std::to_string(number) + ": " + reason);
    return answer;
}

} // namespace hosttv
