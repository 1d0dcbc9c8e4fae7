// lumora-tv: one command to drive the host TV of this build tree from another
// shell, the way a TV platform engineer pokes at a set: run the service, change
// settings, install or launch the widget, switch the network, look at the
// pop-ups and press their buttons, raise engine events, see whether the TV
// was switched off.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "qorv_sim_client.h"
#include "tvhost/apps.h"
#include "tvhost/local_socket.h"
#include "tvhost/network.h"
#include "tvhost/notifications.h"
#include "tvhost/power.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

namespace fs = std::filesystem;
namespace noti = tvhost::notifications;

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

const char kWidgetApp[] = "PzKmRvTqXa.Lumora";
const char kLanguageKey[] = "db/menu_widget/language";
const char kAppChangeKey[] = "memory/was/app_change";
const char kFreshLanguage[] = "en_US.UTF-8";
const int kEthernet = 3;

struct KnownKey {
    const char *name;
    bool bNumber;
    const char *what;
};
const KnownKey kKeys[] = {
    {kLanguageKey, false, "text, the TV's display language, e.g. ko_KR.UTF-8"},
    {kAppChangeKey, true, "number, bumped whenever an application is installed or removed"},
};

// The command line was wrong: exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// The command could not be done: exit status 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

const char kUsageText[] =
    "usage: lumora-tv COMMAND [ARGUMENTS]\n"
    "\n"
    "Drives the host TV of this build tree from another shell.\n"
    "\n"
    "  run [--scenario NAME]    prepare the host TV and run the service in the foreground;\n"
    "                           NAME (demo, quiet, storm) becomes the engine's mode.xml\n"
    "  status                   the service, the engine, the widget, network, language, power\n"
    "  reset                    the fresh host TV: widget installed and closed, language\n"
    "                           en_US.UTF-8, network ethernet, no data folder, TV on\n"
    "  get [KEY]                a settings key (every known one without KEY)\n"
    "  set KEY VALUE            write a settings key; the running service hears of it\n"
    "                           keys: db/menu_widget/language  memory/was/app_change\n"
    "  widget [install|uninstall|launch|close]\n"
    "                           the companion widget PzKmRvTqXa.Lumora (its state without a word)\n"
    "  network [wifi|ethernet|none|auto]\n"
    "                           the network type the TV reports; auto follows this machine\n"
    "  notifications [--brief] [ITEM]\n"
    "                           the pop-ups on screen in the running service; --brief: one\n"
    "                           line each, item, title and button labels separated by tabs\n"
    "  press ITEM BUTTON        press a button of a pop-up; BUTTON counts from 0, left to\n"
    "                           right (1 is \"Go to Lumora\" on a device notification)\n"
    "  timeout ITEM             let a pop-up time out\n"
    "  event NUMBER FILE|-      raise engine event NUMBER with the text of FILE (- reads\n"
    "                           standard input) as its first parameter; prints the answer\n"
    "  power                    whether the TV was switched off since `lumora-tv run`\n"
    "  help                     this text\n"
    "\n"
    "Exit status: 0 done, 1 it could not be done, 2 the command line was wrong.\n";

std::string DataDir()
{
    return tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data";
}

std::string ScenarioDir()
{
    return tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin/scenarios";
}

std::string Join(const std::vector<std::string> &words, const char *separator)
{
    std::string out;
    for (const auto &w : words)
        out += (out.empty() ? "" : separator) + w;
    return out;
}

std::string KnownKeyList()
{
    std::string out;
    for (const KnownKey &k : kKeys)
        out += std::string("\n  ") + k.name + " (" + k.what + ")";
    return out;
}

const KnownKey &FindKey(const std::string &name)
{
    for (const KnownKey &k : kKeys)
        if (name == k.name)
            return k;
    throw UsageError("unknown settings key \"" + name + "\"; the TV's keys are:" + KnownKeyList());
}

bool ParseWholeNumber(const std::string &text, int nBase, int &value)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    long n = std::strtol(text.c_str(), &end, nBase);
    if (errno || *end || n < INT_MIN || n > INT_MAX)
        return false;
    value = static_cast<int>(n);
    return true;
}

