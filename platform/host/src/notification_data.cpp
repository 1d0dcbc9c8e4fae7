// The notification-data service on the host: keeps copies of the posted
// notifications, draws each one as a box on the terminal, and delivers the
// viewer's button presses and timeouts on a thread of its own. While it is
// initialised it also serves a control socket under the TV root, so that
// lumora-tv in another shell can see the screen and press buttons.
#include <notification_data.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "history.h"
#include "host_files.h"
#include "registry.h"
#include "tvhost/notifications.h"
#include "tvhost/tvhost.h"

namespace tvhost {
namespace notifications {
namespace {

struct Delivery {
    bool bButton;
    int nItemId;
    int nButtonIndex;
    unsigned long nSeq = 0; // numbered in queueing order, from 1
};

struct Service {
    std::mutex mutex;
    std::condition_variable wake; // the delivery thread waits on it
    std::condition_variable idle; // WaitDelivered waits on it

    bool bInitialised = false;
    std::string strAppId;
    notification_button_cb pButtonCb = nullptr;
    void *pButtonData = nullptr;
    notification_timeout_cb pTimeoutCb = nullptr;
    void *pTimeoutData = nullptr;

    std::vector<Record> posted;
    std::map<int, Record> shown;
    std::vector<Removal> removals;
    std::vector<std::string> calls;
    std::map<std::string, int> callCounts;
    std::map<std::string, std::deque<int>> faults;

