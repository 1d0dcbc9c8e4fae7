// The platform log on the host: one line per record on stderr, in the shape
// "D/LUMORA( 1234): text", switchable off, and capturable for tests. What
// reaches the terminal is escaped; captured records keep the text as logged.
// With TVHOST_LOG_FILE every record is also appended to that file in the
// threadtime form, so that other processes can read a running service's log.
#include <dlog.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <libxml/globals.h>
#include <libxml/xmlerror.h>

#include "registry.h"
#include "terminal_text.h"
#include "tvhost/log.h"

namespace {

bool EnvIsOff(const char *name)
{
    const char *v = std::getenv(name);
    return v && (!std::strcmp(v, "0") || !std::strcmp(v, "off") || !std::strcmp(v, "no"));
}

std::atomic<bool> g_bEnabled{!EnvIsOff("TVHOST_LOG")};
std::atomic<bool> g_bEcho{!EnvIsOff("TVHOST_LOG_STDERR")};
std::atomic<bool> g_bCapture{false};
std::atomic<unsigned long> g_nPrints{0};

// TVHOST_LOG_FORMAT: the line prefix of a TV's log tool, brief (the default),
// time or threadtime, so that every form a TV's log comes in can be written.
enum class Format { kBrief, kTime, kThreadTime };
Format ReadFormat()
{
    const char *v = std::getenv("TVHOST_LOG_FORMAT");
    if (v && !std::strcmp(v, "time"))
        return Format::kTime;
    if (v && !std::strcmp(v, "threadtime"))
        return Format::kThreadTime;
    return Format::kBrief;
}
const Format g_format = ReadFormat();

// "MM-DD hh:mm:ss.mmm" in local time.
void Stamp(char *out, size_t size)
{
    timeval now;
    gettimeofday(&now, nullptr);
    tm local;
    localtime_r(&now.tv_sec, &local);
    std::snprintf(out, size, "%02d-%02d %02d:%02d:%02d.%03d", local.tm_mon + 1, local.tm_mday, local.tm_hour,
                  local.tm_min, local.tm_sec, static_cast<int>(now.tv_usec / 1000));
}

std::mutex g_mutex;
std::vector<tvhost::log::Record> g_records;

char PriorityLetter(int prio)
{
    const int first = 2; // verbose
    if (prio >= first && prio < first + static_cast<int>(tvhost::log::kLevelLetters.size()))
        return tvhost::log::kLevelLetters[static_cast<size_t>(prio - first)];
    return prio == 8 ? 'S' : '?'; // silent, or not a priority
}

using tvhost::log::kContinuation;

void AppendEscape(std::string &out, const char *format, unsigned long value)
{
    char code[32];
    std::snprintf(code, sizeof code, format, value);
    out += code;
}

// Appends n bytes of text as they may reach a terminal: controls as \x1b,
// C1 controls and bidirectional controls as \u009b, \u202e, a byte outside
// well-formed UTF-8 as \xff. A line feed stays; the lines after it begin
// with kContinuation when bMarkLines, or (libxml2's own lines) only when
// they would begin like a record.
void AppendForTerminal(std::string &out, const char *p, size_t n, bool bMarkLines, bool &bLineStart)
{
    size_t i = 0;
    while (i < n) {
        if (bLineStart && (bMarkLines || (p[i] != '\0' &&
                                          (std::strchr("?S", p[i]) ||
                                           tvhost::log::kLevelLetters.find(p[i]) != std::string_view::npos) &&
                                          (i + 1 == n || p[i + 1] == '/'))))
            out += kContinuation;
        bLineStart = false;
        const tvhost::text::Unit u = tvhost::text::Decode(p + i, n - i);
        if (u.cp == '\n' && !u.bBroken) {
            out += '\n';
            bLineStart = true;
        } else if (u.bBroken || u.cp < 0x20 || u.cp == 0x7F) {
            AppendEscape(out, "\\x%02lx", u.cp);
        } else if (tvhost::text::IsControl(u.cp) || tvhost::text::IsBidiControl(u.cp)) {
            AppendEscape(out, "\\u%04lx", u.cp);
        } else {
            out.append(p + i, u.n);
        }
        i += u.n;
    }
}

// libxml2's error printer: its text as it was, on stderr, through the same
// escape. libxml2 prints a message in pieces, so where a line begins is
// kept per thread.
void XmlErrorToTerminal(void *, const char *fmt, ...)
{
    thread_local bool bLineStart = true;
    va_list ap;
    va_start(ap, fmt);
    char small[512];
    va_list copy;
    va_copy(copy, ap);
    const int n = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    std::string text;
    if (n >= 0 && static_cast<size_t>(n) < sizeof small) {
        text.assign(small, static_cast<size_t>(n));
    } else if (n >= 0) {
        text.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(&text[0], text.size(), fmt, ap);
        text.resize(static_cast<size_t>(n));
    }
    va_end(ap);
    std::string out;
    AppendForTerminal(out, text.data(), text.size(), false, bLineStart);
    ssize_t ignored = write(STDERR_FILENO, out.data(), out.size());
    (void)ignored;
}

// Every thread of a process that loads tvhost, the engine's included, prints
// libxml2's errors through XmlErrorToTerminal.
struct XmlErrorsRouted {
    XmlErrorsRouted()
    {
        xmlThrDefSetGenericErrorFunc(nullptr, XmlErrorToTerminal);
        xmlSetGenericErrorFunc(nullptr, XmlErrorToTerminal);
    }
} g_xmlErrorsRouted;

// The kept log of TVHOST_LOG_FILE. Past kMaxFile it is renamed NAME.1 and
// begun again, so that a storm of records cannot fill the disk.
constexpr off_t kMaxFile = off_t{8} << 20;
std::mutex g_fileMutex;
int g_fileFd = -1;
off_t g_fileSize = 0;

// Read at the first record rather than at load, so that a process may set it first.
const char *LogFilePath()
{
    static const char *const pPath = [] {
        const char *p = std::getenv("TVHOST_LOG_FILE");
        return p && *p ? strdup(p) : nullptr;
    }();
    return pPath;
}

void OpenLogFile(const char *path)
{
    g_fileFd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    struct stat st;
    g_fileSize = g_fileFd >= 0 && fstat(g_fileFd, &st) == 0 ? st.st_size : 0;
}

void AppendToLogFile(const std::string &line)
{
    std::lock_guard<std::mutex> lock(g_fileMutex);
    const char *path = LogFilePath();
    static bool bOpened = false;
    if (!bOpened) {
        bOpened = true;
        OpenLogFile(path);
    }
    if (g_fileFd < 0)
        return;
    if (g_fileSize >= kMaxFile) {
        const std::string old = std::string(path) + ".1";
        close(g_fileFd);
        g_fileFd = -1;
        if (rename(path, old.c_str()) != 0 && errno != ENOENT)
            return; // written no more rather than without bound
        OpenLogFile(path);
        if (g_fileFd < 0)
            return;
    }
    // One write per record, appended: a reader never sees two records mixed.
    const ssize_t n = write(g_fileFd, line.data(), line.size());
    if (n > 0)
        g_fileSize += n;
}

tvhost::detail::ResetHook g_reset([] {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_records.clear();
    g_nPrints = 0;
});

} // namespace

