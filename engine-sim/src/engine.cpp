#include "engine.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "documents.h"
#include "inject_server.h"
#include "mode.h"
#include "trace.h"

namespace qorvsim {

using Clock = std::chrono::steady_clock;

namespace {
// Steps played between two looks at requests, the socket and a stop: a
// storm must not hold those up.
constexpr int kStepsPerTurn = 256;
} // namespace

// The engine thread's own state: the home as the scenario changes it and
// where the scenario is. Only the engine thread touches it.
class Session {
public:
    Session(Engine &engine, Mode mode, Clock::time_point start, double dSpeed)
        : m_engine(engine), m_home(std::move(mode.home)), m_vctCues(std::move(mode.vctScenario)), m_start(start),
          m_dSpeed(dSpeed)
    {}

    // Plays the steps that are due, at most nBudget of them. Returns how long
    // poll may wait for the next one: milliseconds, or -1 for as long as it
    // takes (no step left, or no callback to give it to).
    int PlayDue(int nBudget)
    {
        for (int nPlayed = 0; m_nCue < m_vctCues.size(); ++nPlayed) {
            const Cue &cue = m_vctCues[m_nCue];
            double dMs = static_cast<double>(cue.nMs + m_nRep * cue.nEveryMs) / m_dSpeed;
            Clock::time_point due = m_start + std::chrono::microseconds(static_cast<long long>(dMs * 1000));
            Clock::time_point now = Clock::now();
            if (now < due)
                return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(due - now).count());
            if (!m_engine.HasCallback()) {
                if (!m_bToldWaiting)
                    Trace("the step of line %d is due; waiting for a callback", cue.vctSteps[m_nStep].nLine);
                m_bToldWaiting = true;
                return -1;
            }
            m_bToldWaiting = false;
            if (nPlayed >= nBudget)
                return 0;
            bool bRepeated = cue.nRepeat > 1;
            if (bRepeated && m_nRep == 0 && m_nStep == 0) {
                Trace("line %d: %zu steps, %ld times%s", cue.nLine, cue.vctSteps.size(), cue.nRepeat,
                      cue.nEveryMs ? (", every " + std::to_string(cue.nEveryMs) + " ms").c_str() : " back to back");
                m_groupStart = now;
            }
            Play(cue.vctSteps[m_nStep], !bRepeated);
            if (++m_nStep < cue.vctSteps.size())
                continue;
            m_nStep = 0;
            if (++m_nRep < cue.nRepeat)
                continue;
            if (bRepeated) {
                double seconds = std::chrono::duration<double>(Clock::now() - m_groupStart).count();
                Trace("line %d: %ld events played in %.3f s", cue.nLine,
                      cue.nRepeat * static_cast<long>(cue.vctSteps.size()), seconds);
            }
            m_nRep = 0;
            ++m_nCue;
        }
        return -1;
    }

    void ReportRegistered(const char *pWhy, bool bTrace = true)
    {
        Raise(kEventRegisteredDevices, RegisteredDeviceList(m_home.vctRegistered), "", bTrace, [&] {
            return std::string(pWhy) + ": " + std::to_string(m_home.vctRegistered.size()) + " registered devices";
        });
    }

    int Raise(int nEvent, const std::string &strParam1, const std::string &strParam2, bool bTrace,
              const std::function<std::string()> &what)
    {
        int nResult = m_engine.Deliver(nEvent, strParam1.c_str(), strParam2.c_str());
        if (bTrace)
            Trace("event %d (%s) -> %d", nEvent, what().c_str(), nResult);
        return nResult;
    }

private:
    Device *Find(std::vector<Device> &vctDevices, const std::string &strID)
    {
        for (Device &d : vctDevices)
            if (d.strID == strID)
                return &d;
        return nullptr;
    }

    std::vector<const Device *> NewDevices(const Step &step, bool bTrace)
    {
        std::vector<const Device *> vctFound;
        if (step.bAllIDs) {
            for (const Device &d : m_home.vctNew)
                vctFound.push_back(&d);
            return vctFound;
        }
        for (const std::string &id : step.vctIDs) {
            if (const Device *d = Find(m_home.vctNew, id))
                vctFound.push_back(d);
            else if (bTrace)
                Trace("line %d: \"%s\" is no longer a new device", step.nLine, id.c_str());
        }
        return vctFound;
    }