    std::deque<Delivery> queue;
    bool bBusy = false;
    int nDelivered = 0;
    // Deliveries are numbered so that a remote press can wait for its own.
    unsigned long nLastSeq = 0;
    unsigned long nDoneSeq = 0;
    // A delivery thread runs while its generation is the current one.
    unsigned long nGeneration = 0;
    std::thread worker;
};

using tvhost::detail::TrimHistory;

// Never destroyed: the delivery thread may still use it while statics go.
Service &S()
{
    static Service *s = new Service;
    return *s;
}

// Counts the call; true (with the result) when a fault was queued for it.
bool Enter(Service &s, const char *fn, int &nFault)
{
    s.calls.emplace_back(fn);
    TrimHistory(s.calls);
    ++s.callCounts[fn];
    auto it = s.faults.find(fn);
    if (it == s.faults.end() || it->second.empty())
        return false;
    nFault = it->second.front();
    it->second.pop_front();
    return true;
}

void DeliveryLoop(unsigned long nGeneration)
{
    Service &s = S();
    std::unique_lock<std::mutex> lock(s.mutex);
    for (;;) {
        s.wake.wait(lock, [&] { return s.nGeneration != nGeneration || !s.queue.empty(); });
        if (s.nGeneration != nGeneration)
            break;
        Delivery d = s.queue.front();
        s.queue.pop_front();
        notification_button_cb pButton = s.pButtonCb;
        void *pButtonData = s.pButtonData;
        notification_timeout_cb pTimeout = s.pTimeoutCb;
        void *pTimeoutData = s.pTimeoutData;
        s.bBusy = true;
        lock.unlock();
        if (d.bButton && pButton)
            pButton(d.nItemId, d.nButtonIndex, pButtonData);
        else if (!d.bButton && pTimeout)
            pTimeout(d.nItemId, pTimeoutData);
        lock.lock();
        s.bBusy = false;
        ++s.nDelivered;
        s.nDoneSeq = d.nSeq;
        s.idle.notify_all();
    }
}

void StartDelivery(Service &s)
{
    if (s.worker.joinable())
        return;
    s.worker = std::thread(DeliveryLoop, s.nGeneration);
}

// Ends the delivery thread and drops what it had not delivered yet.
void StopDelivery()
{
    Service &s = S();
    std::thread worker;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        ++s.nGeneration;
        s.queue.clear();
        worker = std::move(s.worker);
        s.wake.notify_all();
        s.idle.notify_all();
    }
    if (!worker.joinable())
        return;
    // Closing from inside a callback: the thread ends once the callback returns.
    if (worker.get_id() == std::this_thread::get_id())
        worker.detach();
    else
        worker.join();
}

void StopControl();

struct StopAtExit {
    ~StopAtExit()
    {
        StopDelivery();
        StopControl();
    }
} g_stopAtExit;

std::optional<std::string> Copy(const char *p)
{
    if (!p)
        return std::nullopt;
    return std::string(p);
}

Record CopyRecord(const notification_data_t &d)
{
    Record r;
    r.version = d.version;
    r.popup = d.popup;
    r.style = d.style;
    r.appId = Copy(d.app_id);
    r.itemId = d.item_id;
    for (int i = 0; i < 3; ++i) {
        r.reserved1[i] = d.reserved1[i];
        r.reserved2[i] = d.reserved2[i];
    }
    r.title = Copy(d.title);
    r.body = Copy(d.body);
    r.subText = Copy(d.sub_text);
    r.buttonCount = d.button_count;
    r.needAnswer = d.need_answer;
    for (int i = 0; i < NOTIFICATION_DATA_MAX_BUTTON; ++i) {
        r.buttonLabel[i] = Copy(d.button_label[i]);
        r.buttonIcon[i] = Copy(d.button_icon[i]);
    }
    return r;
}

// ---- drawing ---------------------------------------------------------------

std::mutex g_drawMutex;
std::FILE *g_pDraw = nullptr;
bool g_bDrawOwned = false;
bool g_bDrawChosen = false;

void SetDrawLocked(std::FILE *stream, bool bOwned)
{
    if (g_bDrawOwned && g_pDraw)
        std::fclose(g_pDraw);
    g_pDraw = stream;
    g_bDrawOwned = bOwned;
    g_bDrawChosen = true;
}

std::FILE *DrawStreamLocked()
{
    if (!g_bDrawChosen) {
        g_bDrawChosen = true;
        g_pDraw = stdout;
        const char *env = std::getenv("TVHOST_DRAW");
        if (env && (!std::strcmp(env, "0") || !std::strcmp(env, "off") || !std::strcmp(env, "no"))) {
            g_pDraw = nullptr;
        } else if (env && !std::strcmp(env, "stderr")) {
            g_pDraw = stderr;
        } else if (env && *env && std::strcmp(env, "1") && std::strcmp(env, "stdout")) {
            g_pDraw = std::fopen(env, "a");
            g_bDrawOwned = g_pDraw != nullptr;
        }
    }
    return g_pDraw;
}

bool Drawing()
{
    std::lock_guard<std::mutex> lock(g_drawMutex);
    return DrawStreamLocked() != nullptr;
}

void Draw(const std::string &text)
{
    std::lock_guard<std::mutex> lock(g_drawMutex);
    std::FILE *out = DrawStreamLocked();
    if (!out)
        return;
    std::fwrite(text.data(), 1, text.size(), out);
    std::fflush(out);
}

// Terminal columns of one code point: East Asian wide characters take two.
int CodePointWidth(unsigned long cp)
{
    if (cp >= 0x300 && cp <= 0x36F)
        return 0;
    if ((cp >= 0x1100 && cp <= 0x115F) || (cp >= 0x2E80 && cp <= 0xA4CF) || (cp >= 0xAC00 && cp <= 0xD7A3) ||
        (cp >= 0xF900 && cp <= 0xFAFF) || (cp >= 0xFE30 && cp <= 0xFE4F) || (cp >= 0xFF00 && cp <= 0xFF60) ||
        (cp >= 0xFFE0 && cp <= 0xFFE6) || (cp >= 0x1F300 && cp <= 0x1FAFF) || (cp >= 0x20000 && cp <= 0x3FFFD))
        return 2;
    return 1;
}

// Splits UTF-8 text into code points (bytes of a broken sequence stand alone).
std::vector<std::pair<std::string, int>> Glyphs(const std::string &text)
{
    std::vector<std::pair<std::string, int>> out;
    size_t i = 0;
    while (i < text.size()) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 1;
        if (i + n > text.size())
            n = 1;
        unsigned long cp = n == 1 ? c : (c & (0x7F >> n));
        for (size_t k = 1; k < n; ++k) {
            unsigned char cc = static_cast<unsigned char>(text[i + k]);
            if ((cc & 0xC0) != 0x80) {
                n = 1;
                cp = c;
                break;
            }
            cp = (cp << 6) | (cc & 0x3F);
        }
        std::string g = text.substr(i, n);
        if (n == 1 && (c < 0x20 || c == 0x7F))
            g = " ";
        else if (n == 1 && c >= 0x80)
            g = "?";
        out.emplace_back(g, n == 1 ? 1 : CodePointWidth(cp));
        i += n;
    }
    return out;
}

int Width(const std::string &text)
{
    int w = 0;
    for (const auto &g : Glyphs(text))
        w += g.second;
    return w;
}

// Word-wraps one paragraph to nWidth columns; over-long words are cut.
void Wrap(const std::string &paragraph, int nWidth, std::vector<std::string> &lines)
{
    std::string line;
    int nLine = 0;
    std::string word;
    int nWord = 0;
    auto flushWord = [&] {
        if (word.empty())
            return;
        if (nLine > 0 && nLine + 1 + nWord > nWidth) {
            lines.push_back(line);
            line.clear();
            nLine = 0;
        }
        if (nLine > 0) {
            line += ' ';
            ++nLine;
        }
        line += word;
        nLine += nWord;
        word.clear();
        nWord = 0;
    };
    for (const auto &g : Glyphs(paragraph)) {
        if (g.first == " ") {
            flushWord();
            continue;
        }
        if (nWord + g.second > nWidth) {
            flushWord();
            if (nLine > 0) {
                lines.push_back(line);
                line.clear();
                nLine = 0;
            }
        }
        word += g.first;
        nWord += g.second;
    }
    flushWord();
    lines.push_back(line);
}

std::vector<std::string> WrapText(const std::string &text, int nWidth)
{
    std::vector<std::string> lines;
    size_t start = 0;
    for (;;) {
        size_t nl = text.find('\n', start);
        Wrap(text.substr(start, nl == std::string::npos ? std::string::npos : nl - start), nWidth, lines);
        if (nl == std::string::npos)
            break;
        start = nl + 1;
    }
    return lines;
}

std::string Repeat(const char *s, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i)
        out += s;
    return out;
}

} // namespace

