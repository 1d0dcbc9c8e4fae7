// lumora-tv: one command to drive the host TV of this build tree from another
// shell, the way a TV platform engineer pokes at a set: run the service, change
// settings, install or launch the widget, switch the network, look at the
// pop-ups and press their buttons, raise engine events, see whether the TV
// was switched off. The work itself is hosttv's; this file is the table of
// commands, their help, and the exit statuses.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include "commands.h"

namespace lumoratv {

std::string Join(const std::vector<std::string> &words, const char *separator)
{
    std::string out;
    for (const auto &w : words)
        out += (out.empty() ? "" : separator) + w;
    return out;
}

bool TakeFlag(Args &args, const char *flag)
{
    const size_t nBefore = args.size();
    args.erase(std::remove(args.begin(), args.end(), flag), args.end());
    return args.size() != nBefore;
}

namespace {

constexpr size_t kAny = SIZE_MAX;

struct Command {
    const char *group;
    const char *name;
    const char *synopsis; // "usage: lumora-tv <synopsis>"
    size_t nMinArgs;
    size_t nMaxArgs; // kAny: the handler checks them itself
    const char *help;
    int (*handler)(const Args &);
    std::string (*more)() = nullptr; // what its help lists beside the text (the scenarios, the samples)
};

int Help(const Args &args);
int Version(const Args &args);

const char kService[] = "The service";
const char kTv[] = "The TV: settings, widget, network";
const char kViewer[] = "What the viewer sees, and the engine";
const char kTool[] = "This tool";

// Lines of at most width characters, broken between words.
std::vector<std::string> Wrap(const std::string &text, size_t width)
{
    std::vector<std::string> lines(1);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(' ', start);
        if (end == std::string::npos)
            end = text.size();
        const std::string word = text.substr(start, end - start);
        if (!lines.back().empty() && lines.back().size() + 1 + word.size() > width)
            lines.emplace_back();
        lines.back() += (lines.back().empty() ? "" : " ") + word;
        start = end + 1;
    }
    return lines;
}

constexpr size_t kColumn = 27;
constexpr size_t kWidth = 92;

// Two columns: each name, and its text wrapped beside it.
std::string Rows(const std::vector<std::pair<std::string, std::string>> &rows)
{
    std::string out;
    for (const auto &[left, text] : rows) {
        std::string row = "  " + left;
        if (row.size() + 2 > kColumn)
            out += row + "\n", row.clear();
        for (const std::string &line : Wrap(text, kWidth - kColumn)) {
            row.resize(kColumn, ' ');
            out += row + line + "\n";
            row.clear();
        }
    }
    return out;
}

std::string ScenarioSection()
{
    std::vector<std::pair<std::string, std::string>> rows;
    for (const std::string &name : hosttv::Scenarios())
        rows.emplace_back(name, hosttv::ScenarioText(name));
    return "Scenarios (run --scenario NAME):\n" + Rows(rows);
}

std::string EventSection()
{
    std::vector<std::pair<std::string, std::string>> rows;
    for (const hosttv::EventKind &kind : hosttv::EventKinds())
        rows.emplace_back(std::to_string(kind.number) + " " + kind.sample, kind.what);
    return "Events the service acts on (event NUMBER SAMPLE), with their shipped sample texts:\n" + Rows(rows);
}

const Command kCommands[] = {
    {kService, "run", "run [--scenario NAME]", 0, kAny,
     "prepare the host TV and run the service in the foreground, with the engine playing scenario NAME (quiet "
     "without one; the scenarios are below). One service per host TV. Ctrl-C (exit status 130) or lumora-tv stop "
     "ends it; a service that ends by itself gives its own status",
     Run, ScenarioSection},
    {kService, "stop", "stop", 0, 0,
     "end the running service (SIGTERM) and wait for it; its watchdog timer may take up to 6 s", Stop},
    {kService, "logs", "logs [-f] [--level L] [-n N]", 0, kAny,
     "the log of the service that lumora-tv run started last, with times: MM-DD hh:mm:ss.mmm L TAG: text. --level L "
     "keeps level L and above (V D I W E F, or verbose, debug, info, warn, error, fatal), -n N the last N records, "
     "-f follows it as it grows, and the next run's, until Ctrl-C",
     Logs},
    {kService, "status", "status [--json]", 0, 1,
     "the service, the engine, the widget, network, language, power; exit status 3 when no service runs", Status},
    {kService, "reset", "reset", 0, 0,
     "the fresh host TV: widget installed and closed, language en_US.UTF-8, network ethernet, no data folder, TV "
     "on; refused while the service runs",
     Reset},
    {kService, "power", "power [--json]", 0, 1,
     "whether the TV was switched off since `lumora-tv run`; exit status 3 when it was", Power},
    {kTv, "get", "get [--json] [KEY]", 0, 2, "a settings key's value alone (every known key without KEY)", Get},
    {kTv, "set", "set [--force] KEY VALUE", 2, 3,
     "write a settings key; the running service hears of it. Keys: db/menu_widget/language (ll_CC.ENCODING, e.g. "
     "ko_KR.UTF-8; another value is refused unless --force), memory/was/app_change (a whole number)",
     Set},
    {kTv, "widget", "widget [install|uninstall|launch|close]", 0, 1,
     "the companion widget PzKmRvTqXa.Lumora (its state without a word)", Widget},
    {kTv, "network", "network [wifi|ethernet|none|auto]", 0, 1,
     "the network type the TV reports; auto follows this machine", Network},
    {kViewer, "notifications", "notifications [--brief|--json] [ITEM]", 0, kAny,
     "the pop-ups on screen in the running service; --brief: one line each, item, title and button labels "
     "separated by tabs",
     Notifications},
    {kViewer, "press", "press ITEM BUTTON", 2, 2,
     "press a button of a pop-up; BUTTON counts from 0, left to right (1 is \"Go to Lumora\" on a device "
     "notification, and \"No\" on a new-device one: that is the button that opens the widget); prints what the "
     "service launched. The pop-up then leaves the screen",
     Press},
    {kViewer, "timeout", "timeout ITEM", 1, 1, "let a pop-up time out; it leaves the screen", Timeout},
    {kViewer, "event", "event [--wait SECONDS] NUMBER FILE|SAMPLE|-", 2, kAny,
     "raise engine event NUMBER with the text of FILE, of a shipped SAMPLE (below), or of "
     "standard input (-) as its first parameter; prints what the host TV saw happen. --wait: how long to wait for "
     "the engine's answer (default 10 s; a large text takes longer)",
     Event, EventSection},
    {kViewer, "scenario", "scenario --from-log LOG|- [--out FILE] [--session N] [--gap MS]", 2, kAny,
     "one replay file (the engine's mode file with the TV's side) from the run of the service in a TV's log, plain "
     "or gzip (- reads standard input); --session picks a run (default the last), --gap the time between steps of a "
     "log without times "
     "(default 1000)",
     Scenario},
    {kViewer, "replay", "replay LOG|FILE|- [--speed X] [--session N] [--gap MS]", 1, kAny,
     "reproduce a TV from its log or a replay file (- reads standard input): a fresh host TV in the log's start state "
     "runs the service "
     "with the logged events and the viewer's actions, draws each pop-up, and compares; exit 1 when the host TV "
     "did something else",
     Replay},
    {kTool, "web", "web [--listen ADDR:PORT] [--run [--scenario NAME]]", 0, kAny,
     "the host TV in a browser, at 127.0.0.1:8080 unless told: its pop-ups to press, the engineer's panel, the "
     "service's log, live; beside a service in another shell, or --run starts one (stopped with Ctrl-C)",
     Web},
    {kTool, "help", "help [COMMAND]", 0, 1, "this text, or how to use COMMAND (also: lumora-tv COMMAND --help)", Help},
    {kTool, "version", "version", 0, 0, "the version of lumora-tv (also: lumora-tv --version)", Version},
};

// Where this program is, for the hint how to type just "lumora-tv".
std::string SelfPath()
{
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<size_t>(n)) : "lumora-tv";
}

