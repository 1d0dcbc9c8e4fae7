// run, stop, status, reset, power.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "commands.h"
#include "hosttv/hosttv.h"

namespace lumoratv {

namespace {

std::string PowerText(const hosttv::Power &power)
{
    if (!power.bOff)
        return "on: nothing switched the TV off since `lumora-tv run`";
    return "off: the TV was switched off (power-off request of kind " + std::to_string(power.kind) + ")";
}

} // namespace

int WaitForService(proc::Child &service, proc::StopSignals &signals, const char *afterEnd)
{
    for (bool bStopping = false;;) {
        if (const std::optional<int> status = service.Wait(std::chrono::milliseconds(0))) {
            const std::string text = hosttv::EndText(*status);
            if (!text.empty() || *afterEnd)
                std::fprintf(stderr, "lumora-tv: %s (pid %d)%s\n", text.empty() ? "the service ended" : text.c_str(),
                             service.Pid(), afterEnd);
            const std::optional<proc::StopSignals::Received> got = signals.Got();
            return got ? 128 + got->signo : proc::ExitStatusOf(*status);
        }
        if (!signals.WaitUntil(proc::Child::Clock::time_point::max(), &service) || bStopping)
            continue;
        bStopping = true;
        // After the terminal's ^C.
        std::fprintf(stderr, "%sstopping: the watchdog timer may take up to 6 s\n", isatty(STDERR_FILENO) ? "\n" : "");
        // Ctrl-C reaches the whole foreground process group, the service
        // with it; a signal sent to this process alone does not. A group kill
        // sent by a program gets the service a SIGTERM as well, which does no
        // harm: its main loop ends once.
        if (!signals.Got()->bFromTerminal)
            service.Signal(SIGTERM);
    }
}

int Run(const Args &args)
{
    std::string scenario;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--scenario" && i + 1 < args.size() && scenario.empty())
            scenario = args[++i];
        else if (args[i].compare(0, 11, "--scenario=") == 0 && scenario.empty())
            scenario = args[i].substr(11);
        else
            throw BadArguments{};
        if (scenario.empty())
            throw UsageError("--scenario needs a NAME; the shipped ones are: " + Join(hosttv::Scenarios(), ", "));
    }
    hosttv::RunPlan plan = hosttv::PrepareRun(scenario);
    const std::string binary = plan.binary;
    std::fprintf(stderr, "lumora-tv: %s\n", hosttv::PlanText(plan).c_str());
    if (!hosttv::Widget().bInstalled)
        std::fprintf(stderr,
                     "lumora-tv: the widget is not installed, so the engine waits for: lumora-tv widget install\n");
    std::fflush(nullptr);
    // Taken before the start, so that no stop signal is lost before the wait.
    proc::StopSignals signals;
    proc::Child service = hosttv::StartService(std::move(plan));
    std::fprintf(stderr,
                 "lumora-tv: started %s (pid %d); Ctrl-C here or lumora-tv stop ends it (its watchdog timer may take "
                 "up to 6 s); its log: lumora-tv logs\n",
                 binary.c_str(), service.Pid());
    return WaitForService(service, signals, "");
}

int Stop(const Args &)
{
    const int pid = hosttv::StopService(std::chrono::seconds(15), [](int signalled) {
        std::printf("stopping the service (pid %d): its watchdog timer may take up to 6 s\n", signalled);
        std::fflush(stdout);
    });
    std::printf("the service (pid %d) ended\n", pid);
    return kDone;
}

int Status(const Args &arguments)
{
    Args args = arguments;
    const bool bJson = TakeFlag(args, "--json");
    if (!args.empty())
        throw BadArguments{};
    const hosttv::Status status = hosttv::ReadStatus();
    const int exitStatus = status.servicePid ? kDone : kNegative;
    if (bJson) {
        std::printf("%s\n", hosttv::Json(status).c_str());
        return exitStatus;
    }
    std::string service = "not running (start it with: lumora-tv run)";
    if (status.bStarting)
        service = "starting: a front end is starting it";
    if (status.servicePid) {
        service = "running (pid " + std::to_string(status.servicePid) + ")";
        if (status.popupsOnScreen)
            service += ", " + std::to_string(*status.popupsOnScreen) +
                       (*status.popupsOnScreen == 1 ? " pop-up" : " pop-ups") + " on screen";
    }
    std::printf("service:   %s\n", service.c_str());
    std::printf("engine:    %s\n", status.bEngineStarted ? "started" : "not started");
    std::printf("widget:    %s\n", WidgetText(status.widget).c_str());
    std::printf("network:   %s\n", status.network.c_str());
    std::printf("language:  %s\n", status.language.value_or("(not set)").c_str());
    std::printf("power:     %s\n", PowerText(status.power).c_str());
    std::printf("TV root:   %s\n", status.root.c_str());
    return exitStatus;
}

int Reset(const Args &)
{
    hosttv::Reset();
    std::printf("fresh host TV: widget installed and closed, language %s, network ethernet, no data folder, TV on\n",
                hosttv::kFreshLanguage);
    return kDone;
}

int Power(const Args &arguments)
{
    Args args = arguments;
    const bool bJson = TakeFlag(args, "--json");
    if (!args.empty())
        throw BadArguments{};
    const hosttv::Power power = hosttv::PowerState();
    std::printf("%s\n", bJson ? hosttv::Json(power).c_str() : PowerText(power).c_str());
    return power.bOff ? kNegative : kDone;
}

} // namespace lumoratv