std::string Render(const Record &r)
{
    constexpr int kMin = 36;
    constexpr int kMax = 64;
    const std::string title = r.title.value_or("");
    const std::string body = r.body.value_or("");
    const std::string sub = r.subText.value_or("");
    std::vector<std::string> buttons;
    for (int i = 0; i < r.buttonCount && i < NOTIFICATION_DATA_MAX_BUTTON; ++i)
        buttons.push_back("[ " + r.buttonLabel[i].value_or("") + " ]");
    std::string caption = " " + r.appId.value_or("?") + " #" + std::to_string(r.itemId) + " ";

    int nWidth = kMin;
    for (const std::string *t : {&title, &body, &sub})
        for (const auto &line : WrapText(*t, kMax))
            nWidth = std::max(nWidth, Width(line));
    std::string buttonRow;
    for (const auto &b : buttons)
        buttonRow += (buttonRow.empty() ? "" : "  ") + b;
    nWidth = std::min(kMax, std::max(nWidth, Width(buttonRow)));
    nWidth = std::max(nWidth, Width(caption) + 1);

    std::string out;
    auto row = [&](const std::string &text) {
        out += "│ " + text + std::string(static_cast<size_t>(std::max(0, nWidth - Width(text))), ' ') + " │\n";
    };
    out += "┌─" + caption + Repeat("─", nWidth + 1 - Width(caption)) + "┐\n";
    for (const auto &line : WrapText(title, nWidth))
        row(line);
    out += "├" + Repeat("─", nWidth + 2) + "┤\n";
    for (const auto &line : WrapText(body, nWidth))
        row(line);
    if (!sub.empty())
        for (const auto &line : WrapText(sub, nWidth))
            row(line);
    if (!buttons.empty()) {
        row("");
        std::string line;
        for (const auto &b : buttons) {
            if (!line.empty() && Width(line) + 2 + Width(b) > nWidth) {
                row(line);
                line.clear();
            }
            line += (line.empty() ? "" : "  ") + b;
        }
        row(line);
    }
    out += "└" + Repeat("─", nWidth + 2) + "┘\n";
    return out;
}

std::vector<Record> Posted()
{
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().posted;
}

std::vector<Record> Shown()
{
    std::lock_guard<std::mutex> lock(S().mutex);
    std::vector<Record> out;
    for (const auto &kv : S().shown)
        out.push_back(kv.second);
    return out;
}

std::vector<Removal> Removals()
{
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().removals;
}

std::vector<std::string> Calls()
{
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().calls;
}

int CallCount(const std::string &fn)
{
    std::lock_guard<std::mutex> lock(S().mutex);
    auto it = S().callCounts.find(fn);
    return it == S().callCounts.end() ? 0 : it->second;
}

void QueueResult(const std::string &fn, int result)
{
    std::lock_guard<std::mutex> lock(S().mutex);
    S().faults[fn].push_back(result);
}