    void Play(const Step &step, bool bTrace)
    {
        switch (step.kind) {
        case StepKind::RegisteredDevices: ReportRegistered("registered devices", bTrace); break;
        case StepKind::Refresh: ReportRegistered("refresh", bTrace); break;
        case StepKind::NewDevices: {
            std::vector<const Device *> vctFound = NewDevices(step, bTrace);
            if (vctFound.empty()) {
                if (bTrace)
                    Trace("line %d: no new device to report", step.nLine);
                break;
            }
            Raise(kEventNewDevices, NewDeviceList(vctFound), "", bTrace, [&] {
                std::string s = "new devices:";
                for (const Device *d : vctFound)
                    s += " " + d->strID;
                return s;
            });
            break;
        }
        case StepKind::Register: {
            std::vector<std::string> vctIDs;
            for (const Device *d : NewDevices(step, bTrace))
                vctIDs.push_back(d->strID);
            for (const std::string &id : vctIDs) {
                for (auto it = m_home.vctNew.begin(); it != m_home.vctNew.end(); ++it) {
                    if (it->strID == id) {
                        m_home.vctRegistered.push_back(*it);
                        m_home.vctNew.erase(it);
                        break;
                    }
                }
            }
            ReportRegistered(("registered " + std::to_string(vctIDs.size()) + " new devices").c_str(), bTrace);
            break;
        }
        case StepKind::Connect:
        case StepKind::Disconnect: {
            Device *d = Find(m_home.vctRegistered, step.strDevice);
            if (!d) {
                if (bTrace)
                    Trace("line %d: \"%s\" is not registered", step.nLine, step.strDevice.c_str());
                break;
            }
            d->strStatus = step.kind == StepKind::Connect ? "Connected" : "Disconnected";
            ReportRegistered((step.strDevice + " " + d->strStatus).c_str(), bTrace);
            break;
        }
        case StepKind::Notify: {
            const Device *d = Find(m_home.vctRegistered, step.strDevice);
            if (!d)
                d = Find(m_home.vctNew, step.strDevice);
            if (!d)
                break; // the loader only lets known devices through
            Notification noti;
            noti.strID = step.strNotiID.empty() ? "n" + std::to_string(m_nNextNotification) : step.strNotiID;
            ++m_nNextNotification;
            noti.strType = step.strNotiType;
            noti.strText = ChooseText(step.vctTexts, m_engine.Language());
            noti.strAction = step.strAction;
            noti.strFlag = step.strFlag;
            noti.strCondition = step.strCondition;
            Raise(kEventDeviceNotification, DeviceNotification(noti, *d), "", bTrace,
                  [&] { return "notification " + noti.strID + " of " + d->strID + ": \"" + noti.strText + "\""; });
            break;
        }
        case StepKind::MasterKeys:
            Raise(kEventMasterKeys, MasterKeyList(m_home.vctMasterKeys), "", bTrace,
                  [&] { return std::to_string(m_home.vctMasterKeys.size()) + " master keys"; });
            break;
        case StepKind::PowerOff: Raise(kEventPowerOff, "", "", bTrace, [] { return std::string("power off"); }); break;
        case StepKind::Raw:
            Raise(step.nEvent, step.strParam1, step.strParam2, bTrace,
                  [&] { return "raw, " + std::to_string(step.strParam1.size()) + " bytes"; });
            break;
        }
    }

    Engine &m_engine;
    Home m_home;
    std::vector<Cue> m_vctCues;
    Clock::time_point m_start;
    double m_dSpeed;
    size_t m_nCue = 0;
    long m_nRep = 0;
    size_t m_nStep = 0;
    bool m_bToldWaiting = false;
    Clock::time_point m_groupStart;
    long m_nNextNotification = 1;
};