std::string Overview()
{
    std::string out = "usage: lumora-tv COMMAND [ARGUMENTS]\n\nDrives the host TV of this build tree from another "
                      "shell.\n";
    const char *group = "";
    for (const Command &c : kCommands) {
        if (std::string(group) != c.group)
            out += std::string("\n") + (group = c.group) + ":\n";
        out += Rows({{c.synopsis, c.help}});
    }
    out += "\n" + ScenarioSection() + "\n" + EventSection();
    std::vector<std::string> languages;
    for (const hosttv::Language &l : hosttv::Languages())
        languages.push_back(l.value);
    out +=
        "\nLanguages the service has texts for (set db/menu_widget/language VALUE):\n  " + Join(languages, ", ") + "\n";
    const std::string self = SelfPath();
    out += "\n";
    for (const std::string &line :
         Wrap("Exit status: 0 done, 1 it could not be done, 2 the command line was wrong, 3 the answer is no (status: "
              "no service runs; power: the TV is off).",
              kWidth))
        out += line + "\n";
    return out + "\nThis is " + self + "; to type just lumora-tv: export PATH=\"" + self.substr(0, self.rfind('/')) +
           ":$PATH\"\n";
}

std::string Usage(const Command &c)
{
    std::string out = std::string("usage: lumora-tv ") + c.synopsis + "\n\n";
    for (const std::string &line : Wrap(c.help, 78))
        out += "  " + line + "\n";
    return c.more ? out + "\n" + c.more() : out;
}

