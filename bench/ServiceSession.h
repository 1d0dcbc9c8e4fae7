// The service's manager on the host TV as it runs on a TV: the widget is
// installed, the manager constructed, the engine started by the main loop (3 s
// after the widget is found) and the manager registered as the engine's
// callback object. Events can then be raised through the binding's trampoline
// from any thread.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <memory>

class EngineSim;

namespace lumorabench {

class ServiceSession {
public:
    // How many events one manager takes before it is made anew: the presenter
    // keeps an action item per notification and the master-key parser its
    // document, so memory grows with every event of those kinds.
    static constexpr std::size_t kEventsPerManager = 100000;

    ServiceSession();
    ~ServiceSession();

    // Makes sure the manager can take nEvents more events within its budget,
    // making a fresh one (about 3 s) when not.
    void Reserve(std::size_t nEvents);
    // A fresh manager, whatever the budget.
    void Restart();

    static int Raise(int nEvent, const char *pParam1, const char *pParam2);

private:
    void Start();
    void Stop();

    std::unique_ptr<EngineSim> m_pSim;
    bool m_bStarted = false;
    std::size_t m_nEvents = 0;
};

struct EngineEvent;

// Google Benchmark's loop over one event raised through the trampoline, with
// libxml2 alone parsing and freeing the same text after every block of
// events (outside the benchmark's clock), so that both meet the same machine:
// other builds share the cores and the caches, and a ratio of runs made
// minutes apart would measure them. Sets the counters dispatch_ns and
// libxml2_ns (CPU time of this thread per event and per parse) and ratio.
void RaiseEventsBesideLibxml2(benchmark::State &state, const EngineEvent &event);

// The host platform's switches as the benchmarks use them: nothing drawn,
// nothing echoed or kept of the log; the log itself on or off.
void QuietHost();
void SetLogging(bool bOn);

} // namespace lumorabench