extern "C" int _get_logging_on(void)
{
    return g_bEnabled.load(std::memory_order_relaxed) ? 1 : 0;
}

extern "C" int __dlog_vprint(log_id_t log_id, int prio, const char *tag, const char *fmt, va_list ap)
{
    (void)log_id;
    g_nPrints.fetch_add(1, std::memory_order_relaxed);
    if (!fmt)
        return -1;

    char small[1024];
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (n < 0)
        return -1;
    std::string text;
    if (static_cast<size_t>(n) < sizeof small) {
        text.assign(small, static_cast<size_t>(n));
    } else {
        text.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(&text[0], text.size(), fmt, ap);
        text.resize(static_cast<size_t>(n));
    }
    const char *t = tag ? tag : "";

    const bool bEcho = g_bEcho.load(std::memory_order_relaxed);
    const bool bFile = LogFilePath() != nullptr;
    if (bEcho || bFile) {
        char stamp[40];
        Stamp(stamp, sizeof stamp);
        const int pid = static_cast<int>(getpid());
        const char letter = PriorityLetter(prio);
        // The record's own final line feed ends it; any other begins a marked line.
        const bool bEndsLine = !text.empty() && text.back() == '\n';
        std::string body;
        body.reserve(text.size() + 2);
        bool bLineStart = false;
        AppendForTerminal(body, text.data(), text.size() - (bEndsLine ? 1 : 0), true, bLineStart);
        if (body.empty() || body.back() != '\n')
            body += '\n';
        char head[160];
        std::snprintf(head, sizeof head, "%s %5d %5d %c %-8s: ", stamp, pid, static_cast<int>(syscall(SYS_gettid)),
                      letter, t);
        const std::string threadTime = head + body;
        if (bFile)
            AppendToLogFile(threadTime);
        if (bEcho) {
            // One write per record so that lines from several threads never interleave.
            std::string line;
            if (g_format == Format::kBrief)
                std::snprintf(head, sizeof head, "%c/%s(%5d): ", letter, t, pid);
            else if (g_format == Format::kTime)
                std::snprintf(head, sizeof head, "%s %c/%s(%5d): ", stamp, letter, t, pid);
            const std::string &out = g_format == Format::kThreadTime ? threadTime : (line = head + body);
            ssize_t ignored = write(STDERR_FILENO, out.data(), out.size());
            (void)ignored;
        }
    }
    if (g_bCapture.load(std::memory_order_relaxed)) {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_records.push_back({prio, t, std::move(text)});
    }
    return n;
}

namespace tvhost {
namespace log {

void SetEnabled(bool bEnabled)
{
    g_bEnabled = bEnabled;
}
void SetCapture(bool bCapture)
{
    g_bCapture = bCapture;
}
void SetEcho(bool bEcho)
{
    g_bEcho = bEcho;
}
unsigned long PrintCount()
{
    return g_nPrints.load();
}

std::vector<Record> Records()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_records;
}

void ClearRecords()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_records.clear();
}

std::vector<std::string> Find(const std::string &needle)
{
    std::vector<std::string> out;
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto &r : g_records)
        if (r.text.find(needle) != std::string::npos)
            out.push_back(r.text);
    return out;
}

std::string ForTerminal(std::string_view text)
{
    std::string out;
    bool bLineStart = false;
    AppendForTerminal(out, text.data(), text.size(), true, bLineStart);
    return out;
}

std::string JsonForTerminal(std::string_view json)
{
    std::string out;
    out.reserve(json.size());
    size_t i = 0;
    while (i < json.size()) {
        const tvhost::text::Unit u = tvhost::text::Decode(json.data() + i, json.size() - i);
        if (!u.bBroken && u.cp >= 0x7F && (tvhost::text::IsControl(u.cp) || tvhost::text::IsBidiControl(u.cp)))
            AppendEscape(out, "\\u%04lx", u.cp);
        else
            out.append(json.data() + i, u.n);
        i += u.n;
    }
    return out;
}

} // namespace log
} // namespace tvhost
