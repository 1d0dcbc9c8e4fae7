// hosttv: the operations on the host TV of this build tree, for every front end
// (the lumora-tv command line, a web page). Each one reads or changes the TV
// root's shared state, or asks the running service through its control socket,
// and returns what it found. Nothing here prints; a failure is an Error whose
// text says what failed and why, for the person who asked, and whose remedy
// says what they can do, which each front end phrases its own way.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string_view>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "proc/process.h"
#include "tvhost/apps.h"
#include "tvhost/notifications.h"
#include "tvhost/parse.h"
#include "tvhost/service.h"
#include "tvlog/tvlog.h"

namespace hosttv {

class Error : public std::runtime_error {
public:
    enum class Kind {
        kBadRequest, // what was asked for does not exist or is malformed (an unknown key, scenario, number)
        kCannot,     // a sound request the host TV cannot do now (no service, engine not started, ...)
    };
    // What the person can do about it.
    enum class Remedy {
        kNone,
        kStartService,  // no service runs: start one
        kStopService,   // a service runs (or is starting): stop it first
        kInstallWidget, // the widget is not installed
        kWaitLonger,    // the engine is busy: wait longer for its answer
        kForce,         // a value the service would ignore: write it anyway (subject: the key)
        kKill,          // the service did not end on SIGTERM: kill it (subject: its pid)
        kFixOwner,      // the TV root is not writable: take it back (subject: the root)
    };
    Error(Kind kind, const std::string &text, Remedy remedy = Remedy::kNone, std::string subject = "")
        : std::runtime_error(text), m_kind(kind), m_remedy(remedy), m_subject(std::move(subject))
    {}
    Kind kind() const { return m_kind; }
    Remedy remedy() const { return m_remedy; }
    const std::string &subject() const { return m_subject; }

private:
    Kind m_kind;
    Remedy m_remedy;
    std::string m_subject;
};

using tvhost::service::kAppChangeKey; // bumped whenever an application is installed or removed
using tvhost::service::kLanguageKey;  // the TV's display language
using tvhost::service::kWidgetApp;    // the companion widget
extern const char kFreshLanguage[];   // the language of a fresh host TV
extern const char kNotRunning[];      // the text of the Error when no service runs

// Reads a whole decimal number given for what (e.g. "ITEM"); a bad request otherwise.
int ReadNumber(const std::string &text, const std::string &what);

// ---- the service: run, reset, status, power ---------------------------------

// The running service's process id; 0 when none runs, or while a front end
// is starting one and its pid is not known yet.
int ServicePid();
// Whether a front end (run, web, replay) holds the run lock: it is starting
// the service or the service it started runs.
bool ServiceStarting();

// Whether the engine inside the running service takes events.
bool EngineAnswers();

// The scenarios shipped with the engine (names without .xml), sorted.
std::vector<std::string> Scenarios();
// What a shipped scenario makes the engine do, for a person.
std::string ScenarioText(const std::string &name);
// The scenario a plain `run` plays.
extern const char kDefaultScenario[];

struct RunPlan {
    std::string binary;    // the service to start
    std::string scenario;  // what the engine plays: a shipped name, or a file QORV_SIM_MODE names
    std::string why;       // why that one, for a person
    std::string modeFile;  // where the shipped scenario was copied for the engine
    proc::Environment env; // the service's whole environment
    proc::Fd lock;         // the run lock, held until the service holds it
};
// Gets the TV root ready for a run: takes the run lock (one service per host
// TV: refused while one runs) and refuses when the service is not built; puts
// scenario (kDefaultScenario when empty, unless QORV_SIM_MODE names a file) in
// place as the engine's mode.xml, and forgets earlier power-offs. Begins the
// service's log afresh (the previous run's kept as LogPath() + ".1") and names
// it in plan.env's TVHOST_LOG_FILE. Nothing is left held when it fails.
RunPlan PrepareRun(const std::string &scenario);
// "the engine plays scenario "NAME" (why): what it does", for a person.
std::string PlanText(const RunPlan &plan);
// Starts the service of plan as a child of this process, with plan.env and
// the descriptors given (child's number, this process's descriptor; 0-2 are
// inherited unless given). The run lock passes to the child and names it once
// it runs; a start that fails leaves no lock and no child.
proc::Child StartService(RunPlan &&plan, const std::vector<std::pair<int, int>> &fds = {});
// How a service StartService started ended, from its wait status, for a
// person: switched the TV off, an exit status, a crash or a kill; empty for a
// clean end.
std::string EndText(int waitStatus);

// The service a long-lived front end (the web page's server) starts and owns:
// one at a time, reaped when it ends, stopped when asked and when this goes.
// Safe to use from several threads. What happens is told to events, on the
// thread that made it happen.
class OwnedService {
public:
    struct Events {
        std::function<void(const RunPlan &plan)> prepared;               // before the start
        std::function<void(int pid, const std::string &binary)> started; // after it
        std::function<void()> stopping;                                  // a stop was asked of a running one
        std::function<void(int pid, const std::string &endText)> ended;  // reaped; endText: EndText's, or empty
    };
    explicit OwnedService(Events events) : m_events(std::move(events)) {}
    ~OwnedService() { Stop(false); }
    OwnedService(const OwnedService &) = delete;
    OwnedService &operator=(const OwnedService &) = delete;

