// The service on the host TV: preparing a run, the fresh state, what runs.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/file.h>
#include <sys/wait.h>
#include <thread>
#include <linux/close_range.h>
#include <unistd.h>

#include "hosttv/hosttv.h"
#include "qorv_sim_client.h"
#include "tvhost/local_socket.h"
#include "tvhost/network.h"
#include "tvhost/power.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

namespace fs = std::filesystem;

namespace hosttv {

const char kWidgetApp[] = "PzKmRvTqXa.Lumora";
const char kLanguageKey[] = "db/menu_widget/language";
const char kAppChangeKey[] = "memory/was/app_change";
const char kFreshLanguage[] = "en_US.UTF-8";
const char kDefaultScenario[] = "quiet";

namespace {

const int kEthernet = 3;

std::string DataDir()
{
    return tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data";
}

std::string ScenarioDir()
{
    return tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin/scenarios";
}

std::string ScenarioList()
{
    std::string out;
    for (const auto &name : Scenarios())
        out += (out.empty() ? "" : ", ") + name;
    return out;
}

// One service per host TV: `run` holds this lock from before the service
// starts until it ends (the descriptor survives the exec), so two runs
// started at once cannot both pass the check.
std::string LockPath()
{
    return tvhost::Root() + "/opt/var/tvhost/service.lock";
}

int ReadLockPid(int fd)
{
    char text[32] = {};
    const ssize_t n = pread(fd, text, sizeof text - 1, 0);
    return n > 0 ? std::atoi(text) : 0;
}

// The pid in a lock that someone holds; 0 when it is free.
int LockHolder()
{
    const int fd = open(LockPath().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    int pid = 0;
    if (flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        pid = std::max(1, ReadLockPid(fd));
    close(fd);
    return pid;
}

[[noreturn]] void FailAlreadyRuns(int pid)
{
    throw Error(Error::Kind::kCannot, "the service already runs on this host TV (pid " + std::to_string(pid) +
                                          "); drive it with lumora-tv, or stop it first: kill " + std::to_string(pid));
}

// Takes the run lock for this process (and the service it becomes).
int TakeLock()
{
    std::error_code ec;
    fs::create_directories(fs::path(LockPath()).parent_path(), ec);
    const int fd = open(LockPath().c_str(), O_RDWR | O_CREAT, 0644);
    if (fd < 0)
        throw Error(Error::Kind::kCannot, "cannot open " + LockPath() + ": " + std::strerror(errno));
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int pid = ReadLockPid(fd);
        close(fd);
        FailAlreadyRuns(pid);
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(fd, 0) != 0 || pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        close(fd);
        throw Error(Error::Kind::kCannot, "cannot write " + LockPath() + ": " + std::strerror(errno));
    }
    return fd;
}

} // namespace

int ServicePid()
{
    int pid = 0;
    tvhost::notifications::remote::Error error;
    if (tvhost::notifications::remote::Ping(pid, error))
        return pid;
    return LockHolder();
}

bool EngineAnswers()
{
    return tvhost::localsocket::SomeoneListens(qorvsim::DefaultSocketPath());
}

std::vector<std::string> Scenarios()
{
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(ScenarioDir(), ec))
        if (entry.path().extension() == ".xml")
            names.push_back(entry.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string ScenarioText(const std::string &name)
{
    static const std::pair<const char *, const char *> texts[] = {
        {"demo", "the tour of make demo: devices, two pop-ups, master keys, another pop-up, then the engine switches "
                 "the TV off about 20 s after its start"},
        {"quiet", "a home of a few devices; nothing happens unless asked (lumora-tv event, a refresh, "
                  "the language)"},
        {"storm", "80,000 events back to back from 0.5 s after the engine start, for load tests"},
    };
    for (const auto &t : texts)
        if (name == t.first)
            return t.second;
    return "a mode file of your own";
}

RunPlan PrepareRun(const std::string &scenario)
{
    // A service that another way started (a test's supervisor) holds no lock.
    int pid = 0;
    tvhost::notifications::remote::Error error;
    if (tvhost::notifications::remote::Ping(pid, error))
        FailAlreadyRuns(pid);
    RunPlan plan;
    plan.binary = LUMORA_SERVICE_BINARY;
    if (access(plan.binary.c_str(), X_OK) != 0)
        throw Error(Error::Kind::kCannot,
                    "the service is not built: " + plan.binary + " is missing; build this tree first");
    const std::vector<std::string> shipped = Scenarios();
    if (!scenario.empty() && (scenario.find('/') != std::string::npos ||
                              std::find(shipped.begin(), shipped.end(), scenario) == shipped.end()))
        throw Error(Error::Kind::kBadRequest,
                    "unknown scenario \"" + scenario + "\"; the shipped ones are: " + ScenarioList());
    const char *pModeEnv = std::getenv("QORV_SIM_MODE");
    plan.lockFd = TakeLock();

    // Always copied: a scenario left in the data folder by an earlier run
    // (the demo's switches the TV off) must not replay unasked.
    plan.scenario = scenario.empty() ? kDefaultScenario : scenario;
    plan.why = scenario.empty() ? "the default without --scenario NAME" : "--scenario " + scenario;
    const std::string source = ScenarioDir() + "/" + plan.scenario + ".xml";
    std::error_code ec;
    fs::create_directories(DataDir(), ec);
    if (ec)
        throw Error(Error::Kind::kCannot, "cannot create the data folder " + DataDir() + ": " + ec.message());
    plan.modeFile = DataDir() + "/mode.xml";
    fs::copy_file(source, plan.modeFile, fs::copy_options::overwrite_existing, ec);
    if (ec)
        throw Error(Error::Kind::kCannot, "cannot copy " + source + " to " + plan.modeFile + ": " + ec.message());
    // The engine reads the file this names before the data folder's.
    if (pModeEnv && *pModeEnv) {
        plan.why = "QORV_SIM_MODE names it; the engine reads it instead of " + plan.scenario;
        plan.scenario = pModeEnv;
    }
    tvhost::power::ClearRecorded();

    // Each run's log begins afresh; the previous one stays for a look back.
    const std::string log = LogPath();
    if (rename(log.c_str(), (log + ".1").c_str()) != 0 && errno != ENOENT)
        throw Error(Error::Kind::kCannot, "cannot move the previous log " + log + " aside: " + std::strerror(errno));
    setenv("TVHOST_LOG_FILE", log.c_str(), 1);
    return plan;
}

std::string PlanText(const RunPlan &plan)
{
    return "the engine plays scenario \"" + plan.scenario + "\" (" + plan.why + "): " + ScenarioText(plan.scenario);
}

std::string EndText(int status)
{
    const Power power = PowerState();
    if (WIFEXITED(status) && power.bOff)
        return "the service ended: the TV was switched off (power-off request of kind " + std::to_string(power.kind) +
               ")";
    if (WIFEXITED(status))
        return WEXITSTATUS(status) ? "the service ended with exit status " + std::to_string(WEXITSTATUS(status)) : "";
    const int sig = WTERMSIG(status);
    const bool bCrash = sig == SIGSEGV || sig == SIGBUS || sig == SIGABRT || sig == SIGFPE || sig == SIGILL ||
                        sig == SIGTRAP || sig == SIGSYS;
    return std::string("the service ") + (bCrash ? "crashed" : "was killed") + ": signal " + std::to_string(sig) +
           " (" + strsignal(sig) + ")";
}

int StartService(const RunPlan &plan)
{
    // Only async-signal-safe calls in the child (the caller may have
    // threads), so every text is made before the fork.
    const std::string failure = "lumora-tv: cannot start " + plan.binary + "\n";
    const pid_t pid = fork();
    if (pid < 0)
        throw Error(Error::Kind::kCannot, "cannot start " + plan.binary + ": " + std::strerror(errno));
    if (pid == 0) {
        if (plan.lockFd >= 0) {
            // The lock names the service, not the process that waits for it.
            char digits[24];
            size_t n = sizeof digits;
            digits[--n] = '\n';
            for (unsigned long v = static_cast<unsigned long>(getpid()); v || n == sizeof digits - 1; v /= 10)
                digits[--n] = static_cast<char>('0' + v % 10);
            if (ftruncate(plan.lockFd, 0) != 0 ||
                pwrite(plan.lockFd, digits + n, sizeof digits - n, 0) != static_cast<ssize_t>(sizeof digits - n))
                _exit(127);
        }
        // Nothing of the starter's but the lock reaches the service: a web
        // server's sockets would otherwise outlive it there.
        const unsigned lockFd = plan.lockFd >= 3 ? static_cast<unsigned>(plan.lockFd) : 2;
        if (lockFd > 3)
            close_range(3, lockFd - 1, CLOSE_RANGE_CLOEXEC);
        close_range(lockFd + 1, ~0U, CLOSE_RANGE_CLOEXEC);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execl(plan.binary.c_str(), plan.binary.c_str(), static_cast<char *>(nullptr));
        ssize_t ignored = write(STDERR_FILENO, failure.data(), failure.size());
        (void)ignored;
        _exit(127);
    }
    // The child holds the lock from here on: it is free once the service ends.
    if (plan.lockFd >= 0)
        close(plan.lockFd);
    return pid;
}

int StopService(std::chrono::seconds wait)
{
    const int pid = ServicePid();
    if (!pid)
        throw Error(Error::Kind::kCannot, "the service is not running on this host TV");
    if (kill(pid, SIGTERM) != 0)
        throw Error(Error::Kind::kCannot,
                    "cannot stop the service (pid " + std::to_string(pid) + "): " + std::strerror(errno));
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (ServicePid() == pid) {
        if (std::chrono::steady_clock::now() >= deadline)
            throw Error(Error::Kind::kCannot, "the service (pid " + std::to_string(pid) + ") did not end within " +
                                                  std::to_string(wait.count()) + " s of SIGTERM; force it: kill -9 " +
                                                  std::to_string(pid));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return pid;
}

void Reset()
{
    if (int pid = ServicePid())
        throw Error(Error::Kind::kCannot, "the service runs (pid " + std::to_string(pid) +
                                              "); stop it before resetting the host TV: kill " + std::to_string(pid));
    tvhost::apps::SetInstalled(kWidgetApp, true);
    tvhost::apps::SetRunning(kWidgetApp, false);
    tvhost::settings::SetString(kLanguageKey, kFreshLanguage);
    tvhost::network::SetType(kEthernet);
    std::error_code ec;
    fs::remove_all(DataDir(), ec);
    if (ec)
        throw Error(Error::Kind::kCannot, "cannot remove the data folder " + DataDir() + ": " + ec.message());
    tvhost::power::ClearRecorded();
}

Power PowerState()
{
    Power power;
    std::vector<int> offs = tvhost::power::Recorded();
    if (!offs.empty()) {
        power.bOff = true;
        power.kind = offs.back();
    }
    return power;
}

Status ReadStatus()
{
    Status status;
    status.servicePid = ServicePid();
    if (status.servicePid) {
        std::vector<tvhost::notifications::Record> shown;
        tvhost::notifications::remote::Error error;
        if (tvhost::notifications::remote::Shown(shown, error))
            status.popupsOnScreen = shown.size();
    }
    std::string language;
    if (tvhost::settings::GetString(kLanguageKey, language))
        status.language = language;
    status.bEngineStarted = EngineAnswers();
    status.widget = Widget();
    status.network = Network();
    status.power = PowerState();
    status.root = tvhost::Root();
    return status;
}

} // namespace hosttv
