// The simulated engine: one thread of its own that loads the mode file, plays
// its scenario and answers refresh requests, in-process events and the events
// its injection socket's threads hand it, delivering every event to the
// registered callback in order, never on a caller's thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace qorvsim {

typedef int (*EventCallback)(int nEvent, const char *pParam1, const char *pParam2);

struct StartOptions {
    std::string strModePath;
    std::string strSocketPath;
    double dSpeed = 1.0; // scenario time runs this many times as fast
};

class Engine {
public:
    Engine() = default;
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;
    // Stops and joins the thread, so no event can arrive once the library is gone.
    ~Engine();

    bool Start(const StartOptions &options);
    void Stop();
    bool Running() const;

    void SetCallback(EventCallback pfnCallback);
    bool HasCallback() const;
    void SetLanguage(const std::string &strLanguage);
    std::string Language() const;

    // Queues a report of the registered devices; false when not running.
    bool RequestRefresh();
    // Raises an event on the engine thread and waits for the answer; -2 when
    // no callback is registered or the engine stops first.
    int Emit(int nEvent, const char *pParam1, const char *pParam2);

    void Count(const char *pEntry);
    int Calls(const char *pEntry) const;
    void SetLastCommand(const std::string &strCommand);
    std::string LastCommand() const;
    // Back to the state of a freshly loaded library.
    void Reset();

    // Used by the engine thread.
    int Deliver(int nEvent, const char *pParam1, const char *pParam2);

private:
    struct Request {
        bool bRefresh = false;
        bool bFromSocket = false;
        int nEvent = 0;
        std::string strParam1;
        std::string strParam2;
        bool bNull1 = false;
        bool bNull2 = false;
        // nullopt: the engine stopped before raising it.
        std::shared_ptr<std::promise<std::optional<int>>> pAnswer;
    };

    // Queues a request for the engine thread; an invalid future when the
    // engine does not run.
    std::future<std::optional<int>> QueueLocked(Request request);
    // For the injection socket's connection threads.
    std::optional<int> RaiseFromSocket(int nEvent, const std::string &strParam1, const std::string &strParam2);
    void Run(StartOptions options, int nWakeFd);
    bool OnEngineThread() const;
    void WakeLocked();

    friend class Session;

    std::mutex m_controlMutex; // serialises Start and Stop; held while joining
    std::thread m_thread;      // guarded by m_controlMutex

    mutable std::mutex m_mutex; // everything below
    std::thread::id m_threadID;
    bool m_bRunning = false;
    bool m_bStopping = false;
    int m_nWakeFd = -1;
    std::deque<Request> m_requests;
    EventCallback m_pfnCallback = nullptr;
    std::string m_strLanguage = "en";
    std::map<std::string, int> m_calls;
    std::string m_strLastCommand;
};

} // namespace qorvsim