    // PrepareRun and StartService; its pid. Refused like them.
    int Start(const std::string &scenario);
    // Reaps it if it ended.
    void Reap();
    // Ends it if it runs: SIGTERM unless bSignalled (the terminal's Ctrl-C
    // reached it already), SIGKILL after 20 s; then reaps it.
    void Stop(bool bSignalled);

private:
    void Ended();

    Events m_events;
    std::mutex m_mutex;
    proc::Child m_service;
};

// The fresh host TV: widget installed and closed, language kFreshLanguage,
// Ethernet, no data folder, TV on. Refused while the service runs.
void Reset();

// Asks the running service to end (SIGTERM) and waits up to wait for it;
// its pid. Only a service that a front end started (its pid read whole from
// the held run lock) is signalled; signalled(pid) is told once it was.
// Refused when none runs, when it holds no lock, or when it does not end in
// time.
int StopService(std::chrono::seconds wait, const std::function<void(int pid)> &signalled = nullptr);

struct Power {
    bool bOff = false;
    int kind = 0; // the argument of the last power-off request when bOff
};
// Whether the TV was switched off since the last run or reset.
Power PowerState();

using tvlog::WidgetState;

struct Status {
    int servicePid = 0;
    bool bStarting = false;               // a front end is starting the service, whose pid is not known yet
    std::optional<size_t> popupsOnScreen; // when the running service told
    bool bEngineStarted = false;
    WidgetState widget;
    std::string network;
    std::optional<std::string> language;
    Power power;
    std::string root;
};
Status ReadStatus();

// ---- texts as the host TV shows them ------------------------------------------

// The TV root of this build tree.
std::string Root();
// A text as the host TV's terminal shows it: controls and bidirectional
// characters escaped, every further line marked.
std::string ForTerminal(std::string_view text);
// A pop-up as the host TV's screen draws it: texts cut, controls dropped.
tvhost::notifications::Record AsDrawn(const tvhost::notifications::Record &record);
// The one number reader (tvhost/parse.h).
using tvhost::ParseInt;
using tvhost::ParseReal;

// ---- the service's log ------------------------------------------------------
// The log a service started by `lumora-tv run` keeps in the TV root.
std::string LogPath();
struct LogLine {
    std::string stamp; // "MM-DD hh:mm:ss.mmm"
    char level = 'D';  // V D I W E F
    int pid = 0;
    int tid = 0;
    std::string tag;
    std::string text; // continuation lines joined with '\n'
};
// Whether a record of level passes a filter of minimum level minLevel (V < D < I < W < E < F).
bool LevelAtLeast(char level, char minLevel);
// Reads the whole records that begin at or after byte offset `from` of the log, at most max of
// them. Returns the offset to ask from next. When the log is shorter than `from` (a new run
// started it afresh), reading restarts at 0 and bRestarted is set. No log yet: nothing, offset 0.
struct LogChunk {
    std::vector<LogLine> lines;
    uint64_t next = 0;
    bool bRestarted = false;
};
LogChunk ReadLog(uint64_t from, size_t max = 1000);

// ---- settings ---------------------------------------------------------------

struct SettingKey {
    const char *name;
    bool bNumber;
    const char *what; // its type and meaning, for a person
    // The values the service acts on; nullptr: any. A value it would ignore
    // is refused unless forced.
    bool (*accepts)(const std::string &value);
    const char *form; // what accepts wants, for a person
};
const std::vector<SettingKey> &SettingKeys();
// The known key called name; a bad request naming every known key otherwise.
const SettingKey &FindSettingKey(const std::string &name);
// The key's value as text; nothing when it is not set.
std::optional<std::string> GetSetting(const SettingKey &key);
// Writes the key (a number key takes a whole decimal number) and tells the
// running service. A value the key does not accept is refused unless bForce.
void SetSetting(const SettingKey &key, const std::string &value, bool bForce = false);

// A language the service has texts for.
struct Language {
    std::string catalogue; // the catalogue's name in the TV root: "ko"
    std::string value;     // the kLanguageKey value that selects it: "ko_KR.UTF-8"
};
// The languages whose message catalogues the TV root ships, by catalogue name.
std::vector<Language> Languages();

// ---- the widget and the network ---------------------------------------------

WidgetState Widget();
struct WidgetChange {
    bool bChanged = false;
    WidgetState state;
    int appChange = 0; // memory/was/app_change afterwards
};
// Installing or removing the widget bumps memory/was/app_change, as the TV does.
WidgetChange InstallWidget(bool bInstall);
// Launching needs the widget installed.
WidgetState LaunchWidget();
WidgetState CloseWidget();

// The network type the TV reports: "wifi", "ethernet" or "none".
std::string Network();
// name: "wifi", "ethernet", "none", or "auto" to follow this machine's default
// route again. Returns the type the TV reports afterwards.
std::string SetNetwork(const std::string &name);

// ---- pop-ups and the engine -------------------------------------------------

// The pop-ups on screen in the running service, in item order.
std::vector<tvhost::notifications::Record> Popups();
// One of them; refused, naming those on screen, when it is not there.
tvhost::notifications::Record Popup(int item);

struct Press {
    std::optional<std::string> label;           // of the pressed button, when it was on screen
    std::vector<tvhost::apps::Launch> launches; // what the service's callback launched
};
// Presses button (0 = leftmost) of pop-up item and waits for the service's callback.
Press PressButton(int item, int button);
void TimeOut(int item);

// How long RaiseEvent waits for the engine's answer unless told: longer than
// one event takes on a desk, short enough for a person waiting.
constexpr std::chrono::seconds kEventAnswerWait{10};
// The longest text the engine takes for one event.
extern const size_t kMaxEventText;
// Raises engine event number with param as its first parameter and waits up to
// answerWait for the service's answer, which it returns.
int RaiseEvent(int number, const std::string &param, std::chrono::seconds answerWait = kEventAnswerWait);

// The events the service acts on, each with a sample text shipped in the TV
// root and what it makes the service do.
using tvhost::service::EventKind;
using tvhost::service::FindEventKind;
inline const auto &EventKinds()
{
    return tvhost::service::kEventKinds;
}
// The path of the shipped sample text called name (with or without .xml);
// empty when there is none.
std::string EventSample(const std::string &name);
// The text of that sample; a bad request naming the samples when there is none.
std::string EventSampleText(const std::string &name);

// What the host TV saw after an event.
struct EventOutcome {
    int answer = 0;                                   // the service's answer
    std::vector<tvhost::notifications::Record> shown; // pop-ups that appeared
    std::optional<int> powerOff;                      // the kind, when the TV was switched off
    bool bServiceEnded = false;
};
// Raises the event like RaiseEvent, then watches the screen and the power for
// up to wait for what the event's kind makes the service do.
EventOutcome SendEvent(int number, const std::string &param, std::chrono::milliseconds wait,
                       std::chrono::seconds answerWait = kEventAnswerWait);

} // namespace hosttv

namespace hosttv {

// ---- for scripts and the browser: the answers as JSON (one line, no spaces) ----

std::string JsonString(const std::string &text);
std::string Json(const Status &status);
std::string Json(const Power &power);
// {"key":"value" or null, ...} of the keys given.
std::string Json(const std::vector<const SettingKey *> &keys);
std::string Json(const std::vector<tvhost::notifications::Record> &records);

} // namespace hosttv
