// The service's manager on the host TV as it runs on a TV: the widget is
// installed, the manager constructed, the engine started by the main loop (3 s
// after the widget is found) and the manager registered as the engine's
// callback object. Events can then be raised through the binding's trampoline
// from any thread.
#pragma once

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

// The host platform's switches as the benchmarks use them: nothing drawn,
// nothing echoed or kept of the log; the log itself on or off.
void QuietHost();
void SetLogging(bool bOn);

} // namespace lumorabench