namespace {
// What a queued delivery is known by: its number and the delivery thread's
// generation that is to run it.
struct Ticket {
    unsigned long nSeq = 0;
    unsigned long nGeneration = 0;
};

std::string OnScreenLocked(const Service &s)
{
    if (s.shown.empty())
        return "nothing is on screen";
    std::string list;
    for (const auto &kv : s.shown)
        list += (list.empty() ? "on screen: #" : ", #") + std::to_string(kv.first);
    return list;
}

// Queues a press or timeout of a notification on screen; false with the
// reason when there is none to queue.
bool QueueChecked(Delivery d, Ticket &ticket, std::string &why)
{
    Service &s = S();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.bInitialised || !s.worker.joinable()) {
        why = "the notification service is not initialised";
        return false;
    }
    auto it = s.shown.find(d.nItemId);
    if (it == s.shown.end()) {
        why = "no notification #" + std::to_string(d.nItemId) + " on screen (" + OnScreenLocked(s) + ")";
        return false;
    }
    const int nButtons = it->second.buttonCount;
    if (d.bButton && (d.nButtonIndex < 0 || d.nButtonIndex >= nButtons)) {
        why = "notification #" + std::to_string(d.nItemId) +
              (nButtons == 0
                   ? std::string(" has no buttons")
                   : " has " + std::to_string(nButtons) +
                         (nButtons == 1 ? " button: press 0" : " buttons: press 0 to " + std::to_string(nButtons - 1)));
        return false;
    }
    d.nSeq = ++s.nLastSeq;
    ticket.nSeq = d.nSeq;
    ticket.nGeneration = s.nGeneration;
    s.queue.push_back(d);
    s.wake.notify_all();
    return true;
}

bool Queue(const Delivery &d)
{
    Ticket ticket;
    std::string why;
    return QueueChecked(d, ticket, why);
}
} // namespace

bool PressButton(int itemId, int buttonIndex)
{
    return Queue({true, itemId, buttonIndex});
}

bool TimeOut(int itemId)
{
    return Queue({false, itemId, 0});
}

void WaitDelivered()
{
    Service &s = S();
    std::unique_lock<std::mutex> lock(s.mutex);
    if (s.worker.joinable() && s.worker.get_id() == std::this_thread::get_id())
        return; // from inside a callback nothing else can be delivered meanwhile
    s.idle.wait(lock, [&] { return s.queue.empty() && !s.bBusy; });
}

int Delivered()
{
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().nDelivered;
}

void DrawTo(std::FILE *stream)
{
    std::lock_guard<std::mutex> lock(g_drawMutex);
    SetDrawLocked(stream, false);
}

bool DrawToFile(const std::string &path)
{
    std::FILE *f = std::fopen(path.c_str(), "a");
    if (!f)
        return false;
    std::lock_guard<std::mutex> lock(g_drawMutex);
    SetDrawLocked(f, true);
    return true;
}

namespace {
tvhost::detail::ResetHook g_reset([] {
    StopDelivery();
    StopControl();
    Service &s = S();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.bInitialised = false;
    s.strAppId.clear();
    s.pButtonCb = nullptr;
    s.pButtonData = nullptr;
    s.pTimeoutCb = nullptr;
    s.pTimeoutData = nullptr;
    s.posted.clear();
    s.shown.clear();
    s.removals.clear();
    s.calls.clear();
    s.callCounts.clear();
    s.faults.clear();
    s.bBusy = false;
    s.nDelivered = 0;
});
} // namespace

// ---- the control socket ----------------------------------------------------
//
// One request per connection, one line, answered by "OK ..." lines or one
// "ERROR <reason>" line, then the server closes:
//   PING                   OK <pid>
//   LIST                   OK <count>, then one line per notification on screen
//   PRESS <item> <button>  OK <count>, then one LAUNCH line per launch request
//   TIMEOUT <item>         OK
// Fields within a line are separated by tabs; texts are %-escaped, and a text
// field is "-" for a null pointer or "=" followed by the text.

std::string ControlSocketPath()
{
    return Root() + "/opt/var/tvhost/notifications.sock";
}

namespace {

constexpr size_t kMaxRequest = 256;
constexpr int kClientIoSeconds = 2;
// A press waits for the service's callback, which may launch the widget.
constexpr int kRemoteAnswerSeconds = 20;

std::string Escape(const std::string &text)
{
    return detail::PercentEscape(text, [](unsigned char c, size_t) { return c == '%' || c < 0x20 || c == 0x7F; });
}

bool Unescape(const std::string &text, std::string &out)
{
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 2])))
            return false;
        out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return true;
}

