// The reader: one line at a time through zlib (which reads plain files as they
// are), records in the three forms of the platform log, continuation lines.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>
#include <zlib.h>

#include "tvhost/log.h"
#include "tvlog/tvlog.h"

namespace tvlog {

namespace {

constexpr size_t kChunk = 1 << 16;
constexpr int64_t kDayMs = 86400000;
// Month starts within a leap year, so that 02-29 has a day of its own.
constexpr int kMonthStart[12] = {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335};

bool IsLevel(char c)
{
    return tvhost::log::kLevelLetters.find(c) != std::string_view::npos;
}

bool Digits(std::string_view s, size_t at, size_t n, int &value)
{
    if (at + n > s.size())
        return false;
    value = 0;
    for (size_t i = at; i < at + n; ++i) {
        if (s[i] < '0' || s[i] > '9')
            return false;
        value = value * 10 + (s[i] - '0');
    }
    return true;
}

// "MM-DD hh:mm:ss.mmm" at the start of s; bBad: it has the form but no
// clock shows such a time.
bool ParseStamp(std::string_view s, int64_t &ms, bool &bBad)
{
    bBad = false;
    int mon, day, h, m, sec, milli;
    if (s.size() < 18 || s[2] != '-' || s[5] != ' ' || s[8] != ':' || s[11] != ':' || s[14] != '.')
        return false;
    if (!Digits(s, 0, 2, mon) || !Digits(s, 3, 2, day) || !Digits(s, 6, 2, h) || !Digits(s, 9, 2, m) ||
        !Digits(s, 12, 2, sec) || !Digits(s, 15, 3, milli))
        return false;
    if (mon < 1 || mon > 12 || day < 1 || day > 31 || h > 23 || m > 59 || sec > 60) {
        bBad = true;
        ms = 0;
        return true;
    }
    ms = (kMonthStart[mon - 1] + day - 1) * kDayMs + ((h * 60 + m) * 60 + sec) * int64_t{1000} + milli;
    return true;
}

std::string_view TrimRight(std::string_view s)
{
    while (!s.empty() && s.back() == ' ')
        s.remove_suffix(1);
    return s;
}

size_t SkipSpaces(std::string_view s, size_t at)
{
    while (at < s.size() && s[at] == ' ')
        ++at;
    return at;
}

// Reads a run of digits at `at`; false without one.
bool Number(std::string_view s, size_t &at, int &value)
{
    size_t start = at;
    int64_t v = 0;
    while (at < s.size() && s[at] >= '0' && s[at] <= '9' && at - start < 10)
        v = v * 10 + (s[at++] - '0');
    if (at == start || v > INT32_MAX)
        return false;
    value = static_cast<int>(v);
    return true;
}

// "L/TAG( PID): text"
bool ParseBrief(std::string_view s, Record &r)
{
    if (s.size() < 6 || !IsLevel(s[0]) || s[1] != '/')
        return false;
    size_t open = s.find('(', 2);
    if (open == std::string_view::npos)
        return false;
    size_t at = SkipSpaces(s, open + 1);
    int pid = 0;
    if (!Number(s, at, pid) || at + 1 >= s.size() || s[at] != ')' || s[at + 1] != ':')
        return false;
    at += 2;
    if (at < s.size() && s[at] == ' ')
        ++at;
    r.level = s[0];
    r.tag = std::string(TrimRight(s.substr(2, open - 2)));
    r.pid = pid;
    r.tid = 0;
    r.text = std::string(s.substr(at));
    return !r.tag.empty();
}

// " PID  TID L TAG  : text" after the stamp.
bool ParseThreadTime(std::string_view s, Record &r)
{
    size_t at = SkipSpaces(s, 0);
    if (at == 0)
        return false;
    int pid = 0, tid = 0;
    if (!Number(s, at, pid))
        return false;
    size_t before = at;
    at = SkipSpaces(s, at);
    if (at == before || !Number(s, at, tid) || at + 3 > s.size() || s[at] != ' ' || !IsLevel(s[at + 1]) ||
        s[at + 2] != ' ')
        return false;
    r.level = s[at + 1];
    at += 3;
    size_t colon = s.find(':', at);
    if (colon == std::string_view::npos)
        return false;
    r.tag = std::string(TrimRight(s.substr(at, colon - at)));
    at = colon + 1;
    if (at < s.size() && s[at] == ' ')
        ++at;
    r.pid = pid;
    r.tid = tid;
    r.text = std::string(s.substr(at));
    return !r.tag.empty() && r.tag.find(' ') == std::string::npos;
}

} // namespace

const char *FormName(Form form)
{
    switch (form) {
    case Form::kBrief: return "brief";
    case Form::kTime: return "time";
    case Form::kThreadTime: return "threadtime";
    }
    return "?";
}

bool ParseLine(std::string_view line, Record &record)
{
    int64_t ms = 0;
    bool bBad = false;
    if (ParseStamp(line, ms, bBad)) {
        record.bBadTime = bBad;
        std::string_view rest = line.substr(18);
        if (rest.size() > 1 && rest[0] == ' ' && ParseBrief(rest.substr(1), record)) {
            record.form = Form::kTime;
            record.ms = ms;
            return true;
        }
        if (ParseThreadTime(rest, record)) {
            record.form = Form::kThreadTime;
            record.ms = ms;
            return true;
        }
        return false;
    }
    if (ParseBrief(line, record)) {
        record.bBadTime = false;
        record.form = Form::kBrief;
        record.ms.reset();
        return true;
    }
    return false;
}

namespace {

void (*g_progress)(uint64_t) = nullptr;

// The copies of pipes read so far, removed when the process ends.
struct Copies {
    std::map<std::string, std::string> byName;
    ~Copies()
    {
        for (const auto &c : byName)
            unlink(c.second.c_str());
    }
};
Copies g_copies;

// name: the path given, the key of its copy; path: for messages.
std::string CopyPipe(const std::string &name, const std::string &path, int fd)
{
    const char *tmp = std::getenv("TMPDIR");
    std::string copy = std::string(tmp && *tmp ? tmp : "/tmp") + "/lumora-tv-input-XXXXXX";
    const int out = mkstemp(copy.data());
    if (out < 0)
        throw Error("cannot keep what " + path + " gives: " + std::strerror(errno));
    g_copies.byName[name] = copy;
    std::vector<char> buffer(1 << 16);
    size_t total = 0;
    std::string problem;
    for (;;) {
        const ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            problem = "cannot read " + path + ": " + std::strerror(errno);
        else if ((total += static_cast<size_t>(n)) > kMaxPiped)
            problem =
                path + " gives more than " + std::to_string(kMaxPiped >> 20) + " MiB; save it to a file and give that";
        else if (n > 0 && write(out, buffer.data(), static_cast<size_t>(n)) != n)
            problem = "cannot keep what " + path + " gives: " + std::strerror(errno);
        if (n <= 0 || !problem.empty())
            break;
        if (g_progress && total % (size_t{16} << 20) < static_cast<size_t>(n))
            g_progress(total);
    }
    close(out);
    if (!problem.empty())
        throw Error(problem);
    return copy;
}

} // namespace

void SetProgress(void (*progress)(uint64_t bytes))
{
    g_progress = progress;
}

bool IsPipe(const std::string &path)
{
    struct stat st;
    return path == "-" || (stat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode));
}