Engine::~Engine()
{
    if (OnEngineThread()) {
        // The process ends from inside a callback; the thread cannot join itself.
        m_thread.detach();
        return;
    }
    Stop();
}

bool Engine::OnEngineThread() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_threadID == std::this_thread::get_id();
}

void Engine::WakeLocked()
{
    if (m_nWakeFd < 0)
        return;
    uint64_t one = 1;
    (void)!write(m_nWakeFd, &one, sizeof one);
}

bool Engine::Start(const StartOptions &options)
{
    if (OnEngineThread())
        return true;
    std::lock_guard<std::mutex> control(m_controlMutex);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_bRunning && !m_bStopping) {
            Trace("already running");
            return true;
        }
    }
    if (m_thread.joinable()) {
        // It was stopped from its own thread and could not be joined there.
        m_thread.join();
        std::lock_guard<std::mutex> lock(m_mutex);
        close(m_nWakeFd);
        m_nWakeFd = -1;
    }
    int nWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (nWakeFd < 0) {
        Trace("cannot start: eventfd: %s", strerror(errno));
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bRunning = true;
        m_bStopping = false;
        m_nWakeFd = nWakeFd;
    }
    MarkStart();
    Trace("started, mode file %s", options.strModePath.c_str());
    m_thread = std::thread(&Engine::Run, this, options, nWakeFd);
    return true;
}

void Engine::Stop()
{
    if (OnEngineThread()) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bStopping = true;
        WakeLocked();
        return;
    }
    std::lock_guard<std::mutex> control(m_controlMutex);
    if (!m_thread.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bStopping = true;
        WakeLocked();
    }
    m_thread.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    close(m_nWakeFd);
    m_nWakeFd = -1;
}

bool Engine::Running() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bRunning && !m_bStopping;
}

void Engine::SetCallback(EventCallback pfnCallback)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pfnCallback = pfnCallback;
    WakeLocked(); // steps may be waiting for it
}

bool Engine::HasCallback() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_pfnCallback != nullptr;
}

void Engine::SetLanguage(const std::string &strLanguage)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_strLanguage = strLanguage;
}

std::string Engine::Language() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_strLanguage;
}

bool Engine::RequestRefresh()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_bRunning || m_bStopping)
        return false;
    Request request;
    request.bRefresh = true;
    m_requests.push_back(std::move(request));
    WakeLocked();
    return true;
}

std::future<std::optional<int>> Engine::QueueLocked(Request request)
{
    if (!m_bRunning || m_bStopping)
        return {};
    request.pAnswer = std::make_shared<std::promise<std::optional<int>>>();
    std::future<std::optional<int>> answer = request.pAnswer->get_future();
    m_requests.push_back(std::move(request));
    WakeLocked();
    return answer;
}

int Engine::Emit(int nEvent, const char *pParam1, const char *pParam2)
{
    std::future<std::optional<int>> answer;
    bool bHere = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_pfnCallback)
            return -2;
        bHere = m_threadID == std::this_thread::get_id();
        if (!bHere) {
            Request request;
            request.nEvent = nEvent;
            request.bNull1 = pParam1 == nullptr;
            request.bNull2 = pParam2 == nullptr;
            request.strParam1 = pParam1 ? pParam1 : "";
            request.strParam2 = pParam2 ? pParam2 : "";
            answer = QueueLocked(std::move(request));
        }
    }
    if (answer.valid())
        return answer.get().value_or(-2);
    if (bHere)
        return Deliver(nEvent, pParam1, pParam2); // raised from inside a callback
    // Not started: a thread for this one event, still never the caller's.
    int nResult = -2;
    std::thread once([&] { nResult = Deliver(nEvent, pParam1, pParam2); });
    once.join();
    return nResult;
}

std::optional<int> Engine::RaiseFromSocket(int nEvent, const std::string &strParam1, const std::string &strParam2)
{
    std::future<std::optional<int>> answer;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Request request;
        request.bFromSocket = true;
        request.nEvent = nEvent;
        request.strParam1 = strParam1;
        request.strParam2 = strParam2;
        answer = QueueLocked(std::move(request));
    }
    if (!answer.valid())
        return std::nullopt;
    return answer.get();
}