int NumberArgument(const std::string &text, const char *what)
{
    int value = 0;
    if (!ParseWholeNumber(text, 10, value))
        throw UsageError(std::string("bad number \"") + text + "\" for " + what + ": give a whole number such as 2");
    return value;
}

void ExpectArguments(const std::vector<std::string> &args, size_t nMin, size_t nMax, const char *usage)
{
    if (args.size() < nMin || args.size() > nMax)
        throw UsageError(std::string("usage: lumora-tv ") + usage);
}

// The running service's process id; 0 when none runs.
int ServicePid()
{
    int pid = 0;
    noti::remote::Error error;
    return noti::remote::Ping(pid, error) ? pid : 0;
}

[[noreturn]] void FailRemote(const noti::remote::Error &error)
{
    if (error.bNoService)
        throw Failure("the service is not running on this host TV; start it with: lumora-tv run");
    throw Failure(error.text);
}

std::vector<noti::Record> OnScreen()
{
    std::vector<noti::Record> records;
    noti::remote::Error error;
    if (!noti::remote::Shown(records, error))
        FailRemote(error);
    return records;
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

bool EngineAnswers()
{
    return tvhost::localsocket::SomeoneListens(qorvsim::DefaultSocketPath());
}

std::string WidgetState()
{
    if (!tvhost::apps::IsInstalled(kWidgetApp))
        return std::string(kWidgetApp) + " is not installed";
    return std::string(kWidgetApp) + " is installed, " +
           (tvhost::apps::IsRunning(kWidgetApp) ? "running" : "not running");
}

std::string PowerState()
{
    std::vector<int> offs = tvhost::power::Recorded();
    if (offs.empty())
        return "on: nothing switched the TV off since `lumora-tv run`";
    return "off: the TV was switched off (power-off request of kind " + std::to_string(offs.back()) + ")";
}

// ---- commands ---------------------------------------------------------------

int Run(const std::vector<std::string> &args)
{
    std::string scenario;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--scenario" && i + 1 < args.size() && scenario.empty())
            scenario = args[++i];
        else if (args[i].compare(0, 11, "--scenario=") == 0 && scenario.empty())
            scenario = args[i].substr(11);
        else
            throw UsageError("usage: lumora-tv run [--scenario NAME]");
        if (scenario.empty())
            throw UsageError("--scenario needs a NAME; the shipped ones are: " + Join(Scenarios(), ", "));
    }
    if (int pid = ServicePid())
        throw Failure("the service already runs on this host TV (pid " + std::to_string(pid) +
                      "); drive it with lumora-tv, or stop it first: kill " + std::to_string(pid));
    const std::string binary = LUMORA_SERVICE_BINARY;
    if (access(binary.c_str(), X_OK) != 0)
        throw Failure("the service is not built: " + binary + " is missing; build this tree first");

    // Without a scenario the service prepares its data folder itself, with
    // the shipped mode.xml, as on a TV's first start.
    if (!scenario.empty()) {
        const std::string source = ScenarioDir() + "/" + scenario + ".xml";
        if (scenario.find('/') != std::string::npos || !fs::is_regular_file(source))
            throw UsageError("unknown scenario \"" + scenario + "\"; the shipped ones are: " + Join(Scenarios(), ", "));
        std::error_code ec;
        fs::create_directories(DataDir(), ec);
        if (ec)
            throw Failure("cannot create the data folder " + DataDir() + ": " + ec.message());
        const std::string target = DataDir() + "/mode.xml";
        fs::copy_file(source, target, fs::copy_options::overwrite_existing, ec);
        if (ec)
            throw Failure("cannot copy " + source + " to " + target + ": " + ec.message());
        std::fprintf(stderr, "lumora-tv: the engine plays scenario \"%s\" (%s)\n", scenario.c_str(), target.c_str());
    }
    tvhost::power::ClearRecorded();
    if (!tvhost::apps::IsInstalled(kWidgetApp))
        std::fprintf(stderr,
                     "lumora-tv: the widget is not installed, so the engine waits for: lumora-tv widget install\n");
    std::fprintf(stderr, "lumora-tv: starting %s\n", binary.c_str());
    std::fflush(nullptr);
    execl(binary.c_str(), binary.c_str(), static_cast<char *>(nullptr));
    throw Failure("cannot start " + binary + ": " + std::strerror(errno));
}

