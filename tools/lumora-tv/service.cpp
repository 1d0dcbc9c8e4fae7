// run, stop, status, reset, power.
#include <cstdio>

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
    const hosttv::RunPlan plan = hosttv::PrepareRun(scenario);
    std::fprintf(stderr, "lumora-tv: the engine plays scenario \"%s\" (%s): %s\n", plan.scenario.c_str(),
                 plan.why.c_str(), hosttv::ScenarioText(plan.scenario).c_str());
    if (!hosttv::Widget().bInstalled)
        std::fprintf(stderr,
                     "lumora-tv: the widget is not installed, so the engine waits for: lumora-tv widget install\n");
    std::fprintf(stderr,
                 "lumora-tv: starting %s; Ctrl-C here or lumora-tv stop ends it (its watchdog timer may take up to "
                 "6 s)\n",
                 plan.binary.c_str());
    std::fflush(nullptr);
    hosttv::ExecService(plan);
}

int Stop(const Args &)
{
    std::printf("stopping the service: its watchdog timer may take up to 6 s\n");
    std::fflush(stdout);
    const int pid = hosttv::StopService(std::chrono::seconds(15));
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