std::string LocalFile(const std::string &path)
{
    const auto copied = g_copies.byName.find(path);
    if (copied != g_copies.byName.end())
        return copied->second;
    if (path == "-")
        return CopyPipe(path, "the standard input", 0);
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        throw Error("cannot read " + path + ": " + std::strerror(errno));
    if (S_ISDIR(st.st_mode))
        throw Error("cannot read " + path + ": it is a directory");
    if (S_ISREG(st.st_mode))
        return path;
    if (!S_ISFIFO(st.st_mode))
        throw Error("cannot read " + path +
                    ": not a file nor a pipe (a device or a socket); give a log file, or - "
                    "for the standard input");
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw Error("cannot read " + path + ": " + std::strerror(errno));
    try {
        std::string copy = CopyPipe(path, path, fd);
        close(fd);
        return copy;
    } catch (...) {
        close(fd);
        throw;
    }
}

Reader::Reader(const std::string &path) : m_path(path == "-" ? "the standard input" : path), m_buffer(kChunk)
{
    m_file = gzopen(LocalFile(path).c_str(), "rb");
    if (!m_file)
        throw Error("cannot read " + path + ": " + std::strerror(errno ? errno : ENOENT));
    gzbuffer(m_file, kChunk);
}

Reader::~Reader()
{
    if (m_file)
        gzclose(m_file);
}