int Status(const std::vector<std::string> &args)
{
    ExpectArguments(args, 0, 0, "status");
    std::vector<noti::Record> shown;
    noti::remote::Error error;
    int pid = ServicePid();
    std::string service = "not running (start it with: lumora-tv run)";
    if (pid) {
        service = "running (pid " + std::to_string(pid) + ")";
        if (noti::remote::Shown(shown, error))
            service +=
                ", " + std::to_string(shown.size()) + (shown.size() == 1 ? " pop-up" : " pop-ups") + " on screen";
    }
    std::string language = "(not set)";
    tvhost::settings::GetString(kLanguageKey, language);
    std::printf("service:   %s\n", service.c_str());
    std::printf("engine:    %s\n", EngineAnswers() ? "started" : "not started");
    std::printf("widget:    %s\n", WidgetState().c_str());
    std::printf("network:   %s\n", tvhost::network::TypeName(tvhost::network::CurrentType()));
    std::printf("language:  %s\n", language.c_str());
    std::printf("power:     %s\n", PowerState().c_str());
    std::printf("TV root:   %s\n", tvhost::Root().c_str());
    return kDone;
}

int Reset(const std::vector<std::string> &args)
{
    ExpectArguments(args, 0, 0, "reset");
    if (int pid = ServicePid())
        throw Failure("the service runs (pid " + std::to_string(pid) +
                      "); stop it before resetting the host TV: kill " + std::to_string(pid));
    tvhost::apps::SetInstalled(kWidgetApp, true);
    tvhost::apps::SetRunning(kWidgetApp, false);
    tvhost::settings::SetString(kLanguageKey, kFreshLanguage);
    tvhost::network::SetType(kEthernet);
    std::error_code ec;
    fs::remove_all(DataDir(), ec);
    if (ec)
        throw Failure("cannot remove the data folder " + DataDir() + ": " + ec.message());
    tvhost::power::ClearRecorded();
    std::printf("fresh host TV: widget installed and closed, language %s, network ethernet, no data folder, TV on\n",
                kFreshLanguage);
    return kDone;
}

void PrintKey(const KnownKey &key, bool bFailIfMissing)
{
    std::string text;
    int number = 0;
    bool bSet = key.bNumber ? tvhost::settings::GetInt(key.name, number) : tvhost::settings::GetString(key.name, text);
    if (!bSet) {
        if (bFailIfMissing)
            throw Failure(std::string(key.name) + " is not set; set it with: lumora-tv set " + key.name + " VALUE");
        std::printf("%s is not set\n", key.name);
        return;
    }
    std::printf("%s = %s\n", key.name, key.bNumber ? std::to_string(number).c_str() : text.c_str());
}

int Get(const std::vector<std::string> &args)
{
    ExpectArguments(args, 0, 1, "get [KEY]");
    if (args.empty()) {
        for (const KnownKey &k : kKeys)
            PrintKey(k, false);
        return kDone;
    }
    PrintKey(FindKey(args[0]), true);
    return kDone;
}

int Set(const std::vector<std::string> &args)
{
    ExpectArguments(args, 2, 2, "set KEY VALUE");
    const KnownKey &key = FindKey(args[0]);
    if (key.bNumber)
        tvhost::settings::SetInt(key.name, NumberArgument(args[1], key.name));
    else
        tvhost::settings::SetString(key.name, args[1]);
    PrintKey(key, true);
    return kDone;
}

