// The cost of one engine event through the binding's trampoline, as the
// engine's thread pays it, beside libxml2 alone reading the same document
// (measured in between, see RaiseEventsBesideLibxml2), and the cost of one
// log line while the platform log is switched off.
#include <benchmark/benchmark.h>

#include <memory>

#include "BenchResults.h"
#include "EngineDocuments.h"
#include "ExtLog.h"
#include "ServiceSession.h"

using namespace lumorabench;

namespace {

// Events 1 and 5 keep a notification each and 12290 its document, so a run
// has a fixed number of events (see ServiceSession::kEventsPerManager).
constexpr benchmark::IterationCount kDispatchIterations = 20000;
constexpr int kRepetitions = 5;

std::unique_ptr<ServiceSession> g_pSession;

void BM_Dispatch(benchmark::State &state)
{
    const EngineEvent &event = EngineEventOf(static_cast<int>(state.range(0)));
    g_pSession->Reserve(static_cast<std::size_t>(state.max_iterations));
    SetLogging(state.range(1) != 0);
    RaiseEventsBesideLibxml2(state, event);
    SetLogging(false);
}

// The dispatcher's own first line, with a document as its argument.
void BM_LogCall(benchmark::State &state)
{
    const std::string &strDoc = EngineEventOf(5).strParam1;
    SetLogging(state.range(0) != 0);
    int nEvent = 5;
    for (auto _ : state) {
        benchmark::DoNotOptimize(nEvent);
        LUMORA_LOG(EXT_LOG_DEBUG, "Enter LumoraManager::OnQorvEvent, event type is %d, strParam1 = %s, strParam2 = %s",
                   nEvent, strDoc.c_str(), "");
    }
    SetLogging(false);
}

void DispatchArgs(benchmark::internal::Benchmark *b)
{
    for (const auto &e : EngineEvents())
        for (int nLog : {0, 1})
            b->Args({e.nEvent, nLog});
}

} // namespace

BENCHMARK(BM_Dispatch)
    ->Apply(DispatchArgs)
    ->ArgNames({"event", "log"})
    ->Iterations(kDispatchIterations)
    ->Repetitions(kRepetitions)
    ->DisplayAggregatesOnly(true);
BENCHMARK(BM_LogCall)->Arg(0)->Arg(1)->ArgNames({"log"})->Repetitions(kRepetitions)->DisplayAggregatesOnly(true);

int main(int argc, char **argv)
{
    QuietHost();
    EngineEvents(); // read the scenario before anything is timed
    g_pSession.reset(new ServiceSession);
    int nStatus = RunBenchmarks(argc, argv);
    g_pSession.reset();
    return nStatus;
}
