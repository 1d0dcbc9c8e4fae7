// The service on the host TV: preparing a run, the fresh state, what runs.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "hosttv/hosttv.h"
#include "hosttv/written.h"
#include "qorv_sim_client.h"
#include "tvhost/local_socket.h"
#include "tvhost/log.h"
#include "tvhost/network.h"
#include "tvhost/parse.h"
#include "tvhost/power.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

namespace fs = std::filesystem;

namespace hosttv {

const char kFreshLanguage[] = "en_US.UTF-8";
const char kDefaultScenario[] = "quiet";
const char kNotRunning[] = "the service is not running on this host TV";

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

// One service per host TV: a front end takes this lock before it prepares
// the TV root and the service takes it over (the descriptor survives the
// exec), so two runs started at once cannot both pass the check. It is empty
// until the service runs, then names it whole: "PID\n".
std::string LockPath()
{
    return tvhost::Root() + "/opt/var/tvhost/service.lock";
}

struct LockState {
    bool bHeld = false;
    int pid = 0; // 0 while the front end that holds it has not started the service
};

// The pid a held lock names, from its whole text only.
int ReadLockPid(int fd)
{
    char text[32];
    const ssize_t n = pread(fd, text, sizeof text, 0);
    if (n < 2 || n >= static_cast<ssize_t>(sizeof text) || text[n - 1] != '\n')
        return 0;
    int pid = 0;
    return tvhost::ParseInt(std::string_view(text, static_cast<size_t>(n - 1)), pid) && pid > 1 ? pid : 0;
}

bool Held(int fd)
{
    return flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

LockState ReadLock(proc::Fd *pKeep = nullptr)
{
    LockState state;
    proc::Fd fd(open(LockPath().c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd || !Held(fd.Get()))
        return state;
    state.bHeld = true;
    state.pid = ReadLockPid(fd.Get());
    if (pKeep)
        *pKeep = std::move(fd);
    return state;
}

[[noreturn]] void FailAlreadyRuns(int pid)
{
    if (!pid)
        throw Error(Error::Kind::kCannot, "a service is being started on this host TV", Error::Remedy::kStopService);
    throw Error(Error::Kind::kCannot, "the service already runs on this host TV (pid " + std::to_string(pid) + ")",
                Error::Remedy::kStopService);
}

// Takes the run lock for this process (and the service it starts), empty.
proc::Fd TakeLock()
{
    std::error_code ec;
    fs::create_directories(fs::path(LockPath()).parent_path(), ec);
    proc::Fd fd(open(LockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!fd)
        throw Error(Error::Kind::kCannot, "cannot open " + LockPath() + ": " + std::strerror(errno));
    if (flock(fd.Get(), LOCK_EX | LOCK_NB) != 0)
        FailAlreadyRuns(ReadLockPid(fd.Get()));
    if (ftruncate(fd.Get(), 0) != 0)
        throw Error(Error::Kind::kCannot, "cannot write " + LockPath() + ": " + std::strerror(errno));
    return fd;
}

} // namespace

int ServicePid()
{
    int pid = 0;
    tvhost::notifications::remote::Error error;
    if (tvhost::notifications::remote::Ping(pid, error))
        return pid;
    return ReadLock().pid;
}

bool ServiceStarting()
{
    return ReadLock().bHeld;
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
    plan.lock = TakeLock();
    plan.env = proc::Environment::Current();
    const std::optional<std::string> modeEnv = plan.env.Get("QORV_SIM_MODE");

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
    if (modeEnv && !modeEnv->empty()) {
        plan.why = "QORV_SIM_MODE names it; the engine reads it instead of " + plan.scenario;
        plan.scenario = *modeEnv;
    }
    tvhost::power::ClearRecorded();

    // Each run's log begins afresh; the previous one stays for a look back.
    const std::string log = LogPath();
    if (rename(log.c_str(), (log + ".1").c_str()) != 0 && errno != ENOENT)
        throw Error(Error::Kind::kCannot, "cannot move the previous log " + log + " aside: " + std::strerror(errno));
    plan.env.Set("TVHOST_LOG_FILE", log);
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

proc::Child StartService(RunPlan &&plan, const std::vector<std::pair<int, int>> &fds)
{
    RunPlan run = std::move(plan); // the lock goes with this call, whatever happens
    proc::Command command;
    command.argv = {run.binary};
    command.env = std::move(run.env);
    command.fds = fds;
    int lockTarget = 3;
    for (const auto &m : fds)
        lockTarget = std::max(lockTarget, m.first + 1);
    command.fds.emplace_back(lockTarget, run.lock.Get());
    proc::Child child;
    try {
        child = proc::Child::Start(command);
    } catch (const proc::Error &e) {
        throw Error(Error::Kind::kCannot, e.what());
    }
    // Both hold the lock now; once this process lets go, the service alone
    // does, and it is free when the service ends.
    const std::string pid = std::to_string(child.Pid()) + "\n";
    if (pwrite(run.lock.Get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        const int error = errno;
        child.Stop(std::chrono::seconds(10));
        throw Error(Error::Kind::kCannot, "cannot write " + LockPath() + ": " + std::strerror(error));
    }
    return child;
}

int OwnedService::Start(const std::string &scenario)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    RunPlan plan = PrepareRun(scenario);
    const std::string binary = plan.binary;
    if (m_events.prepared)
        m_events.prepared(plan);
    m_service = StartService(std::move(plan));
    if (m_events.started)
        m_events.started(m_service.Pid(), binary);
    return m_service.Pid();
}

void OwnedService::Reap()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_service && !m_service.Running())
        Ended();
}

void OwnedService::Stop(bool bSignalled)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_service)
        return;
    if (m_service.Running()) {
        if (m_events.stopping)
            m_events.stopping();
        if (!bSignalled)
            m_service.Signal(SIGTERM);
        // A service that ignores SIGTERM is not waited for forever.
        if (!m_service.Wait(std::chrono::seconds(20)))
            m_service.Stop(std::chrono::milliseconds(0));
    }
    Ended();
}