std::string TextField(const std::optional<std::string> &text)
{
    return text ? "=" + Escape(*text) : "-";
}

bool ParseTextField(const std::string &field, std::optional<std::string> &text)
{
    if (field == "-") {
        text.reset();
        return true;
    }
    std::string value;
    if (field.empty() || field[0] != '=' || !Unescape(field.substr(1), value))
        return false;
    text = value;
    return true;
}

bool ParseInt(const std::string &text, int &value)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    long n = std::strtol(text.c_str(), &end, 10);
    if (errno || *end || n < INT32_MIN || n > INT32_MAX)
        return false;
    value = static_cast<int>(n);
    return true;
}

std::vector<std::string> SplitTabs(const std::string &line)
{
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        size_t tab = line.find('\t', start);
        fields.push_back(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
        if (tab == std::string::npos)
            return fields;
        start = tab + 1;
    }
}

// The 22 words of the record, in the record's order.
std::string RecordLine(const Record &r)
{
    std::string line = std::to_string(r.version) + "\t" + std::to_string(r.popup) + "\t" + std::to_string(r.style) +
                       "\t" + TextField(r.appId) + "\t" + std::to_string(r.itemId);
    for (int n : r.reserved1)
        line += "\t" + std::to_string(n);
    line += "\t" + TextField(r.title) + "\t" + TextField(r.body) + "\t" + TextField(r.subText);
    for (int n : r.reserved2)
        line += "\t" + std::to_string(n);
    line += "\t" + std::to_string(r.buttonCount) + "\t" + std::to_string(r.needAnswer);
    for (const auto &t : r.buttonLabel)
        line += "\t" + TextField(t);
    for (const auto &t : r.buttonIcon)
        line += "\t" + TextField(t);
    return line;
}

bool ParseRecordLine(const std::string &line, Record &r)
{
    std::vector<std::string> f = SplitTabs(line);
    if (f.size() != 22)
        return false;
    bool ok = ParseInt(f[0], r.version) && ParseInt(f[1], r.popup) && ParseInt(f[2], r.style) &&
              ParseTextField(f[3], r.appId) && ParseInt(f[4], r.itemId);
    for (int i = 0; i < 3; ++i)
        ok = ok && ParseInt(f[5 + i], r.reserved1[i]) && ParseInt(f[11 + i], r.reserved2[i]);
    ok = ok && ParseTextField(f[8], r.title) && ParseTextField(f[9], r.body) && ParseTextField(f[10], r.subText) &&
         ParseInt(f[14], r.buttonCount) && ParseInt(f[15], r.needAnswer);
    for (int i = 0; i < 3; ++i)
        ok = ok && ParseTextField(f[16 + i], r.buttonLabel[i]) && ParseTextField(f[19 + i], r.buttonIcon[i]);
    return ok;
}

std::string LaunchLine(const tvhost::apps::Launch &launch)
{
    std::string line =
        "LAUNCH\t" + std::to_string(launch.result) + "\t" + Escape(launch.appId) + "\t" + Escape(launch.operation);
    for (const auto &kv : launch.extraData)
        line += "\t" + Escape(kv.first) + "\t" + Escape(kv.second);
    return line;
}

bool ParseLaunchLine(const std::string &line, tvhost::apps::Launch &launch)
{
    std::vector<std::string> f = SplitTabs(line);
    if (f.size() < 4 || f.size() % 2 != 0 || f[0] != "LAUNCH" || !ParseInt(f[1], launch.result) ||
        !Unescape(f[2], launch.appId) || !Unescape(f[3], launch.operation))
        return false;
    launch.extraData.clear();
    for (size_t i = 4; i + 1 < f.size(); i += 2) {
        std::string key, value;
        if (!Unescape(f[i], key) || !Unescape(f[i + 1], value))
            return false;
        launch.extraData.emplace_back(key, value);
    }
    return true;
}

