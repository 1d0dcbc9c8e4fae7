// A TV's log played back on the host TV.
#include "hosttv/replay.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <unistd.h>

#include "qorv_sim_client.h"
#include "tvhost/tvhost.h"

namespace hosttv {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

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

// The service of plan as a child: its log (brief form, the engine quiet) into
// logPath, nothing drawn.
proc::Child StartReplayedService(RunPlan &&plan, const std::string &logPath)
{
    proc::Fd log(open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!log)
        throw Error(Error::Kind::kCannot, "cannot write " + logPath + ": " + std::strerror(errno));
    proc::Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!null)
        throw Error(Error::Kind::kCannot, std::string("cannot open /dev/null: ") + std::strerror(errno));
    plan.env.Set("TVHOST_LOG", "1").Set("TVHOST_LOG_STDERR", "1").Set("TVHOST_DRAW", "0").Set("QORV_SIM_QUIET", "1");
    for (const char *name : {"TVHOST_LOG_FORMAT", "QORV_SIM_SPEED", "QORV_SIM_MODE", "NOTIFY_SOCKET"})
        plan.env.Unset(name);
    return StartService(std::move(plan),
                        {{STDIN_FILENO, null.Get()}, {STDOUT_FILENO, null.Get()}, {STDERR_FILENO, log.Get()}});
}

// Raises engine event number with both texts; the service's answer.
int RaiseEvent2(int number, const std::string &param1, const std::string &param2)
{
    int answer = 0;
    std::string reason;
    if (!qorvsim::InjectEvent(qorvsim::DefaultSocketPath(), number, param1, param2, answer, reason))
        throw Error(Error::Kind::kCannot,
                    "the engine of the service did not take event " + std::to_string(number) + ": " + reason);
    return answer;
}

// Runs one step on the host TV; a problem is returned for the table.
std::string Perform(const tvlog::Step &s)
{
    using K = tvlog::StepKind;
    try {
        switch (s.kind) {
        case K::kEvent: RaiseEvent2(s.event, s.param1, s.param2); break;
        case K::kLanguage: SetSetting(FindSettingKey(kLanguageKey), s.value); break;
        case K::kNetwork: SetNetwork(s.value); break;
        case K::kInstall:
        case K::kUninstall: InstallWidget(s.kind == K::kInstall); break;
        case K::kLaunch: LaunchWidget(); break;
        case K::kClose: CloseWidget(); break;
        case K::kPress: PressButton(s.item, s.button); break;
        }
    } catch (const std::exception &e) {
        return e.what();
    }
    return "";
}

class Run {
public:
    Run(const ReplayOptions &options, proc::Child &service) : m_options(options), m_service(service) {}

    // Waits until then; false when the replay is to end early.
    bool SleepUntil(Clock::time_point until)
    {
        if (m_bStopped)
            return false;
        if (m_options.stopped)
            m_bStopped = m_options.stopped(until, m_service);
        else
            std::this_thread::sleep_until(until);
        return !m_bStopped;
    }
    bool Stopped() const { return m_bStopped; }

    // Whether the engine of the service takes events, within 30 s.
    bool WaitForEngine()
    {
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        while (!EngineAnswers()) {
            if (Clock::now() > deadline || !m_service.Running() || !SleepUntil(Clock::now() + milliseconds(50)))
                return false;
        }
        return true;
    }

    // Tells of the pop-ups that came since the last look.
    void ShowNew()
    {
        if (!m_options.onPopup)
            return;
        try {
            for (const auto &r : Popups())
                if (m_shown.insert(r.itemId).second)
                    m_options.onPopup(r);
        } catch (const Error &) {
            // The service ended (a power-off): nothing more to show.
        }
    }

private:
    const ReplayOptions &m_options;
    proc::Child &m_service;
    bool m_bStopped = false;
    std::set<int> m_shown;
};

} // namespace

std::string ReplayLogPath()
{
    return tvhost::Root() + "/opt/var/tvhost/replay.log";
}

