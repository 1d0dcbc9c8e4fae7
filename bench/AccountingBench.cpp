// What the platform (tvhost) accounts for when the service handles an engine
// event: the heap kept per event after 100,000 events of one kind, told apart
// into tvhost's part (kept inside the service's calls into it) and the
// service's part (everything else: its own objects and the libxml2 documents
// it holds); the share of an event's time spent inside those calls; and the
// event's cost when those calls answer at once.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

#include "BenchResults.h"
#include "EngineDocuments.h"
#include "PlatformAccounting.h"
#include "ServiceSession.h"

using namespace lumorabench;

namespace {

constexpr benchmark::IterationCount kKeptEvents = 100000;
// First-use allocations (message catalogues, containers' first room) are
// made before the count starts.
constexpr int kWarmUpEvents = 16;
constexpr benchmark::IterationCount kTimedEvents = 20000;
constexpr int kRepetitions = 5;

std::unique_ptr<ServiceSession> g_pSession;

void BM_HeapKept(benchmark::State &state)
{
    using namespace platformacct;
    const EngineEvent &event = EngineEventOf(static_cast<int>(state.range(0)));
    const char *pParam1 = event.strParam1.c_str();
    g_pSession->Restart();
    SetLogging(false);
    for (int i = 0; i < kWarmUpEvents; ++i)
        ServiceSession::Raise(event.nEvent, pParam1, "");

    Track(true);
    const Live before = Tracked();
    const long long nHeapBefore = HeapInUse();
    for (auto _ : state) {
        int nResult = ServiceSession::Raise(event.nEvent, pParam1, "");
        benchmark::DoNotOptimize(nResult);
    }
    const long long nHeapAfter = HeapInUse();
    const Live after = Tracked();
    Track(false);

    const double dEvents = static_cast<double>(state.iterations());
    auto PerEvent = [&](Owner e) { return static_cast<double>(after.bytes[e] - before.bytes[e]) / dEvents; };
    const double dTotal = static_cast<double>(nHeapAfter - nHeapBefore) / dEvents;
    const double dNotification = PerEvent(kAddNotification);
    const double dWas = PerEvent(kWasAppInfo) + PerEvent(kWasAppStatus);
    const double dLog = PerEvent(kDlog);
    const double dTvhost = dNotification + dWas + dLog;
    state.counters["kept_B"] = dTotal;
    state.counters["service_B"] = dTotal - dTvhost;
    state.counters["tvhost_B"] = dTvhost;
    state.counters["tvhost_noti_B"] = dNotification;
    state.counters["tvhost_was_B"] = dWas;
    state.counters["tvhost_log_B"] = dLog;
    state.SetLabel(event.pName);
}

// The dispatch of lumora_bench_dispatch (log off), with the share of its time
// spent inside the platform calls.
void BM_PlatformShare(benchmark::State &state)
{
    const EngineEvent &event = EngineEventOf(static_cast<int>(state.range(0)));
    const char *pParam1 = event.strParam1.c_str();
    g_pSession->Reserve(static_cast<std::size_t>(state.max_iterations));
    SetLogging(false);
    const long long nBefore = platformacct::PlatformNs();
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        int nResult = ServiceSession::Raise(event.nEvent, pParam1, "");
        benchmark::DoNotOptimize(nResult);
    }
    // Both in wall-clock time of the same run, so that a core taken away now
    // and then weighs on both alike.
    const double dLoopNs = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
    const double dPlatformNs = static_cast<double>(platformacct::PlatformNs() - nBefore);
    state.counters["tvhost_share"] = dPlatformNs / dLoopNs;
    state.SetLabel(event.pName);
}

// The same dispatch on a platform whose calls cost nothing: the service's own
// part of an event.
void BM_DispatchPlatformAnswersAtOnce(benchmark::State &state)
{
    const EngineEvent &event = EngineEventOf(static_cast<int>(state.range(0)));
    g_pSession->Reserve(static_cast<std::size_t>(state.max_iterations));
    SetLogging(false);
    platformacct::AnswerAtOnce(true);
    RaiseEventsBesideLibxml2(state, event);
    platformacct::AnswerAtOnce(false);
}

void EventArgs(benchmark::internal::Benchmark *b)
{
    for (const auto &e : EngineEvents())
        b->Args({e.nEvent});
}

} // namespace

BENCHMARK(BM_PlatformShare)
    ->Arg(1)
    ->Arg(5)
    ->ArgNames({"event"})
    ->Iterations(kTimedEvents)
    ->Repetitions(kRepetitions)
    ->DisplayAggregatesOnly(true);
BENCHMARK(BM_DispatchPlatformAnswersAtOnce)
    ->Apply(EventArgs)
    ->ArgNames({"event"})
    ->Iterations(kTimedEvents)
    ->Repetitions(kRepetitions)
    ->DisplayAggregatesOnly(true);
// Last: its 100,000 events of each kind grow the process's heap by hundreds of
// MB, and the timings above came out slower after it (event 1's own work
// 1.43x of libxml2 alone instead of 1.22x).
BENCHMARK(BM_HeapKept)->Apply(EventArgs)->ArgNames({"event"})->Iterations(kKeptEvents)->Unit(benchmark::kMicrosecond);

int main(int argc, char **argv)
{
    QuietHost();
    EngineEvents();
    g_pSession.reset(new ServiceSession);
    int nStatus = RunBenchmarks(argc, argv);
    g_pSession.reset();
    return nStatus;
}