int Widget(const std::vector<std::string> &args)
{
    ExpectArguments(args, 0, 1, "widget [install|uninstall|launch|close]");
    const std::string word = args.empty() ? "" : args[0];
    const bool bInstalled = tvhost::apps::IsInstalled(kWidgetApp);
    if (word == "install" || word == "uninstall") {
        const bool bInstall = word == "install";
        if (bInstall == bInstalled) {
            std::printf("%s (nothing changed)\n", WidgetState().c_str());
            return kDone;
        }
        tvhost::apps::SetInstalled(kWidgetApp, bInstall);
        int n = 0;
        tvhost::settings::GetInt(kAppChangeKey, n);
        std::printf("%s (%s is now %d)\n", WidgetState().c_str(), kAppChangeKey, n);
    } else if (word == "launch") {
        if (!bInstalled)
            throw Failure("the widget is not installed, so it cannot run; install it first: lumora-tv widget install");
        tvhost::apps::SetRunning(kWidgetApp, true);
        std::printf("%s\n", WidgetState().c_str());
    } else if (word == "close") {
        tvhost::apps::SetRunning(kWidgetApp, false);
        std::printf("%s\n", WidgetState().c_str());
    } else if (word.empty()) {
        std::printf("%s\n", WidgetState().c_str());
    } else {
        throw UsageError("unknown widget action \"" + word + "\"; use install, uninstall, launch or close");
    }
    return kDone;
}

int Network(const std::vector<std::string> &args)
{
    ExpectArguments(args, 0, 1, "network [wifi|ethernet|none|auto]");
    const std::string word = args.empty() ? "" : args[0];
    if (word == "auto") {
        tvhost::network::ClearOverride();
        std::printf("network: %s (following this machine's default route)\n",
                    tvhost::network::TypeName(tvhost::network::CurrentType()));
        return kDone;
    }
    if (word == "wifi" || word == "ethernet" || word == "none")
        tvhost::network::SetType(tvhost::network::TypeFromName(word));
    else if (!word.empty())
        throw UsageError("unknown network type \"" + word + "\"; use wifi, ethernet, none or auto");
    std::printf("network: %s\n", tvhost::network::TypeName(tvhost::network::CurrentType()));
    return kDone;
}

// Tabs and line breaks would break the one-line form.
std::string OneLine(const std::optional<std::string> &text)
{
    std::string out = text.value_or("");
    for (char &c : out)
        if (c == '\t' || c == '\n' || c == '\r')
            c = ' ';
    return out;
}

int Notifications(const std::vector<std::string> &args)
{
    bool bBrief = false;
    bool bOne = false;
    int item = 0;
    for (const auto &a : args) {
        if (a == "--brief")
            bBrief = true;
        else if (!bOne && !a.empty() && a[0] != '-')
            item = NumberArgument(a, "ITEM"), bOne = true;
        else
            throw UsageError("usage: lumora-tv notifications [--brief] [ITEM]");
    }
    std::vector<noti::Record> records = OnScreen();
    if (bOne) {
        std::vector<noti::Record> all = records;
        records.clear();
        for (const auto &r : all)
            if (r.itemId == item)
                records.push_back(r);
        if (records.empty())
            throw Failure("no pop-up #" + std::to_string(item) + " on screen (" + noti::OnScreenText(all) + ")");
    }
    if (records.empty() && !bBrief)
        std::printf("nothing is on screen\n");
    for (const auto &r : records) {
        if (bBrief) {
            std::string line = std::to_string(r.itemId) + "\t" + OneLine(r.title);
            for (int i = 0; i < r.buttonCount && i < 3; ++i)
                line += "\t" + OneLine(r.buttonLabel[i]);
            std::printf("%s\n", line.c_str());
        } else {
            std::printf("%s", noti::Render(r).c_str());
        }
    }
    return kDone;
}

std::string ExtraData(const tvhost::apps::Launch &launch)
{
    std::vector<std::string> pairs;
    for (const auto &kv : launch.extraData)
        pairs.push_back(kv.first + "=" + kv.second);
    return pairs.empty() ? "no extra data" : Join(pairs, " ");
}

