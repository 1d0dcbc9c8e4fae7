// The notification-data service on the host: keeps copies of the posted
// notifications, draws each one as a box on the terminal, and delivers the
// viewer's button presses and timeouts on a thread of its own.
#include <notification_data.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "registry.h"
#include "tvhost/notifications.h"

namespace tvhost {
namespace notifications {
namespace {

struct Delivery {
    bool bButton;
    int nItemId;
    int nButtonIndex;
};

struct Service {
    std::mutex mutex;
    std::condition_variable wake;  // the delivery thread waits on it
    std::condition_variable idle;  // WaitDelivered waits on it

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
    std::map<std::string, std::deque<int>> faults;

    std::deque<Delivery> queue;
    bool bBusy = false;
    int nDelivered = 0;
    // A delivery thread runs while its generation is the current one.
    unsigned long nGeneration = 0;
    std::thread worker;
};

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

struct StopAtExit {
    ~StopAtExit() { StopDelivery(); }
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
    int n = 0;
    for (const auto &c : S().calls)
        n += (c == fn);
    return n;
}

void QueueResult(const std::string &fn, int result)
{
    std::lock_guard<std::mutex> lock(S().mutex);
    S().faults[fn].push_back(result);
}

namespace {
bool Queue(const Delivery &d)
{
    Service &s = S();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.bInitialised || !s.worker.joinable())
        return false;
    auto it = s.shown.find(d.nItemId);
    if (it == s.shown.end())
        return false;
    if (d.bButton && (d.nButtonIndex < 0 || d.nButtonIndex >= it->second.buttonCount))
        return false;
    s.queue.push_back(d);
    s.wake.notify_all();
    return true;
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
        return;  // from inside a callback nothing else can be delivered meanwhile
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
    s.faults.clear();
    s.bBusy = false;
    s.nDelivered = 0;
});
} // namespace

} // namespace notifications
} // namespace tvhost

using tvhost::notifications::S;

extern "C" int init_notification_data_manager(const char *app_id, int flags)
{
    (void)flags;
    auto &s = S();
    std::lock_guard<std::mutex> lock(s.mutex);
    int nFault;
    if (tvhost::notifications::Enter(s, __func__, nFault))
        return nFault;
    if (!app_id || !*app_id)
        return -1;
    s.bInitialised = true;
    s.strAppId = app_id;
    tvhost::notifications::StartDelivery(s);
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
        s.shown[record.itemId] = record;
    }
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
    return 0;
}
