// The replay plan: what one run of the service logged, read back into the
// engine's events, the TV's and the viewer's actions, and what the service
// did. It knows the service's log texts; nothing else here does.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <libxml/parser.h>
#include <map>

#include "tvhost/parse.h"
#include "tvhost/service.h"
#include "tvlog/tvlog.h"

namespace tvlog {

namespace {

constexpr char kEventEntry[] = "Enter LumoraManager::OnQorvEvent, event type is ";
constexpr char kParam1[] = ", strParam1 = ";
constexpr char kParam2[] = ", strParam2 = ";
constexpr char kPress[] = "m_OnNotificationButtonCallback: nItemId = ";
constexpr char kNetwork[] = "m_ConnectionTypeChangedCB() is called. type : ";
constexpr char kLanguage[] = "Current Language is ";

struct Line {
    std::string function;
    std::string message;
};

// "File.cpp:Function(123)>message"
bool SplitPrefix(const std::string &text, Line &out)
{
    size_t gt = text.find(")>");
    if (gt == std::string::npos)
        return false;
    size_t open = text.rfind('(', gt);
    size_t colon = text.find(':');
    if (open == std::string::npos || colon == std::string::npos || colon > open)
        return false;
    out.function = text.substr(colon + 1, open - colon - 1);
    out.message = text.substr(gt + 2);
    return true;
}

bool StartsWith(const std::string &s, const char *prefix)
{
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

bool Contains(const std::string &s, const char *part)
{
    return s.find(part) != std::string::npos;
}

// The longest wait between two steps of a replay; a longer gap in the log
// (a TV left on for days) is noted and shortened to it.
constexpr int64_t kMaxWaitMs = 60000;

// "20 d", "3 h", "90 s", "1500 ms".
std::string Duration(int64_t ms)
{
    if (ms >= 2 * 86400000LL)
        return std::to_string(ms / 86400000) + " d";
    if (ms >= 2 * 3600000LL)
        return std::to_string(ms / 3600000) + " h";
    if (ms >= 2000)
        return std::to_string(ms / 1000) + " s";
    return std::to_string(ms) + " ms";
}

// The number at the start of a logged text ("3, ..."); 0 when there is none.
int LeadingInt(const std::string &text)
{
    size_t n = text.compare(0, 1, "-") == 0 ? 1 : 0;
    while (n < text.size() && n < 12 && text[n] >= '0' && text[n] <= '9')
        ++n;
    int value = 0;
    return tvhost::ParseInt(std::string_view(text).substr(0, n), value) ? value : 0;
}

std::string Unescape(const std::string &s)
{
    static const std::pair<const char *, char> kEntities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        bool bDone = false;
        for (const auto &e : kEntities)
            if (s.compare(i, std::strlen(e.first), e.first) == 0) {
                out += e.second;
                i += std::strlen(e.first) - 1;
                bDone = true;
                break;
            }
        if (!bDone)
            out += s[i];
    }
    return out;
}

// The id attribute of the first <Device> element: the device a press on the
// pop-up opens the widget for. Read by hand: a cut text still names it.
std::string DeviceId(const std::string &xml)
{
    for (size_t at = xml.find("<Device"); at != std::string::npos; at = xml.find("<Device", at + 1)) {
        char after = at + 7 < xml.size() ? xml[at + 7] : '\0';
        if (after != ' ' && after != '\t' && after != '\n' && after != '>' && after != '/')
            continue;
        size_t end = xml.find('>', at);
        std::string tag = xml.substr(at, end == std::string::npos ? std::string::npos : end - at);
        for (const char *quote : {"\"", "'"}) {
            std::string key = std::string(" id=") + quote;
            size_t k = tag.find(key);
            if (k == std::string::npos)
                continue;
            size_t close = tag.find(quote, k + key.size());
            if (close != std::string::npos)
                return Unescape(tag.substr(k + key.size(), close - k - key.size()));
        }
        return "";
    }
    return "";
}

} // namespace

bool WellFormed(const std::string &text)
{
    if (text.empty())
        return true;
    std::string why;
    xmlDocPtr doc = ParseUntrusted(text, why);
    if (!doc)
        return false;
    xmlFreeDoc(doc);
    return true;
}

bool ValidUtf8(std::string_view s)
{
    size_t i = 0;
    while (i < s.size()) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        size_t n = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : 9;
        if (n == 9 || (n == 1 && c < 0xC2) || i + n >= s.size() + (n ? 0 : 1))
            return false;
        uint32_t cp = n == 0 ? c : c & (0x3F >> n);
        for (size_t k = 1; k <= n; ++k) {
            unsigned char d = static_cast<unsigned char>(s[i + k]);
            if ((d & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (d & 0x3F);
        }
        if ((n == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) || (n == 3 && (cp < 0x10000 || cp > 0x10FFFF)))
            return false;
        i += n + 1;
    }
    return true;
}

const char *StepName(StepKind kind)
{
    switch (kind) {
    case StepKind::kEvent: return "Event";
    case StepKind::kLanguage: return "Language";
    case StepKind::kNetwork: return "Network";
    case StepKind::kInstall: return "Install";
    case StepKind::kUninstall: return "Uninstall";
    case StepKind::kLaunch: return "Launch";
    case StepKind::kClose: return "Close";
    case StepKind::kPress: return "Press";
    }
    return "?";
}

std::string Describe(const Outcome &o)
{
    switch (o.kind) {
    case Outcome::Kind::kShown:
        return "pop-up #" + std::to_string(o.item) + " shown: " + o.popup +
               (o.device.empty() ? "" : " (device " + o.device + ")");
    case Outcome::Kind::kNotShown:
        return o.popup + " pop-up not shown" + (o.device.empty() ? "" : " (device " + o.device + ")");
    case Outcome::Kind::kLaunch:
        return std::string(o.bOk ? "widget launched" : "widget launch failed") + " from pop-up #" +
               std::to_string(o.item) + " with deviceID=" + o.device;
    case Outcome::Kind::kPowerOff: return o.bOk ? "TV switched off" : "power-off refused";
    }
    return "?";
}

bool operator==(const Outcome &a, const Outcome &b)
{
    return a.kind == b.kind && a.popup == b.popup && a.item == b.item && a.device == b.device && a.bOk == b.bOk;
}

struct Planner::Impl {
    int64_t gapMs;
    Plan plan;
    std::optional<int64_t> engineStartMs;
    size_t firstAfterStart = SIZE_MAX; // index of the first step after the engine start
    std::optional<size_t> context;     // the event or press whose handling logs now
    std::string eventDevice;           // of the event being handled
    std::optional<Outcome> pendingNotice;
    std::map<int, std::string> itemDevice;
    int nItems = 0;
    std::optional<bool> installed, running;
    std::optional<std::string> language;
    bool bNetworkSeen = false;

    void Settle()
    {
        if (pendingNotice) // no "show" line: the display flag was off
            plan.outcomes.push_back(*pendingNotice);
        pendingNotice.reset();
    }

    Step &Append(StepKind kind, const Record &r)
    {
        Step s;
        s.kind = kind;
        s.line = r.line;
        s.ms = r.ms.value_or(0);
        plan.steps.push_back(std::move(s));
        return plan.steps.back();
    }

    // A state change the service found while handling an event or a press
    // happened before that event or press.
    void Before(StepKind kind, const Record &r)
    {
        if (!context) {
            Append(kind, r);
            return;
        }
        Step s;
        s.kind = kind;
        s.line = r.line;
        s.ms = plan.steps[*context].ms;
        plan.steps.insert(plan.steps.begin() + static_cast<long>(*context), std::move(s));
        ++*context;
    }

    void Widget(bool bInstalledLine, bool bValue, const Record &r)
    {
        std::optional<bool> &known = bInstalledLine ? installed : running;
        bool &start = bInstalledLine ? plan.start.widget.bInstalled : plan.start.widget.bRunning;
        if (!known)
            start = bValue;
        else if (*known != bValue)
            Before(bInstalledLine ? (bValue ? StepKind::kInstall : StepKind::kUninstall)
                                  : (bValue ? StepKind::kLaunch : StepKind::kClose),
                   r);
        known = bValue;
    }

    void Event(const Record &r, const std::string &message)
    {
        Settle();
        Step &s = Append(StepKind::kEvent, r);
        std::string rest = message.substr(std::strlen(kEventEntry));
        size_t p1 = rest.find(kParam1);
        if (!tvhost::ParseInt(rest.substr(0, p1), s.event)) {
            // The note is printed: only printable ASCII of the log's text goes into it.
            std::string number = rest.substr(0, std::min<size_t>(p1, 20));
            for (char &c : number)
                if (c < 0x20 || c > 0x7E)
                    c = '?';
            plan.notes.push_back("line " + std::to_string(r.line) + ": event number \"" + number +
                                 "\" is not a whole number; left out");
            plan.steps.pop_back();
            return;
        }
        if (p1 == std::string::npos) {
            s.bWellFormed = false;
        } else {
            rest = rest.substr(p1 + std::strlen(kParam1));
            size_t p2 = rest.rfind(kParam2);
            if (p2 == std::string::npos) {
                s.param1 = rest;
                s.bWellFormed = false;
            } else {
                s.param1 = rest.substr(0, p2);
                s.param2 = rest.substr(p2 + std::strlen(kParam2));
            }
        }
        const tvhost::service::EventKind *kind = tvhost::service::FindEventKind(s.event);
        const bool bDocument = kind && kind->bDocument;
        if (bDocument && s.bWellFormed)
            s.bWellFormed = WellFormed(s.param1);
        eventDevice = s.event == tvhost::service::kDeviceNotification ? DeviceId(s.param1) : "";
        context = plan.steps.size() - 1;
    }

    void Add(const Record &r)
    {
        if (r.tag != kServiceTag)
            return;
        if (!ValidUtf8(r.text))
            throw Error("line " + std::to_string(r.line) + " of the service is not valid UTF-8; the log is damaged");
        if (r.ms)
            plan.bTimed = true;
        if (r.bBadTime)
            plan.notes.push_back("line " + std::to_string(r.line) +
                                 ": a time no clock shows; kept, at the time of the line before it");
        Line l;
        if (!SplitPrefix(r.text, l))
            return;
        const std::string &f = l.function;
        if (f == "OnQorvEvent" && StartsWith(l.message, kEventEntry)) {
            Event(r, l.message);
            return;
        }
        // Only event texts hold new lines; what follows another line is not
        // the service's (a host TV's log may hold drawings and traces).
        const std::string m = l.message.substr(0, l.message.find('\n'));
        if (f == "m_OnNotificationButtonCallback" && StartsWith(m, kPress)) {
            Settle();
            Step &s = Append(StepKind::kPress, r);
            s.item = LeadingInt(m.substr(std::strlen(kPress)));
            context = plan.steps.size() - 1;
        } else if (f == "m_CbWasAppChanged" || f == "t_Loop" || f == "m_WidgetCheckerPipeCB" ||
                   f == "m_CbSystemLanguageChanged" || f == "m_ConnectionTypeChangedCB") {
            context.reset();
        }
        if (StartsWith(m, "=== The widget ") && Contains(m, " is installed! ==="))
            Widget(true, true, r);
        else if (StartsWith(m, "=== The widget ") && Contains(m, " is not installed! ==="))
            Widget(true, false, r);
        else if (StartsWith(m, "=====The widget ") && Contains(m, " has been launched !====="))
            Widget(false, true, r);
        else if (StartsWith(m, "=====The widget ") && Contains(m, " has not been launched !====="))
            Widget(false, false, r);
        else if (m == "Success to start qorv!") {
            if (!engineStartMs) {
                engineStartMs = r.ms.value_or(0);
                firstAfterStart = plan.steps.size();
            }
        } else if (StartsWith(m, kLanguage) && (f == "m_WidgetCheckerPipeCB" || f == "m_CbSystemLanguageChanged")) {
            std::string value = m.substr(std::strlen(kLanguage));
            if (!language)
                plan.start.language = value;
            else if (*language != value)
                Append(StepKind::kLanguage, r).value = value;
            language = value;
        } else if (StartsWith(m, kNetwork)) {
            int type = LeadingInt(m.substr(std::strlen(kNetwork)));
            const char *name = type == 1 ? "wifi" : type == 3 ? "ethernet" : type == 0 ? "none" : nullptr;
            if (!name) {
                plan.notes.push_back("line " + std::to_string(r.line) + ": network type " + std::to_string(type) +
                                     " cannot be set on the host TV; left out");
                return;
            }
            if (!bNetworkSeen && plan.start.network == name)
                plan.start.network = type == 3 ? "none" : "ethernet"; // it changed, so it was something else
            bNetworkSeen = true;
            Append(StepKind::kNetwork, r).value = name;
        } else if (m == "LumoraNotification::m_AddDeviceNotification") {
            Settle();
            pendingNotice = Outcome{Outcome::Kind::kNotShown, "device", 0, eventDevice, true, r.line};
        } else if (m == "LumoraNotification::m_AddDeviceNotification show the notification") {
            pendingNotice.reset();
            itemDevice[++nItems] = eventDevice;
            plan.outcomes.push_back({Outcome::Kind::kShown, "device", nItems, eventDevice, true, r.line});
        } else if (m == "LumoraNotification::m_AddDeviceNotification this is notification is no need to show") {
            pendingNotice.reset();
            plan.outcomes.push_back({Outcome::Kind::kNotShown, "device", 0, eventDevice, true, r.line});
        } else if (m == "LumoraNotification::m_AddNewDeviceFound" ||
                   m == "LumoraNotification::m_AddUnknownDeviceFound") {
            itemDevice[++nItems] = "";
            plan.outcomes.push_back({Outcome::Kind::kShown, "new device", nItems, "", true, r.line});
        } else if (m == "=== Succeeded to launch a WebApp =====" || m == "=== Failed to launch a WebApp =====" ||
                   (StartsWith(m, "=====The widget ") && Contains(m, " has not been installed ====="))) {
            bool bOk = m[4] == 'S';
            int item = 0;
            if (context && plan.steps[*context].kind == StepKind::kPress) {
                plan.steps[*context].button = 1;
                item = plan.steps[*context].item;
            }
            plan.outcomes.push_back({Outcome::Kind::kLaunch, "", item, itemDevice[item], bOk, r.line});
            if (bOk)
                running = true;
        } else if (m == "CLumoraTvControl success to power off the TV!" ||
                   m == "CLumoraTvControl failed to power off the TV!") {
            plan.outcomes.push_back({Outcome::Kind::kPowerOff, "", 0, "", m[17] == 's', r.line});
        }
    }

    Plan Finish()
    {
        Settle();
        // Times after the engine start; without times, gapMs between steps.
        size_t first = std::min(firstAfterStart, plan.steps.size());
        int64_t base = engineStartMs.value_or(plan.steps.empty() ? 0 : plan.steps[0].ms);
        int64_t shift = 0;           // taken off by the long gaps so far
        int64_t latest = base;       // the log's latest time up to the step before
        std::optional<int64_t> prev; // the log's time of the step before
        size_t prevLine = 0;
        for (size_t i = 0; i < plan.steps.size(); ++i) {
            Step &s = plan.steps[i];
            if (!plan.bTimed) {
                s.ms = i < first ? 0 : static_cast<int64_t>(i - first + 1) * gapMs;
                continue;
            }
            const int64_t logged = s.ms;
            // Threads write a little out of order; more than a second back is the clock set back.
            if (prev && logged < *prev - 1000)
                plan.notes.push_back("line " + std::to_string(s.line) + ": the log's clock goes back " +
                                     Duration(*prev - logged) + " from line " + std::to_string(prevLine) +
                                     "; replayed in the log's order, at once");
            if (i >= first && logged - latest > kMaxWaitMs) {
                plan.notes.push_back("line " + std::to_string(s.line) + ": the log's clock jumps " +
                                     Duration(logged - latest) + " ahead; the replay waits " + Duration(kMaxWaitMs) +
                                     " there instead");
                shift += logged - latest - kMaxWaitMs;
            }
            s.ms = logged - base - shift;
            if (i >= first)
                latest = std::max(latest, logged);
            prev = logged;
            prevLine = s.line;
        }
        return std::move(plan);
    }
};

Planner::Planner(int64_t gapMs) : m_impl(std::make_shared<Impl>())
{
    m_impl->gapMs = gapMs;
}

void Planner::Add(const Record &record)
{
    m_impl->Add(record);
}

Plan Planner::Finish()
{
    return m_impl->Finish();
}

std::vector<Difference> Compare(const std::vector<Outcome> &a, const std::vector<Outcome> &b)
{
    std::vector<Difference> out;
    size_t i = 0, j = 0;
    while (i < a.size() || j < b.size()) {
        if (i < a.size() && j < b.size() && a[i] == b[j]) {
            ++i, ++j;
        } else if (i < a.size() && j + 1 < b.size() && a[i] == b[j + 1]) {
            out.push_back({std::nullopt, b[j++]});
        } else if (j < b.size() && i + 1 < a.size() && a[i + 1] == b[j]) {
            out.push_back({a[i++], std::nullopt});
        } else {
            Difference d;
            if (i < a.size())
                d.logged = a[i++];
            if (j < b.size())
                d.replayed = b[j++];
            out.push_back(d);
        }
    }
    return out;
}

} // namespace tvlog