void OwnedService::Ended()
{
    const int pid = m_service.Pid();
    const std::string text = EndText(m_service.Status().value_or(0));
    m_service = proc::Child();
    if (m_events.ended)
        m_events.ended(pid, text);
}

std::string Root()
{
    return tvhost::Root();
}

std::string ForTerminal(std::string_view text)
{
    return tvhost::log::ForTerminal(text);
}

tvhost::notifications::Record AsDrawn(const tvhost::notifications::Record &record)
{
    return tvhost::notifications::AsDrawn(record);
}

int StopService(std::chrono::seconds wait, const std::function<void(int pid)> &signalled)
{
    proc::Fd lock;
    LockState state = ReadLock(&lock);
    // A front end that holds the lock names the service as soon as it runs.
    for (int i = 0; state.bHeld && !state.pid && i < 100; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        state = ReadLock(&lock);
    }
    if (!state.bHeld) {
        if (const int pid = ServicePid())
            throw Error(Error::Kind::kCannot, "the service (pid " + std::to_string(pid) +
                                                  ") was not started by the host TV's tools, which stop only what "
                                                  "they started; stop it where it was started");
        throw Error(Error::Kind::kCannot, kNotRunning, Error::Remedy::kStartService);
    }
    if (!state.pid)
        throw Error(Error::Kind::kCannot, "a service is being started on this host TV but does not run yet; try "
                                          "again in a moment");
    // The pid is read whole from a held lock; the pidfd pins that process, and
    // the lock, still held and naming it, says it is still the service.
    const int pid = state.pid;
    proc::Fd pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (!pidfd || !Held(lock.Get()) || ReadLockPid(lock.Get()) != pid ||
        syscall(SYS_pidfd_send_signal, pidfd.Get(), SIGTERM, nullptr, 0) != 0) {
        if (ReadLock().bHeld)
            throw Error(Error::Kind::kCannot,
                        "cannot stop the service (pid " + std::to_string(pid) + "): " + std::strerror(errno));
        throw Error(Error::Kind::kCannot, kNotRunning, Error::Remedy::kStartService);
    }
    if (signalled)
        signalled(pid);
    struct pollfd pfd = {pidfd.Get(), POLLIN, 0};
    int n;
    while ((n = poll(&pfd, 1, static_cast<int>(std::chrono::milliseconds(wait).count()))) < 0 && errno == EINTR) {}
    if (n == 0)
        throw Error(Error::Kind::kCannot,
                    "the service (pid " + std::to_string(pid) + ") did not end within " + std::to_string(wait.count()) +
                        " s of SIGTERM",
                    Error::Remedy::kKill, std::to_string(pid));
    return pid;
}

void Reset()
{
    if (const int pid = ServicePid())
        throw Error(Error::Kind::kCannot,
                    "the service runs (pid " + std::to_string(pid) + "); the host TV is reset without it",
                    Error::Remedy::kStopService);
    if (ServiceStarting())
        throw Error(Error::Kind::kCannot, "a service is being started on this host TV; the host TV is reset without it",
                    Error::Remedy::kStopService);
    Written(tvhost::apps::SetInstalled(kWidgetApp, true) && tvhost::apps::SetRunning(kWidgetApp, false),
            "the widget's state");
    Written(tvhost::settings::SetString(kLanguageKey, kFreshLanguage), std::string("the settings key ") + kLanguageKey);
    Written(tvhost::network::SetType(kEthernet), "the network type");
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
    status.bStarting = !status.servicePid && ServiceStarting();
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
