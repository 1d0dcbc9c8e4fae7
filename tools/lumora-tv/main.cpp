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

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

constexpr size_t kAny = SIZE_MAX;

struct Command {
    const char *name;
    const char *synopsis; // "usage: lumora-tv <synopsis>"
    size_t nMinArgs;
    size_t nMaxArgs; // kAny: the handler checks them itself
    const char *help;
    void (*handler)(const Args &);
};

void Help(const Args &args);

const Command kCommands[] = {
    {"run", "run [--scenario NAME]", 0, kAny,
     "prepare the host TV and run the service in the foreground; NAME (demo, quiet, storm) becomes the engine's "
     "mode.xml",
     Run},
    {"status", "status", 0, 0, "the service, the engine, the widget, network, language, power", Status},
    {"reset", "reset", 0, 0,
     "the fresh host TV: widget installed and closed, language en_US.UTF-8, network ethernet, no data folder, TV "
     "on; refused while the service runs",
     Reset},
    {"get", "get [KEY]", 0, 1, "a settings key (every known one without KEY)", Get},
    {"set", "set KEY VALUE", 2, 2,
     "write a settings key; the running service hears of it. Keys: db/menu_widget/language (text), "
     "memory/was/app_change (a whole number)",
     Set},
    {"widget", "widget [install|uninstall|launch|close]", 0, 1,
     "the companion widget PzKmRvTqXa.Lumora (its state without a word)", Widget},
    {"network", "network [wifi|ethernet|none|auto]", 0, 1, "the network type the TV reports; auto follows this machine",
     Network},
    {"notifications", "notifications [--brief] [ITEM]", 0, kAny,
     "the pop-ups on screen in the running service; --brief: one line each, item, title and button labels "
     "separated by tabs",
     Notifications},
    {"press", "press ITEM BUTTON", 2, 2,
     "press a button of a pop-up; BUTTON counts from 0, left to right (1 is \"Go to Lumora\" on a device "
     "notification); prints what the service launched",
     Press},
    {"timeout", "timeout ITEM", 1, 1, "let a pop-up time out", Timeout},
    {"event", "event NUMBER FILE|-", 2, 2,
     "raise engine event NUMBER with the text of FILE (- reads standard input) as its first parameter; prints the "
     "service's answer",
     Event},
    {"scenario", "scenario --from-log LOG [--out FILE] [--session N] [--gap MS]", 2, kAny,
     "one replay file (the engine's mode file with the TV's side) from the run of the service in a TV's log, plain "
     "or gzip; --session picks a run (default the last), --gap the time between steps of a log without times "
     "(default 1000)",
     Scenario},
    {"replay", "replay LOG|FILE [--speed X] [--session N] [--gap MS]", 1, kAny,
     "reproduce a TV from its log or a replay file: a fresh host TV in the log's start state runs the service "
     "with the logged events and the viewer's actions, draws each pop-up, and compares; exit 1 when the host TV "
     "did something else",
     Replay},
    {"power", "power", 0, 0, "whether the TV was switched off since `lumora-tv run`", Power},
    {"help", "help [COMMAND]", 0, 1, "this text, or how to use COMMAND (also: lumora-tv COMMAND --help)", Help},
};

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

std::string Overview()
{
    const size_t kColumn = 27;
    const size_t kWidth = 92;
    std::string out = "usage: lumora-tv COMMAND [ARGUMENTS]\n\nDrives the host TV of this build tree from another "
                      "shell.\n\n";
    for (const Command &c : kCommands) {
        std::string row = std::string("  ") + c.synopsis;
        if (row.size() + 2 > kColumn)
            out += row + "\n", row.clear();
        for (const std::string &line : Wrap(c.help, kWidth - kColumn)) {
            row.resize(kColumn, ' ');
            out += row + line + "\n";
            row.clear();
        }
    }
    return out + "\nExit status: 0 done, 1 it could not be done, 2 the command line was wrong.\n";
}

std::string Usage(const Command &c)
{
    std::string out = std::string("usage: lumora-tv ") + c.synopsis + "\n\n";
    for (const std::string &line : Wrap(c.help, 78))
        out += "  " + line + "\n";
    return out;
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

void Help(const Args &args)
{
    if (args.empty()) {
        std::printf("%s", Overview().c_str());
        return;
    }
    const Command *c = Find(args[0]);
    if (!c)
        throw UsageError("unknown command \"" + args[0] + "\"" + Suggestion(args[0]));
    std::printf("%s", Usage(*c).c_str());
}

int Dispatch(const std::string &name, const Args &args)
{
    const Command *c = Find(name == "--help" || name == "-h" ? "help" : name);
    if (!c) {
        std::fprintf(stderr, "lumora-tv: unknown command \"%s\"%s\n\n%s", name.c_str(), Suggestion(name).c_str(),
                     Overview().c_str());
        return kUsage;
    }
    if (std::find(args.begin(), args.end(), "--help") != args.end()) {
        std::printf("%s", Usage(*c).c_str());
        return kDone;
    }
    try {
        if (args.size() < c->nMinArgs || args.size() > c->nMaxArgs)
            throw BadArguments{};
        c->handler(args);
        return kDone;
    } catch (const BadArguments &) {
        std::fprintf(stderr, "%s", Usage(*c).c_str());
        return kUsage;
    } catch (const UsageError &e) {
        std::fprintf(stderr, "lumora-tv: %s\n", e.what());
        return kUsage;
    } catch (const hosttv::Error &e) {
        std::fprintf(stderr, "lumora-tv: %s\n", e.what());
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