const Command *Find(const std::string &name)
{
    for (const Command &c : kCommands)
        if (name == c.name)
            return &c;
    return nullptr;
}

size_t EditDistance(const std::string &a, const std::string &b)
{
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// "; did you mean NAME?" for the command a person most likely meant: the one
// name is the start of, else the nearest in spelling (at most two edits);
// empty when none is near.
std::string Suggestion(const std::string &name)
{
    std::vector<std::string> starts;
    std::string nearest;
    size_t nNearest = 3;
    for (const Command &c : kCommands) {
        const std::string candidate = c.name;
        if (!name.empty() && candidate.compare(0, name.size(), name) == 0)
            starts.push_back(candidate);
        const size_t n = EditDistance(name, candidate);
        if (n < nNearest)
            nearest = candidate, nNearest = n;
    }
    if (starts.size() == 1)
        nearest = starts[0];
    return nearest.empty() ? "" : "; did you mean " + nearest + "?";
}

int Help(const Args &args)
{
    if (args.empty()) {
        std::printf("%s", Overview().c_str());
        return kDone;
    }
    const Command *c = Find(args[0]);
    if (!c)
        throw UsageError("unknown command \"" + args[0] + "\"" + Suggestion(args[0]));
    std::printf("%s", Usage(*c).c_str());
    return kDone;
}

int Version(const Args &)
{
    std::printf("lumora-tv %s\n", LUMORA_VERSION);
    return kDone;
}

// What a person at this command line can do about a failure.
std::string Advice(const hosttv::Error &e)
{
    using R = hosttv::Error::Remedy;
    switch (e.remedy()) {
    case R::kNone: return "";
    case R::kStartService: return "; start it with: lumora-tv run";
    case R::kStopService: return "; stop it first: lumora-tv stop";
    case R::kInstallWidget: return "; install it first: lumora-tv widget install";
    case R::kWaitLonger: return " (see: lumora-tv notifications); to wait longer: lumora-tv event --wait SECONDS ...";
    case R::kForce: return "; to write it all the same: lumora-tv set --force " + e.subject() + " VALUE";
    case R::kKill: return "; force it: kill -9 " + e.subject();
    case R::kFixOwner:
        return "; it must be writable by whoever drives the host TV (made by another user, e.g. sudo make demo? "
               "then: sudo chown -R \"$(id -un)\" " +
               e.subject() + ")";
    }
    return "";
}

int Dispatch(const std::string &name, const Args &args)
{
    const Command *c = Find(name == "--help" || name == "-h" ? "help" : name == "--version" ? "version" : name);
    if (!c) {
        const std::string suggestion = Suggestion(name);
        std::fprintf(stderr, "lumora-tv: unknown command \"%s\"%s\n", name.c_str(),
                     suggestion.empty() ? "; see: lumora-tv help" : suggestion.c_str());
        return kUsage;
    }
    if (std::find(args.begin(), args.end(), "--help") != args.end() ||
        std::find(args.begin(), args.end(), "-h") != args.end()) {
        std::printf("%s", Usage(*c).c_str());
        return kDone;
    }
    try {
        if (args.size() < c->nMinArgs || args.size() > c->nMaxArgs)
            throw BadArguments{};
        return c->handler(args);
    } catch (const BadArguments &) {
        std::fprintf(stderr, "%s", Usage(*c).c_str());
        return kUsage;
    } catch (const UsageError &e) {
        std::fprintf(stderr, "lumora-tv: %s\n", e.what());
        return kUsage;
    } catch (const hosttv::Error &e) {
        std::fprintf(stderr, "lumora-tv: %s%s\n", e.what(), Advice(e).c_str());
        return e.kind() == hosttv::Error::Kind::kBadRequest ? kUsage : kFailed;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "lumora-tv: %s\n", e.what());
        return kFailed;
    }
}

} // namespace

} // namespace lumoratv

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "%s", lumoratv::Overview().c_str());
        return lumoratv::kUsage;
    }
    return lumoratv::Dispatch(argv[1], lumoratv::Args(argv + 2, argv + argc));
}