int Engine::Deliver(int nEvent, const char *pParam1, const char *pParam2)
{
    EventCallback pfnCallback;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        pfnCallback = m_pfnCallback;
    }
    if (!pfnCallback)
        return -2;
    return pfnCallback(nEvent, pParam1, pParam2);
}

void Engine::Count(const char *pEntry)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_calls[pEntry];
}

int Engine::Calls(const char *pEntry) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_calls.find(pEntry ? pEntry : "");
    return it == m_calls.end() ? 0 : it->second;
}

void Engine::SetLastCommand(const std::string &strCommand)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_strLastCommand = strCommand;
}

std::string Engine::LastCommand() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_strLastCommand;
}

void Engine::Reset()
{
    Stop();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.clear();
    m_strLastCommand.clear();
    m_pfnCallback = nullptr;
    m_strLanguage = "en";
}

void Engine::Run(StartOptions options, int nWakeFd)
{
    Clock::time_point start = Clock::now();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_threadID = std::this_thread::get_id();
    }
    Mode mode = LoadMode(options.strModePath, [](const std::string &s) { Trace("%s", s.c_str()); });
    size_t nSteps = 0;
    for (const Cue &cue : mode.vctScenario)
        nSteps += cue.vctSteps.size() * static_cast<size_t>(cue.nRepeat);
    Trace("%s: %zu registered and %zu new devices, %zu master keys; %zu scenario steps%s",
          mode.strName.empty() ? "home" : ("mode \"" + mode.strName + "\"").c_str(), mode.home.vctRegistered.size(),
          mode.home.vctNew.size(), mode.home.vctMasterKeys.size(), nSteps,
          mode.vctScenario.empty() ? ""
                                   : (", the last at " + std::to_string(mode.vctScenario.back().nMs) + " ms").c_str());

    if (options.dSpeed != 1.0)
        Trace("scenario time runs %g times as fast", options.dSpeed);
    Session session(*this, std::move(mode), start, options.dSpeed);
    InjectServer server;
    server.Open(options.strSocketPath, [this](int nEvent, const std::string &strParam1, const std::string &strParam2) {
        return RaiseFromSocket(nEvent, strParam1, strParam2);
    });

    for (;;) {
        std::deque<Request> requests;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_bStopping)
                break;
            requests.swap(m_requests);
        }
        for (Request &request : requests) {
            if (request.bRefresh) {
                if (HasCallback())
                    session.ReportRegistered("refresh");
                else
                    Trace("refresh: no callback registered, nothing reported");
                continue;
            }
            if (request.bFromSocket) {
                request.pAnswer->set_value(session.Raise(request.nEvent, request.strParam1, request.strParam2, true,
                                                         [] { return std::string("from the socket"); }));
                continue;
            }
            int nResult = Deliver(request.nEvent, request.bNull1 ? nullptr : request.strParam1.c_str(),
                                  request.bNull2 ? nullptr : request.strParam2.c_str());
            Trace("event %d (raised in process) -> %d", request.nEvent, nResult);
            request.pAnswer->set_value(nResult);
        }
        int nTimeout = session.PlayDue(kStepsPerTurn);

        pollfd wake{nWakeFd, POLLIN, 0};
        int n = poll(&wake, 1, nTimeout);
        if (n < 0 && errno != EINTR) {
            Trace("poll: %s; stopping", strerror(errno));
            break;
        }
        if (n > 0 && (wake.revents & POLLIN)) {
            uint64_t count;
            (void)!read(nWakeFd, &count, sizeof count);
        }
    }

    std::deque<Request> left;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        left.swap(m_requests);
        m_bRunning = false;
        m_threadID = std::thread::id();
    }
    for (Request &request : left)
        if (request.pAnswer)
            request.pAnswer->set_value(std::nullopt);
    // Its connections' requests are answered above, and no new one is queued
    // now: nothing holds the socket's threads up.
    server.Close();
    Trace("stopped");
}

} // namespace qorvsim