bool MakeAddress(const std::string &path, sockaddr_un &addr)
{
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool SendAll(int fd, const std::string &data)
{
    for (size_t done = 0; done < data.size();) {
        ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

void Warn(const std::string &text)
{
    std::string line = "tvhost: " + text + "\n";
    (void)!write(STDERR_FILENO, line.data(), line.size());
}

struct Control {
    std::mutex mutex; // serialises start and stop
    std::thread thread;
    int nListenFd = -1;
    int nWakeFd = -1;
    std::string strPath;
    std::atomic<bool> bStop{false};
};

// Never destroyed, like the service: its thread is joined by StopControl.
Control &C()
{
    static Control *c = new Control;
    return *c;
}

// Waits until the delivery of ticket has run; false when the service closed
// (or the control socket stops) first.
bool WaitFor(const Ticket &ticket)
{
    Service &s = S();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.idle.wait(lock,
                [&] { return s.nDoneSeq >= ticket.nSeq || s.nGeneration != ticket.nGeneration || C().bStop.load(); });
    return s.nDoneSeq >= ticket.nSeq;
}

std::string Answer(const std::string &request)
{
    char word[16] = {};
    char extra[2] = {};
    int nItem = 0;
    int nButton = 0;
    int nFields = std::sscanf(request.c_str(), "%15s %d %d %1s", word, &nItem, &nButton, extra);
    const std::string verb = word;
    if (verb == "PING" && nFields == 1)
        return "OK " + std::to_string(getpid()) + "\n";
    if (verb == "LIST" && nFields == 1) {
        std::vector<Record> shown = Shown();
        std::string answer = "OK " + std::to_string(shown.size()) + "\n";
        for (const Record &r : shown)
            answer += RecordLine(r) + "\n";
        return answer;
    }
    const bool bPress = verb == "PRESS" && nFields == 3;
    const bool bTimeout = verb == "TIMEOUT" && nFields == 2;
    if (!bPress && !bTimeout)
        return "ERROR unknown request \"" + Escape(request) +
               "\"; expected PING, LIST, PRESS <item> <button> or TIMEOUT <item>\n";

    const size_t nLaunchesBefore = tvhost::apps::Launches().size();
    Ticket ticket;
    std::string why;
    if (!QueueChecked({bPress, nItem, bPress ? nButton : 0}, ticket, why))
        return "ERROR " + Escape(why) + "\n";
    if (!WaitFor(ticket))
        return "ERROR the notification service closed before the " + std::string(bPress ? "press" : "timeout") +
               " was delivered\n";
    if (!bPress)
        return "OK\n";
    // The button callbacks are the only launchers in the service, and they run
    // one at a time on the delivery thread: what is new came from this press.
    std::vector<tvhost::apps::Launch> launches = tvhost::apps::Launches();
    std::string answer = "OK " + std::to_string(launches.size() - std::min(nLaunchesBefore, launches.size())) + "\n";
    for (size_t i = nLaunchesBefore; i < launches.size(); ++i)
        answer += LaunchLine(launches[i]) + "\n";
    return answer;
}

void ServeClient(int fd)
{
    timeval io{kClientIoSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &io, sizeof io);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &io, sizeof io);
    std::string request;
    char c = 0;
    while (request.size() <= kMaxRequest) {
        ssize_t n = recv(fd, &c, 1, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || c == '\n')
            break;
        request += c;
    }
    if (c != '\n') {
        SendAll(fd, "ERROR expected one request line of at most " + std::to_string(kMaxRequest) + " bytes\n");
        return;
    }
    SendAll(fd, Answer(request));
}

void ControlLoop(int nListenFd, int nWakeFd)
{
    for (;;) {
        pollfd fds[2] = {{nListenFd, POLLIN, 0}, {nWakeFd, POLLIN, 0}};
        int n = poll(fds, 2, -1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || C().bStop.load() || (fds[1].revents & POLLIN))
            return;
        if (!(fds[0].revents & POLLIN))
            continue;
        int fd = accept4(nListenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        ServeClient(fd);
        close(fd);
    }
}

// A socket file left by a process that died refuses connections; one that
// answers belongs to a live service.
bool SomeoneListens(const sockaddr_un &addr)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    bool bLive = connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return bLive;
}

void StartControl()
{
    Control &c = C();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (c.thread.joinable())
        return;
    const std::string path = ControlSocketPath();
    sockaddr_un addr;
    if (!MakeAddress(path, addr)) {
        Warn("the notification control socket path is too long (" + std::to_string(path.size()) + " bytes, at most " +
             std::to_string(sizeof addr.sun_path - 1) + "): " + path +
             "; lumora-tv cannot reach this service. Build in a tree with a shorter path.");
        return;
    }
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    if (SomeoneListens(addr)) {
        Warn("another service on this host TV serves " + path +
             "; lumora-tv cannot reach this one. Stop the other one first.");
        return;
    }
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0 || wake < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 8) != 0) {
        Warn("cannot serve " + path + " (" + std::strerror(errno) + "); lumora-tv cannot reach this service");
        if (fd >= 0)
            close(fd);
        if (wake >= 0)
            close(wake);
        return;
    }
    c.nListenFd = fd;
    c.nWakeFd = wake;
    c.strPath = path;
    c.bStop = false;
    c.thread = std::thread(ControlLoop, fd, wake);
}

