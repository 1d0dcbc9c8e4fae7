// tvlog: reads a TV's platform log (as the TV's log tool or the host TV writes
// it, plain or gzip-compressed) and turns one run of the service in it into a
// replay plan: the engine's events, what the TV and the viewer did, and what
// the service made of it. Prints nothing; a problem is an Error whose text is
// meant for the person who gave the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

typedef struct gzFile_s *gzFile;
struct _xmlDoc;

namespace tvlog {

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- files from outside ---------------------------------------------------------

// The most a pipe or the standard input may give, and the largest replay file.
constexpr size_t kMaxPiped = size_t{256} << 20;
// A compressed log refused when so much of it holds no line of the service.
constexpr uint64_t kMaxBeforeService = uint64_t{64} << 20;

// Whether reading path waits on another program: "-" (the standard input) or a pipe.
bool IsPipe(const std::string &path);
// A file named on a command line as one that may be opened more than once:
// the file itself; for "-" and a pipe, a copy of all it gave (at most
// kMaxPiped bytes) in a temporary file, made once and removed when the
// process ends. Throws Error for a device, a socket or a directory.
std::string LocalFile(const std::string &path);

// Parses XML from outside as the service parses an engine's texts: a
// document type or entity declaration stops the parse, and so does a start
// tag of more than 256 attributes (libxml2 checks them pairwise); libxml2's
// limits stay. Null, with why in error (a line and a reason), when refused.
_xmlDoc *ParseUntrusted(const std::string &text, std::string &error);

// Called with the bytes read so far every 16 MiB of a long read (progress for a person).
void SetProgress(void (*progress)(uint64_t bytes));

// ---- the reader --------------------------------------------------------------

enum class Form { kBrief, kTime, kThreadTime };
const char *FormName(Form form);

struct Record {
    size_t line = 0; // of its first line, from 1
    Form form = Form::kBrief;
    char level = 'D';
    std::string tag;
    int pid = 0;
    int tid = 0;               // threadtime only
    std::optional<int64_t> ms; // time and threadtime: since the log's first new year
    bool bBadTime = false;     // its time cannot be (13-45 25:61:00.000): ms is the record's before
    std::string text;          // continuation lines joined with '\n'
};

// The longest line, and record, the reader takes; longer means not a log.
constexpr size_t kMaxLine = size_t{16} << 20;

// Parses one line of a record's start. ms gets the month-day clock in
// milliseconds within a leap year (no year roll-over here).
bool ParseLine(std::string_view line, Record &record);

// Streams the records of one file: memory holds one line and one record,
// whatever the file's size.
class Reader {
public:
    explicit Reader(const std::string &path); // throws Error when it cannot be read
    ~Reader();
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    // The next record of any tag and process; false at the end. Throws Error
    // for damaged gzip data, a line longer than kMaxLine, binary data.
    bool Next(Record &record);
    size_t Lines() const { return m_nLine; }
    size_t StrayLines() const { return m_nStray; } // before any record

private:
    bool ReadLine(std::string &line);

    std::string m_path;
    gzFile m_file = nullptr;
    std::vector<char> m_buffer;
    size_t m_pos = 0;
    size_t m_end = 0;
    bool m_bEof = false;
    size_t m_nLine = 0;
    size_t m_nStray = 0;
    uint64_t m_nBytes = 0;
    bool m_bServiceSeen = false;
    std::optional<Record> m_pending;
    int64_t m_yearOffset = 0;
    std::optional<int64_t> m_lastMs;
};

// ---- sessions: the runs of the service in a log -------------------------------

constexpr char kServiceTag[] = "LUMORA";

struct SessionInfo {
    int pid = 0;
    size_t firstLine = 0;
    size_t lastLine = 0;
    size_t nRecords = 0;
    size_t nEvents = 0;
};
// Every run of the service in the log, in order. Throws Error when the file is
// not a log or holds no line of the service.
std::vector<SessionInfo> ListSessions(const std::string &path);

// ---- the replay plan -----------------------------------------------------------

// The companion widget as the TV (or the host TV) has it.
struct WidgetState {
    bool bInstalled = false;
    bool bRunning = false;
};

struct StartState {
    WidgetState widget{true, false}; // a TV's widget is installed unless its log says otherwise
    std::string language = "en_US.UTF-8";
    std::string network = "ethernet"; // wifi, ethernet, none
};

enum class StepKind { kEvent, kLanguage, kNetwork, kInstall, kUninstall, kLaunch, kClose, kPress };
const char *StepName(StepKind kind);

struct Step {
    StepKind kind = StepKind::kEvent;
    int64_t ms = 0;  // after the engine start (negative: before it)
    size_t line = 0; // in the log
    // kEvent
    int event = 0;
    std::string param1, param2;
    bool bWellFormed = true; // false: the log may have cut it
    // kLanguage (the locale text), kNetwork (wifi, ethernet, none)
    std::string value;
    // kPress
    int item = 0;
    int button = 0; // 1 when the log shows it launched the widget, else 0
};

// What the service made of the session, in order: the differences a replay
// looks for.
struct Outcome {
    enum class Kind { kShown, kNotShown, kLaunch, kPowerOff };
    Kind kind = Kind::kShown;
    std::string popup; // kShown, kNotShown: "device" or "new device"
    int item = 0;      // kShown, kLaunch
    std::string device;
    bool bOk = true; // kLaunch, kPowerOff: the platform accepted it
    size_t line = 0;
};
std::string Describe(const Outcome &outcome);
bool operator==(const Outcome &a, const Outcome &b); // all but the line

struct Plan {
    int pid = 0;
    bool bTimed = false;
    StartState start;
    std::vector<Step> steps; // in the order they happened
    std::vector<Outcome> outcomes;
    std::vector<std::string> notes; // what the plan could not take over
};

struct PlanOptions {
    std::optional<size_t> session; // from 1; the last when not given
    int64_t gapMs = 1000;          // between steps of a log without times
};
// Reads the chosen session of a log into a plan. Throws Error.
Plan PlanFromLog(const std::string &path, const PlanOptions &options);

// Feeds a plan record by record; PlanFromLog's engine, open for tests.
class Planner {
public:
    explicit Planner(int64_t gapMs);
    void Add(const Record &record);
    Plan Finish();

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};

// Whether text is well-formed XML (an empty text counts as well-formed).
bool WellFormed(const std::string &text);
// Whether text is valid UTF-8.
bool ValidUtf8(std::string_view text);

// ---- the replay file ---------------------------------------------------------

// The replay file: the engine's mode file with the events as <Raw> steps, and
// the TV's side and the expected outcomes in <Tv>.
std::string WriteReplayFile(const Plan &plan, const std::string &source);
// Reads a replay file back; throws Error.
Plan ReadReplayFile(const std::string &path);
// Whether the file looks like a replay file rather than a log.
bool IsReplayFile(const std::string &path);

// ---- comparing ------------------------------------------------------------------

struct Difference {
    std::optional<Outcome> logged;
    std::optional<Outcome> replayed;
};
std::vector<Difference> Compare(const std::vector<Outcome> &logged, const std::vector<Outcome> &replayed);

} // namespace tvlog
