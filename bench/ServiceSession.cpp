#include "ServiceSession.h"

#include <libxml/parser.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "EngineDocuments.h"
#include "EngineSim.h"
#include "LumoraQorvHelper.h"
#include "ManagerFixture.h"
#include "tvhost/apps.h"
#include "tvhost/log.h"
#include "tvhost/mainloop.h"
#include "tvhost/network.h"
#include "tvhost/notifications.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

namespace lumorabench {

void QuietHost()
{
    tvhost::log::SetEcho(false);
    tvhost::log::SetCapture(false);
    tvhost::log::SetEnabled(false);
    tvhost::notifications::DrawTo(nullptr);
}

void SetLogging(bool bOn)
{
    tvhost::log::SetEcho(false);
    tvhost::log::SetCapture(false);
    tvhost::log::SetEnabled(bOn);
}

ServiceSession::ServiceSession()
{
    // The data folder's commands need the TV's own tools (chsmack, the
    // app-user mapping) first on PATH, as on the TV; bench/run puts them there.
    const char *pPath = std::getenv("PATH");
    const std::string tools = tvhost::Root() + "/usr/bin:";
    if (!pPath || std::string(pPath).compare(0, tools.size(), tools) != 0)
        std::fprintf(stderr,
                     "bench: %s is not first on PATH, so the data folder cannot be prepared; run the "
                     "benchmarks through bench/run (make bench)\n",
                     tools.substr(0, tools.size() - 1).c_str());
    QuietHost();
}

ServiceSession::~ServiceSession()
{
    if (m_bStarted)
        Stop();
}

void ServiceSession::Reserve(std::size_t nEvents)
{
    if (!m_bStarted || m_nEvents + nEvents > kEventsPerManager)
        Restart();
    m_nEvents += nEvents;
}

void ServiceSession::Restart()
{
    if (m_bStarted)
        Stop();
    Start();
}

// As the manager suites set the TV up, then the widget installed.
void ServiceSession::Start()
{
    SetLogging(false);
    tvhost::mainloop::Attach();
    tvhost::apps::SetInstalled(kWidgetApp, false);
    tvhost::apps::SetRunning(kWidgetApp, false);
    tvhost::network::SetType(3);
    tvhost::settings::SetString(kLanguageKey, "en_US.UTF-8");
    m_pSim.reset(new EngineSim);
    tvhost::Reset();
    tvhost::notifications::DrawTo(nullptr);

    tvhost::apps::SetInstalled(kWidgetApp, true);
    if (LumoraManagerTestPeer::Get().Construct() != 0) {
        std::fprintf(stderr, "bench: the manager could not be constructed\n");
        std::abort();
    }
    if (!tvhost::mainloop::RunUntil([&] { return m_pSim->Calls("qorv_register_callback") == 1; },
                                    std::chrono::seconds(15))) {
        std::fprintf(stderr, "bench: the engine did not start\n");
        std::abort();
    }
    m_bStarted = true;
    m_nEvents = 0;
}

void ServiceSession::Stop()
{
    SetLogging(false);
    LumoraManagerTestPeer::TearDown();
    m_pSim.reset();
    tvhost::network::ClearOverride();
    tvhost::mainloop::Detach();
    m_bStarted = false;
}

int ServiceSession::Raise(int nEvent, const char *pParam1, const char *pParam2)
{
    return CLumoraQorvHelper::m_OnQorvEvent(nEvent, pParam1, pParam2);
}

namespace {

long long ThreadCpuNs()
{
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

} // namespace

void RaiseEventsBesideLibxml2(benchmark::State &state, const EngineEvent &event)
{
    // Long enough for the clock reads to vanish, short enough to follow the
    // machine's load as it changes.
    constexpr int kBlock = 500;
    const char *pParam1 = event.strParam1.c_str();
    const int nSize = static_cast<int>(event.strParam1.size());
    long long nDispatchNs = 0, nEvents = 0, nParseNs = 0, nParses = 0;
    int nInBlock = 0;
    long long nBlockStart = ThreadCpuNs();
    for (auto _ : state) {
        int nResult = ServiceSession::Raise(event.nEvent, pParam1, "");
        benchmark::DoNotOptimize(nResult);
        if (++nInBlock < kBlock)
            continue;
        state.PauseTiming();
        const long long nParseStart = ThreadCpuNs();
        nDispatchNs += nParseStart - nBlockStart;
        nEvents += nInBlock;
        nInBlock = 0;
        for (int i = 0; i < kBlock; ++i) {
            xmlDocPtr pDoc = xmlParseMemory(pParam1, nSize);
            benchmark::DoNotOptimize(pDoc);
            xmlFreeDoc(pDoc);
        }
        nBlockStart = ThreadCpuNs();
        nParseNs += nBlockStart - nParseStart;
        nParses += kBlock;
        state.ResumeTiming();
    }
    if (nEvents == 0 || nParses == 0) {
        state.SkipWithError("fewer events than one block");
        return;
    }
    const double dDispatch = static_cast<double>(nDispatchNs) / static_cast<double>(nEvents);
    const double dParse = static_cast<double>(nParseNs) / static_cast<double>(nParses);
    state.counters["dispatch_ns"] = dDispatch;
    state.counters["libxml2_ns"] = dParse;
    state.counters["ratio"] = dDispatch / dParse;
    state.SetLabel(event.pName);
}

} // namespace lumorabench