void StopControl()
{
    Control &c = C();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (!c.thread.joinable())
        return;
    c.bStop = true;
    uint64_t one = 1;
    (void)!write(c.nWakeFd, &one, sizeof one);
    {
        // A request waiting for its delivery gives up.
        std::lock_guard<std::mutex> serviceLock(S().mutex);
        S().idle.notify_all();
    }
    c.thread.join();
    close(c.nListenFd);
    close(c.nWakeFd);
    unlink(c.strPath.c_str());
    c.nListenFd = c.nWakeFd = -1;
    c.bStop = false;
}

// Sends one request and reads the answer lines; false with the reason when
// nobody answers or the answer is an error.
bool Request(const std::string &request, std::vector<std::string> &lines, remote::Error &error)
{
    lines.clear();
    const std::string path = ControlSocketPath();
    sockaddr_un addr;
    if (!MakeAddress(path, addr)) {
        error.text = "the notification control socket path is too long: " + path;
        return false;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error.text = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        const int err = errno;
        close(fd);
        error.bNoService = err == ENOENT || err == ECONNREFUSED;
        error.text = error.bNoService ? "no service is running on this host TV (nothing answers on " + path + ")"
                                      : "cannot reach the service at " + path + ": " + std::strerror(err);
        return false;
    }
    timeval answerTimeout{kRemoteAnswerSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &answerTimeout, sizeof answerTimeout);
    std::string answer;
    bool bSent = SendAll(fd, request + "\n");
    char buf[4096];
    while (bSent) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            close(fd);
            error.text = errno == EAGAIN || errno == EWOULDBLOCK
                             ? "the service did not answer within " + std::to_string(kRemoteAnswerSeconds) + " s"
                             : std::string("reading the answer: ") + std::strerror(errno);
            return false;
        }
        if (n == 0)
            break;
        answer.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    if (!bSent) {
        error.text = "the service closed the connection before the request was sent";
        return false;
    }
    size_t start = 0;
    while (start < answer.size()) {
        size_t nl = answer.find('\n', start);
        if (nl == std::string::npos) {
            error.text = "the service's answer was cut short";
            return false;
        }
        lines.push_back(answer.substr(start, nl - start));
        start = nl + 1;
    }
    if (lines.empty()) {
        error.text = "the service closed the connection without an answer";
        return false;
    }
    if (lines[0].compare(0, 6, "ERROR ") == 0) {
        if (!Unescape(lines[0].substr(6), error.text))
            error.text = lines[0].substr(6);
        return false;
    }
    if (lines[0] != "OK" && lines[0].compare(0, 3, "OK ") != 0) {
        error.text = "unexpected answer from the service: " + lines[0];
        return false;
    }
    return true;
}

// The count of an "OK <count>" answer, with that many lines after it.
bool CountedLines(const std::vector<std::string> &lines, size_t &count, remote::Error &error)
{
    int n = 0;
    if (lines[0].size() < 4 || !ParseInt(lines[0].substr(3), n) || n < 0 ||
        lines.size() != static_cast<size_t>(n) + 1) {
        error.text = "malformed answer from the service: " + lines[0];
        return false;
    }
    count = static_cast<size_t>(n);
    return true;
}

} // namespace

