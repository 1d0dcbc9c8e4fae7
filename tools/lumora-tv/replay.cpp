// scenario --from-log, replay: a TV's log played back on the host TV.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <unistd.h>

#include "commands.h"
#include "hosttv/replay.h"
#include "tvhost/parse.h"
#include "tvlog/tvlog.h"

namespace lumoratv {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Options {
    std::string input;
    std::string out;
    std::optional<size_t> session;
    int64_t gapMs = 1000;
    double speed = 1.0;
};

// The options of both commands; allowed names what this one takes.
Options ReadOptions(const Args &args, const std::set<std::string> &allowed, bool bFromLog)
{
    Options o;
    bool bSawFromLog = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (!allowed.count(a)) {
            if (!bFromLog && o.input.empty() && !a.empty() && (a[0] != '-' || a == "-")) {
                o.input = a;
                continue;
            }
            throw BadArguments{};
        }
        if (i + 1 >= args.size())
            throw UsageError(a + " needs a value");
        const std::string &v = args[++i];
        long n = 0;
        if (a == "--from-log") {
            o.input = v, bSawFromLog = true;
        } else if (a == "--out") {
            o.out = v;
        } else if (a == "--session") {
            if (!tvhost::ParseInt(v, n) || n < 1)
                throw UsageError("--session takes a run of the service from 1, not \"" + v + "\"");
            o.session = static_cast<size_t>(n);
        } else if (a == "--gap") {
            if (!tvhost::ParseInt(v, n) || n < 0 || n > 3600000)
                throw UsageError("--gap takes milliseconds from 0 to 3600000, not \"" + v + "\"");
            o.gapMs = n;
        } else if (a == "--speed") {
            if (!tvhost::ParseReal(v, o.speed) || !(o.speed > 0.0) || o.speed > 1e6)
                throw UsageError("--speed takes a factor above 0 such as 2 or 0.5, not \"" + v + "\"");
        }
    }
    if (bFromLog ? !bSawFromLog : o.input.empty())
        throw BadArguments{};
    if (tvlog::IsPipe(o.input))
        std::fprintf(stderr, "lumora-tv: reading %s until its writer ends it (Ctrl-C to give up)\n",
                     o.input == "-" ? "the standard input" : o.input.c_str());
    tvlog::SetProgress([](uint64_t bytes) {
        std::fprintf(stderr, "lumora-tv: %llu MiB read\n", static_cast<unsigned long long>(bytes >> 20));
    });
    return o;
}

// A log's or a replay file's plan; what is wrong with the input is an Error
// of the kind the exit status needs.
tvlog::Plan Load(const Options &o)
{
    try {
        if (tvlog::IsReplayFile(o.input)) {
            if (o.session)
                throw UsageError("--session picks a run of a log; " + o.input + " is a replay file");
            return tvlog::ReadReplayFile(o.input);
        }
        if (o.session) {
            const size_t n = tvlog::ListSessions(o.input).size();
            if (*o.session > n)
                throw UsageError("there is no session " + std::to_string(*o.session) + " in " + o.input +
                                 ": it holds " + std::to_string(n) + (n == 1 ? " run" : " runs") + " of the service");
        }
        return tvlog::PlanFromLog(o.input, {o.session, o.gapMs});
    } catch (const tvlog::Error &e) {
        throw hosttv::Error(hosttv::Error::Kind::kCannot, e.what());
    }
}

size_t CountEvents(const tvlog::Plan &plan)
{
    size_t n = 0;
    for (const auto &s : plan.steps)
        n += s.kind == tvlog::StepKind::kEvent;
    return n;
}

} // namespace

int Scenario(const Args &args)
{
    const Options o = ReadOptions(args, {"--from-log", "--out", "--session", "--gap"}, true);
    const tvlog::Plan plan = Load(o);
    const std::string text = tvlog::WriteReplayFile(plan, o.input);
    if (o.out.empty() || o.out == "-") {
        std::fwrite(text.data(), 1, text.size(), stdout);
    } else {
        std::ofstream out(o.out, std::ios::binary | std::ios::trunc);
        if (!(out << text) || !out.flush())
            throw hosttv::Error(hosttv::Error::Kind::kCannot, "cannot write " + o.out);
    }
    std::fprintf(stderr, "lumora-tv: the run of process %d: %zu events, %zu TV steps, %zu outcomes%s\n", plan.pid,
                 CountEvents(plan), plan.steps.size() - CountEvents(plan), plan.outcomes.size(),
                 plan.bTimed ? ""
                             : ("; no times in the log, " + std::to_string(o.gapMs) + " ms between steps").c_str());
    for (const auto &note : plan.notes)
        std::fprintf(stderr, "lumora-tv: %s\n", hosttv::ForTerminal(note).c_str());
    return kDone;
}