bool Reader::ReadLine(std::string &line)
{
    line.clear();
    for (;;) {
        if (m_pos == m_end) {
            if (m_bEof)
                return !line.empty();
            int n = gzread(m_file, m_buffer.data(), static_cast<unsigned>(m_buffer.size()));
            int code = Z_OK;
            const char *message = gzerror(m_file, &code);
            if (n < 0 || (code != Z_OK && code != Z_STREAM_END))
                throw Error(m_path + ": the compressed data is damaged or cut short (" +
                            (message && *message ? message : "zlib error") + ")" +
                            (m_nLine ? " after line " + std::to_string(m_nLine) : std::string()));
            if (n == 0) {
                m_bEof = true;
                if (line.empty())
                    return false;
                ++m_nLine;
                return true;
            }
            m_pos = 0;
            m_end = static_cast<size_t>(n);
            m_nBytes += m_end;
            if (!m_bServiceSeen && m_nBytes > kMaxBeforeService)
                throw Error(m_path + ": no line of the service (tag " + std::string(kServiceTag) + ") in its first " +
                            std::to_string(kMaxBeforeService >> 20) + " MiB (" + std::to_string(m_nLine) +
                            " lines); this is not a log of the service");
            if (g_progress && m_nBytes % (uint64_t{16} << 20) < m_end)
                g_progress(m_nBytes);
        }
        const char *begin = m_buffer.data() + m_pos;
        const void *nl = std::memchr(begin, '\n', m_end - m_pos);
        size_t take = nl ? static_cast<size_t>(static_cast<const char *>(nl) - begin) : m_end - m_pos;
        if (line.size() + take > kMaxLine)
            throw Error(m_path + ": line " + std::to_string(m_nLine + 1) + " is longer than " +
                        std::to_string(kMaxLine >> 20) + " MiB; this is not a platform log");
        if (std::memchr(begin, '\0', take))
            throw Error(m_path + ": line " + std::to_string(m_nLine + 1) +
                        " holds binary data (a NUL byte); this is not a text log");
        line.append(begin, take);
        m_pos += take;
        if (nl) {
            ++m_pos;
            ++m_nLine;
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            return true;
        }
    }
}