namespace remote {

bool Ping(int &pid, Error &error)
{
    std::vector<std::string> lines;
    if (!Request("PING", lines, error))
        return false;
    if (lines[0].size() < 4 || !ParseInt(lines[0].substr(3), pid)) {
        error.text = "malformed answer from the service: " + lines[0];
        return false;
    }
    return true;
}

bool Shown(std::vector<Record> &records, Error &error)
{
    records.clear();
    std::vector<std::string> lines;
    size_t count = 0;
    if (!Request("LIST", lines, error) || !CountedLines(lines, count, error))
        return false;
    for (size_t i = 1; i <= count; ++i) {
        Record r;
        if (!ParseRecordLine(lines[i], r)) {
            error.text = "malformed notification in the service's answer: " + lines[i];
            return false;
        }
        records.push_back(r);
    }
    return true;
}

bool PressButton(int itemId, int buttonIndex, std::vector<apps::Launch> &launches, Error &error)
{
    launches.clear();
    std::vector<std::string> lines;
    size_t count = 0;
    if (!Request("PRESS " + std::to_string(itemId) + " " + std::to_string(buttonIndex), lines, error) ||
        !CountedLines(lines, count, error))
        return false;
    for (size_t i = 1; i <= count; ++i) {
        apps::Launch launch;
        if (!ParseLaunchLine(lines[i], launch)) {
            error.text = "malformed launch in the service's answer: " + lines[i];
            return false;
        }
        launches.push_back(launch);
    }
    return true;
}

bool TimeOut(int itemId, Error &error)
{
    std::vector<std::string> lines;
    return Request("TIMEOUT " + std::to_string(itemId), lines, error);
}

} // namespace remote

} // namespace notifications
} // namespace tvhost

using tvhost::notifications::S;

extern "C" int init_notification_data_manager(const char *app_id, int flags)
{
    (void)flags;
    auto &s = S();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        int nFault;
        if (tvhost::notifications::Enter(s, __func__, nFault))
            return nFault;
        if (!app_id || !*app_id)
            return -1;
        s.bInitialised = true;
        s.strAppId = app_id;
        tvhost::notifications::StartDelivery(s);
    }
    tvhost::notifications::StartControl();
    return 0;
}

extern "C" int register_notification_button_callback(notification_button_cb callback, void *user_data)
{
    auto &s = S();
    std::lock_guard<std::mutex> lock(s.mutex);
    int nFault;
    if (tvhost::notifications::Enter(s, __func__, nFault))
        return nFault;
    if (!s.bInitialised)
        return -1;
    s.pButtonCb = callback;
    s.pButtonData = user_data;
    return 0;
}

extern "C" int register_notification_timeout_callback(notification_timeout_cb callback, void *user_data)
{
    auto &s = S();
    std::lock_guard<std::mutex> lock(s.mutex);
    int nFault;
    if (tvhost::notifications::Enter(s, __func__, nFault))
        return nFault;
    if (!s.bInitialised)
        return -1;
    s.pTimeoutCb = callback;
    s.pTimeoutData = user_data;
    return 0;
}

extern "C" int add_notification_data(const notification_data_t *data)
{
    auto &s = S();
    tvhost::notifications::Record record;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        int nFault;
        if (tvhost::notifications::Enter(s, __func__, nFault))
            return nFault;
        if (!s.bInitialised || !data || data->button_count < 0 || data->button_count > NOTIFICATION_DATA_MAX_BUTTON)
            return -1;
        record = tvhost::notifications::CopyRecord(*data);
        s.posted.push_back(record);
        tvhost::detail::TrimHistory(s.posted);
        s.shown[record.itemId] = record;
    }
    if (tvhost::notifications::Drawing())
        tvhost::notifications::Draw(tvhost::notifications::Render(record));
    return 0;
}

extern "C" int remove_notification_data(const char *app_id, int item_id)
{
    auto &s = S();
    std::string strAppId = app_id ? app_id : "";
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        int nFault;
        if (tvhost::notifications::Enter(s, __func__, nFault))
            return nFault;
        auto it = s.shown.find(item_id);
        bool bFound = it != s.shown.end() && it->second.appId.value_or("") == strAppId;
        s.removals.push_back({strAppId, item_id, bFound});
        tvhost::detail::TrimHistory(s.removals);
        if (!bFound)
            return -1;
        s.shown.erase(it);
    }
    tvhost::notifications::Draw("(" + strAppId + " #" + std::to_string(item_id) + " closed)\n");
    return 0;
}

extern "C" int close_notification_data_manager(void)
{
    auto &s = S();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        int nFault;
        if (tvhost::notifications::Enter(s, __func__, nFault))
            return nFault;
        if (!s.bInitialised)
            return -1;
        s.bInitialised = false;
        s.pButtonCb = nullptr;
        s.pButtonData = nullptr;
        s.pTimeoutCb = nullptr;
        s.pTimeoutData = nullptr;
    }
    tvhost::notifications::StopDelivery();
    tvhost::notifications::StopControl();
    return 0;
}