int Replay(const Args &args)
{
    const Options o = ReadOptions(args, {"--speed", "--session", "--gap"}, false);
    const tvlog::Plan plan = Load(o);
    if (plan.steps.empty())
        throw hosttv::Error(hosttv::Error::Kind::kCannot, "the run of the service in " + o.input +
                                                              " has nothing to replay (no engine event, no "
                                                              "action of the TV or the viewer)");

    proc::StopSignals signals;
    hosttv::ReplayOptions options;
    options.speed = o.speed;
    options.onStart = [&] {
        std::printf("replaying %s (run of process %d): %zu events; host TV: widget %s%s, %s, %s; its log: %s\n",
                    o.input.c_str(), plan.pid, CountEvents(plan),
                    plan.start.widget.bInstalled ? "installed" : "not installed",
                    plan.start.widget.bRunning ? " and running" : "", plan.start.language.c_str(),
                    plan.start.network.c_str(), hosttv::ReplayLogPath().c_str());
        std::fflush(stdout);
    };
    options.onPopup = [](const tvhost::notifications::Record &r) {
        std::printf("%s", tvhost::notifications::Render(r).c_str());
        std::fflush(stdout);
    };
    options.stopped = [&signals](proc::Child::Clock::time_point until, const proc::Child &service) {
        if (!signals.WaitUntil(until, &service))
            return false;
        std::fprintf(stderr, "%sstopping: the watchdog timer may take up to 6 s\n", isatty(STDERR_FILENO) ? "\n" : "");
        return true;
    };
    const hosttv::ReplayResult result = hosttv::Replay(plan, options);
    if (result.bStopped) {
        std::fprintf(stderr, "lumora-tv: the replay was stopped; its service ended\n");
        return 128 + signals.Got()->signo;
    }

    std::printf("\n%-8s %8s %9s\n", "event", "in log", "replayed");
    for (const auto &c : result.eventCounts)
        std::printf("%-8d %8zu %9zu%s\n", c.first, c.second.first, c.second.second,
                    c.first == 0 && result.bEngineRefreshed ? " *" : "");
    if (result.bEngineRefreshed)
        std::printf("* the simulated engine answers a refresh (a network change) with an event 0 of its own\n");

    const std::vector<tvlog::Difference> &diffs = result.differences;
    if (!diffs.empty())
        std::printf("\ndifferences (log line: the TV logged | the host TV did):\n");
    for (const auto &d : diffs)
        std::printf("  line %zu: %s | %s\n", d.logged ? d.logged->line : size_t{0},
                    d.logged ? hosttv::ForTerminal(tvlog::Describe(*d.logged)).c_str() : "nothing",
                    d.replayed ? hosttv::ForTerminal(tvlog::Describe(*d.replayed)).c_str() : "nothing");
    bool bCut = false;
    for (const auto &s : plan.steps)
        if (s.kind == tvlog::StepKind::kEvent && !s.bWellFormed) {
            if (!bCut)
                std::printf("\n");
            bCut = true;
            std::printf("  line %zu: event %d: as logged; the log may have cut it\n", s.line, s.event);
        }
    for (const auto &note : plan.notes)
        std::printf("  note: %s\n", hosttv::ForTerminal(note).c_str());
    for (const auto &p : result.problems)
        std::printf("  could not replay: %s\n", hosttv::ForTerminal(p).c_str());
    const bool bSame = result.Same();
    std::printf("\n%s: %zu of %zu outcomes as logged (pop-ups, launches, power-off)\n",
                bSame ? "the host TV did what the TV logged" : "the host TV differs from the log",
                plan.outcomes.size() - std::min(plan.outcomes.size(), diffs.size()), plan.outcomes.size());
    std::fflush(stdout);
    if (!bSame)
        throw hosttv::Error(hosttv::Error::Kind::kCannot,
                            "the replay of " + o.input + " differs from the log: " + std::to_string(diffs.size()) +
                                " differences, " + std::to_string(result.problems.size()) + " steps not replayed");
    return kDone;
}

} // namespace lumoratv