bool Reader::Next(Record &record)
{
    std::string line;
    Record parsed;
    while (ReadLine(line)) {
        if (!ParseLine(line, parsed)) {
            if (!m_pending) {
                ++m_nStray;
                continue;
            }
            if (m_pending->text.size() + 1 + line.size() > kMaxLine)
                throw Error(m_path + ": the record of line " + std::to_string(m_pending->line) + " grows past " +
                            std::to_string(kMaxLine >> 20) + " MiB; this is not a platform log");
            m_pending->text += '\n';
            // The host TV's terminal marks every further line of a record.
            const std::string_view marker = tvhost::log::kContinuation;
            m_pending->text += line.compare(0, marker.size(), marker) == 0 ? line.substr(marker.size()) : line;
            continue;
        }
        parsed.line = m_nLine;
        m_bServiceSeen = m_bServiceSeen || parsed.tag == kServiceTag;
        if (parsed.bBadTime) {
            // Kept, at the time of the record before it: a line that starts
            // a record never becomes another's continuation.
            parsed.ms = m_lastMs.value_or(0);
        } else if (parsed.ms) {
            // The month-day clock starts again at the new year; small steps
            // back are threads writing out of order.
            if (m_lastMs && *parsed.ms + m_yearOffset < *m_lastMs - 30 * kDayMs)
                m_yearOffset += 366 * kDayMs;
            *parsed.ms += m_yearOffset;
            m_lastMs = *parsed.ms;
        }
        bool bHad = m_pending.has_value();
        if (bHad)
            record = std::move(*m_pending);
        m_pending = std::move(parsed);
        parsed = Record();
        if (bHad)
            return true;
    }
    if (!m_pending)
        return false;
    record = std::move(*m_pending);
    m_pending.reset();
    return true;
}

namespace {

// Walks the service's records of a log, each with the index of its run.
template <typename Fn>
std::vector<SessionInfo> Walk(const std::string &path, Fn &&fn)
{
    Reader reader(path);
    std::vector<SessionInfo> sessions;
    std::map<int, size_t> open; // pid -> its latest session
    Record r;
    size_t nRecords = 0;
    while (reader.Next(r)) {
        ++nRecords;
        if (r.tag != kServiceTag)
            continue;
        auto it = open.find(r.pid);
        // The same pid again after a restart starts a new run.
        bool bMain = r.text.find(">############ Enter LumoraApp Main ############") != std::string::npos;
        if (it == open.end() || (bMain && sessions[it->second].nRecords > 0)) {
            SessionInfo s;
            s.pid = r.pid;
            s.firstLine = r.line;
            sessions.push_back(s);
            open[r.pid] = sessions.size() - 1;
            it = open.find(r.pid);
        }
        SessionInfo &s = sessions[it->second];
        s.lastLine = r.line;
        ++s.nRecords;
        if (r.text.find(">Enter LumoraManager::OnQorvEvent, event type is ") != std::string::npos)
            ++s.nEvents;
        fn(r, it->second);
    }
    if (nRecords == 0)
        throw Error(path + " is not a platform log: none of its " + std::to_string(reader.Lines()) +
                    " lines has the form \"D/TAG( PID): text\", with or without \"MM-DD hh:mm:ss.mmm \" before "
                    "it, or \"MM-DD hh:mm:ss.mmm  PID  TID D TAG: text\"");
    if (sessions.empty())
        throw Error(path + " holds no line of the service (tag " + std::string(kServiceTag) + ") in its " +
                    std::to_string(nRecords) + " records");
    return sessions;
}

} // namespace

std::vector<SessionInfo> ListSessions(const std::string &path)
{
    return Walk(path, [](const Record &, size_t) {});
}

Plan PlanFromLog(const std::string &path, const PlanOptions &options)
{
    // Two passes: which run to take is known only at the end, and a run's
    // records are only what the plan keeps of them.
    std::vector<SessionInfo> sessions = ListSessions(path);
    size_t chosen = options.session.value_or(sessions.size());
    if (chosen < 1 || chosen > sessions.size())
        throw Error("there is no session " + std::to_string(chosen) + " in " + path + ": it holds " +
                    std::to_string(sessions.size()) + (sessions.size() == 1 ? " run" : " runs") +
                    " of the service (--session 1 to " + std::to_string(sessions.size()) + ")");
    Planner planner(options.gapMs);
    Walk(path, [&](const Record &r, size_t index) {
        if (index + 1 == chosen)
            planner.Add(r);
    });
    Plan plan = planner.Finish();
    plan.pid = sessions[chosen - 1].pid;
    return plan;
}

} // namespace tvlog