int Press(const std::vector<std::string> &args)
{
    ExpectArguments(args, 2, 2, "press ITEM BUTTON   (BUTTON counts from 0, left to right)");
    const int item = NumberArgument(args[0], "ITEM");
    const int button = NumberArgument(args[1], "BUTTON");
    // The label, for a readable answer; the press itself checks what is shown.
    std::string label = "button " + std::to_string(button);
    for (const auto &r : OnScreen())
        if (r.itemId == item && button >= 0 && button < r.buttonCount && button < 3)
            label = "[ " + r.buttonLabel[button].value_or("") + " ] (button " + std::to_string(button) + ")";

    std::vector<tvhost::apps::Launch> launches;
    noti::remote::Error error;
    if (!noti::remote::PressButton(item, button, launches, error))
        FailRemote(error);
    std::printf("pressed %s of pop-up #%d\n", label.c_str(), item);
    if (launches.empty())
        std::printf("the service launched nothing\n");
    for (const auto &l : launches) {
        if (l.result == 0)
            std::printf("the service launched %s with %s\n", l.appId.c_str(), ExtraData(l).c_str());
        else
            std::printf("the service's launch request for %s with %s failed (result %d)\n", l.appId.c_str(),
                        ExtraData(l).c_str(), l.result);
    }
    return kDone;
}

int Timeout(const std::vector<std::string> &args)
{
    ExpectArguments(args, 1, 1, "timeout ITEM");
    const int item = NumberArgument(args[0], "ITEM");
    noti::remote::Error error;
    if (!noti::remote::TimeOut(item, error))
        FailRemote(error);
    std::printf("pop-up #%d timed out\n", item);
    return kDone;
}

int Event(const std::vector<std::string> &args)
{
    ExpectArguments(args, 2, 2, "event NUMBER FILE|-   (FILE: the event's first parameter; - reads standard input)");
    int number = 0;
    if (!ParseWholeNumber(args[0], 0, number))
        throw UsageError("bad event number \"" + args[0] + "\": give a whole number such as 5 or 0x3003");
    std::string text;
    if (args[1] == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        std::ifstream in(args[1], std::ios::binary);
        if (!in)
            throw Failure("cannot read " + args[1] + ": " + std::strerror(errno));
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    int answer = 0;
    std::string reason;
    if (!qorvsim::InjectEvent(qorvsim::DefaultSocketPath(), number, text, "", answer, reason)) {
        int pid = ServicePid();
        if (!pid)
            throw Failure("the service is not running on this host TV; start it with: lumora-tv run");
        throw Failure("the engine of the service (pid " + std::to_string(pid) + ") is not started (" + reason +
                      "); the service starts it 3 s after it finds the widget: lumora-tv widget install");
    }
    std::printf("event %d: the service answered %d%s\n", number, answer,
                answer == -2 ? " (the engine has no callback: the service did not register one)" : "");
    return kDone;
}

int Power(const std::vector<std::string> &args)
{
    ExpectArguments(args, 0, 0, "power");
    std::printf("%s\n", PowerState().c_str());
    return kDone;
}

int Dispatch(const std::string &command, const std::vector<std::string> &args)
{
    if (command == "run")
        return Run(args);
    if (command == "status")
        return Status(args);
    if (command == "reset")
        return Reset(args);
    if (command == "get")
        return Get(args);
    if (command == "set")
        return Set(args);
    if (command == "widget")
        return Widget(args);
    if (command == "network")
        return Network(args);
    if (command == "notifications")
        return Notifications(args);
    if (command == "press")
        return Press(args);
    if (command == "timeout")
        return Timeout(args);
    if (command == "event")
        return Event(args);
    if (command == "power")
        return Power(args);
    std::fprintf(stderr, "lumora-tv: unknown command \"%s\"\n\n%s", command.c_str(), kUsageText);
    return kUsage;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "%s", kUsageText);
        return kUsage;
    }
    const std::string command = argv[1];
    if (command == "help" || command == "--help" || command == "-h") {
        std::printf("%s", kUsageText);
        return kDone;
    }
    std::vector<std::string> args(argv + 2, argv + argc);
    try {
        return Dispatch(command, args);
    } catch (const UsageError &e) {
        std::fprintf(stderr, "lumora-tv: %s\n", e.what());
        return kUsage;
    } catch (const Failure &e) {
        std::fprintf(stderr, "lumora-tv: %s\n", e.what());
        return kFailed;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "lumora-tv: %s\n", e.what());
        return kFailed;
    }
}
