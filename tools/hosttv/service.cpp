// The service on the host TV: preparing a run, the fresh state, what runs.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
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

} // namespace

int ServicePid()
{
    int pid = 0;
    tvhost::notifications::remote::Error error;
    return tvhost::notifications::remote::Ping(pid, error) ? pid : 0;
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

RunPlan PrepareRun(const std::string &scenario)
{
    if (int pid = ServicePid())
        throw Error(Error::Kind::kCannot, "the service already runs on this host TV (pid " + std::to_string(pid) +
                                              "); drive it with lumora-tv, or stop it first: kill " +
                                              std::to_string(pid));
    RunPlan plan;
    plan.binary = LUMORA_SERVICE_BINARY;
    if (access(plan.binary.c_str(), X_OK) != 0)
        throw Error(Error::Kind::kCannot,
                    "the service is not built: " + plan.binary + " is missing; build this tree first");

    // Without a scenario the service prepares its data folder itself, with
    // the shipped mode.xml, as on a TV's first start.
    if (!scenario.empty()) {
        const std::string source = ScenarioDir() + "/" + scenario + ".xml";
        if (scenario.find('/') != std::string::npos || !fs::is_regular_file(source))
            throw Error(Error::Kind::kBadRequest,
                        "unknown scenario \"" + scenario + "\"; the shipped ones are: " + ScenarioList());
        std::error_code ec;
        fs::create_directories(DataDir(), ec);
        if (ec)
            throw Error(Error::Kind::kCannot, "cannot create the data folder " + DataDir() + ": " + ec.message());
        plan.modeFile = DataDir() + "/mode.xml";
        fs::copy_file(source, plan.modeFile, fs::copy_options::overwrite_existing, ec);
        if (ec)
            throw Error(Error::Kind::kCannot, "cannot copy " + source + " to " + plan.modeFile + ": " + ec.message());
    }
    tvhost::power::ClearRecorded();
    return plan;
}

void ExecService(const RunPlan &plan)
{
    execl(plan.binary.c_str(), plan.binary.c_str(), static_cast<char *>(nullptr));
    throw Error(Error::Kind::kCannot, "cannot start " + plan.binary + ": " + std::strerror(errno));
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