ReplayResult Replay(const tvlog::Plan &plan, const ReplayOptions &options)
{
    // The host TV as the log shows it at the start; reset first, since
    // PrepareRun takes the run lock, and Reset is refused while one is held.
    Reset();
    RunPlan run = PrepareRun("");
    if (!plan.start.widget.bInstalled)
        InstallWidget(false);
    else if (plan.start.widget.bRunning)
        LaunchWidget();
    SetSetting(FindSettingKey(kLanguageKey), plan.start.language);
    SetNetwork(plan.start.network.empty() ? "ethernet" : plan.start.network);
    // The events come from the log in its order, injected one at a time,
    // so the engine plays no scenario of its own.
    PlaceModeFile("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Mode name=\"replay\"><Home/><Scenario/></Mode>\n");
    const std::string hostLog = ReplayLogPath();
    if (options.onStart)
        options.onStart();
    proc::Child service = StartReplayedService(std::move(run), hostLog);

    ReplayResult result;
    Run replay(options, service);
    // Times count from the engine start: the first event, or a step the log
    // shows after the start, waits for the replayed service's engine.
    std::optional<Clock::time_point> t0;
    bool bEngineLost = false;
    for (const tvlog::Step &s : plan.steps) {
        const bool bEvent = s.kind == tvlog::StepKind::kEvent;
        if (!t0 && (bEvent || (s.ms > 0 && Widget().bInstalled))) {
            if (!replay.WaitForEngine() && bEvent) {
                if (replay.Stopped())
                    break;
                result.problems.push_back(
                    service.Running() ? "the engine of the replayed service did not start within 30 s; see " + hostLog
                                      : "the replayed service ended before its engine started (" +
                                            EndText(service.Status().value_or(0)) + "); see " + hostLog);
                bEngineLost = true;
                break;
            }
            t0 = Clock::now();
        }
        if (t0 && s.ms > 0 &&
            !replay.SleepUntil(*t0 + std::chrono::microseconds(
                                         static_cast<int64_t>(static_cast<double>(s.ms) * 1000 / options.speed))))
            break;
        const std::string problem = Perform(s);
        if (!problem.empty())
            result.problems.push_back("line " + std::to_string(s.line) + ": " + tvlog::StepName(s.kind) + ": " +
                                      problem);
        if (bEvent)
            replay.ShowNew();
    }
    result.bStopped = replay.Stopped();
    if (!result.bStopped)
        replay.ShowNew();

    bool bPowerOff = false;
    for (const auto &out : plan.outcomes)
        bPowerOff = bPowerOff || (out.kind == tvlog::Outcome::Kind::kPowerOff && out.bOk);
    // A switched-off TV ends the service; otherwise let the last step settle.
    if (result.bStopped || !bPowerOff || bEngineLost || !service.Wait(std::chrono::seconds(20))) {
        if (!result.bStopped && !bEngineLost)
            replay.SleepUntil(Clock::now() + milliseconds(500));
        service.Stop(std::chrono::seconds(10));
    }
    if (result.bStopped)
        return result;

    tvlog::Plan replayed;
    try {
        replayed = tvlog::PlanFromLog(hostLog, {});
    } catch (const tvlog::Error &e) {
        result.problems.push_back(std::string("the host TV's log: ") + e.what());
    }
    for (const auto &s : plan.steps)
        if (s.kind == tvlog::StepKind::kEvent)
            ++result.eventCounts[s.event].first;
    for (const auto &s : replayed.steps)
        if (s.kind == tvlog::StepKind::kEvent)
            ++result.eventCounts[s.event].second;
    const auto refreshed = result.eventCounts.find(0);
    result.bEngineRefreshed =
        refreshed != result.eventCounts.end() && refreshed->second.second > refreshed->second.first;
    result.differences = tvlog::Compare(plan.outcomes, replayed.outcomes);
    return result;
}

} // namespace hosttv
