// How long one hostile engine text holds the engine thread: each class of
// text built to expand, to make the parsers do quadratic work or to carry
// terminal controls, at 1, 4 and 16 MB, raised once through the binding's
// trampoline with the log on (formatted, as on a TV, but not shown). The
// goal is under a second for each; the section at the end says which are.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "BenchResults.h"
#include "ServiceSession.h"

using namespace lumorabench;

namespace {

constexpr double kGoalSeconds = 1.0;

std::unique_ptr<ServiceSession> g_pSession;

std::string Fill(std::string head, const std::string &unit, const std::string &tail, size_t nBytes)
{
    head.reserve(nBytes + unit.size() + tail.size());
    while (head.size() + unit.size() + tail.size() <= nBytes)
        head += unit;
    return head + tail;
}

std::string Notification(const std::string &prolog, const std::string &attributes, const std::string &text)
{
    return prolog + "<n id=\"1\"" + attributes + "><Device id=\"d\">" + text + "</Device><Notification>" + text +
           "</Notification><Action/><DisplayOption flag=\"On\"/></n>";
}

struct Class {
    const char *name;
    int nEvent;
    std::string (*make)(size_t nBytes);
};

const std::string kEntity = "<!DOCTYPE n [<!ENTITY e \"" + std::string(60000, 'A') + "\">]>";

const Class kClasses[] = {
    {"flat_expansion_text", 5,
     [](size_t n) { return Notification(kEntity, "", Fill("", "&e;", "", (n - kEntity.size() - 200) / 2)); }},
    {"flat_expansion_attribute", 5,
     [](size_t n) {
         return Notification(kEntity, " x=\"" + Fill("", "&e;", "", n - kEntity.size() - 200) + "\"", "t");
     }},
    {"dtd_default_attributes", 5,
     [](size_t n) {
         std::string dtd = "<!DOCTYPE n [";
         for (size_t i = 0; dtd.size() < n - 200; ++i)
             dtd += "<!ATTLIST n a" + std::to_string(i) + " CDATA \"v\">";
         return Notification(dtd + "]>", "", "t");
     }},
    {"attributes", 0,
     [](size_t n) {
         std::string text = "<l";
         text.reserve(n);
         for (size_t i = 0; text.size() < n - 120; ++i)
             text += " a" + std::to_string(i) + "=\"\"";
         return text + "><RegisteredDevice id=\"1\"><Type>Air Conditioner</Type><Name>n</Name></RegisteredDevice></l>";
     }},
    {"devices", 0,
     [](size_t n) {
         std::string text = "<l>";
         text.reserve(n);
         for (size_t i = 0; text.size() < n - 100; ++i)
             text += "<RegisteredDevice id=\"" + std::to_string(i) +
                     "\"><Type>Air Conditioner</Type><Name>n</Name></RegisteredDevice>";
         return text + "</l>";
     }},
    {"control_characters_in_names", 5,
     [](size_t n) {
         return Notification("", "", Fill("", "\xc2\x9b\xe2\x80\xae\nD/LUMORA(1): x ", "", (n - 200) / 2));
     }},
};

struct Verdict {
    std::string name;
    double dSeconds;
};
std::vector<Verdict> g_verdicts;

void BM_Hostile(benchmark::State &state)
{
    const Class &c = kClasses[state.range(0)];
    const size_t nBytes = static_cast<size_t>(state.range(1)) << 20;
    const std::string text = c.make(nBytes);
    SetLogging(true);
    double dSeconds = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const int nResult = ServiceSession::Raise(c.nEvent, text.c_str(), "");
        dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        benchmark::DoNotOptimize(nResult);
        state.SetIterationTime(dSeconds);
    }
    SetLogging(false);
    // A fresh manager for the next class: the presenter keeps every pop-up.
    g_pSession->Restart();
    const std::string name = std::string(c.name) + "/" + std::to_string(state.range(1)) + "MB";
    g_verdicts.push_back({name, dSeconds});
    Record("hostile." + name, dSeconds);
}

void HostileArgs(benchmark::internal::Benchmark *b)
{
    for (int i = 0; i < static_cast<int>(sizeof kClasses / sizeof kClasses[0]); ++i)
        for (int nMB : {1, 4, 16})
            b->Args({i, nMB});
}

} // namespace

BENCHMARK(BM_Hostile)
    ->Apply(HostileArgs)
    ->ArgNames({"class", "MB"})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    QuietHost();
    g_pSession = std::make_unique<ServiceSession>();
    g_pSession->Restart();
    const int nStatus = RunBenchmarks(argc, argv);
    g_pSession.reset();

    std::printf("\nhostile texts: time one event holds the engine thread (goal: under %.0f s)\n", kGoalSeconds);
    int nOver = 0;
    for (const auto &v : g_verdicts) {
        const bool bUnder = v.dSeconds < kGoalSeconds;
        nOver += !bUnder;
        std::printf("  %-40s %9.3f s  %s\n", v.name.c_str(), v.dSeconds, bUnder ? "under" : "OVER");
    }
    std::printf("  %d of %zu over the goal\n", nOver, g_verdicts.size());
    return nStatus;
}
