// The replay file: the simulated engine's mode file holding the logged events
// as <Raw> steps, with the TV's side and the expected outcomes in <Tv>, which
// the engine skips.
#include <algorithm>
#include <cstring>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <zlib.h>

#include "tvhost/parse.h"
#include "tvhost/untrusted_xml.h"
#include "tvlog/tvlog.h"

namespace tvlog {

namespace {

// Characters XML 1.0 cannot hold, even as references: control characters
// and U+FFFE, U+FFFF.
bool NeedsHex(const std::string &s)
{
    for (size_t i = 0; i < s.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c < 0x20 && c != '\t' && c != '\n' && c != '\r')
            return true;
        if (c == 0xEF && s.compare(i + 1, 1, "\xBF") == 0 && i + 2 < s.size() &&
            (s[i + 2] == '\xBE' || s[i + 2] == '\xBF'))
            return true;
    }
    return false;
}

std::string Hex(const std::string &s)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : s)
        out += digits[c >> 4], out += digits[c & 15];
    return out;
}

std::string Unhex(const std::string &s)
{
    auto value = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
    std::string out;
    for (size_t i = 0; i + 1 < s.size(); i += 2)
        out += static_cast<char>(value(s[i]) * 16 + value(s[i + 1]));
    return out;
}

std::string Escape(const std::string &s, bool bAttribute)
{
    std::string out;
    out.reserve(s.size());
    for (char c : s) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '\r': out += "&#13;"; break;
        case '"': out += bAttribute ? "&quot;" : "\""; break;
        case '\n': out += bAttribute ? "&#10;" : "\n"; break;
        case '\t': out += bAttribute ? "&#9;" : "\t"; break;
        default: out += c;
        }
    }
    return out;
}

// A comment may not hold "--".
std::string Comment(std::string text)
{
    for (size_t at; (at = text.find("--")) != std::string::npos;)
        text.replace(at, 2, "- -");
    return Escape(text, false);
}

// Other texts (a language, a device id) keep only what XML can hold.
std::string Attr(const std::string &name, const std::string &value)
{
    return " " + name + "=\"" + Escape(NeedsHex(value) ? "(" + Hex(value) + ")" : value, true) + "\"";
}

std::string YesNo(bool b)
{
    return b ? "yes" : "no";
}

std::string Get(xmlNode *node, const char *name)
{
    xmlChar *v = xmlGetProp(node, reinterpret_cast<const xmlChar *>(name));
    if (!v)
        return "";
    std::string s(reinterpret_cast<const char *>(v));
    xmlFree(v);
    return s;
}

// A whole number of an attribute (absent: 0); a damaged one is refused with its line.
long Number(xmlNode *node, const char *name)
{
    xmlChar *v = xmlGetProp(node, reinterpret_cast<const xmlChar *>(name));
    if (!v)
        return 0;
    const std::string text(reinterpret_cast<const char *>(v));
    xmlFree(v);
    long value = 0;
    if (!tvhost::ParseInt(text, value))
        throw Error("line " + std::to_string(xmlGetLineNo(node)) + ": " + name + "=\"" + text.substr(0, 40) +
                    "\" is not a whole number");
    return value;
}

// At most max bytes of a file, plain or gzip-compressed; more is refused.
std::string ReadBounded(const std::string &path, size_t max)
{
    gzFile f = gzopen(LocalFile(path).c_str(), "rb");
    if (!f)
        throw Error("cannot read " + path + ": " + std::strerror(errno ? errno : ENOENT));
    std::string text;
    char buffer[1 << 16];
    int n;
    while ((n = gzread(f, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() > max) {
            gzclose(f);
            throw Error(path + " is larger than " + std::to_string(max >> 20) + " MiB; not a replay file");
        }
    }
    gzclose(f);
    if (n < 0)
        throw Error(path + ": the compressed data is damaged or cut short");
    return text;
}

bool Is(xmlNode *node, const char *name)
{
    return node->type == XML_ELEMENT_NODE && !std::strcmp(reinterpret_cast<const char *>(node->name), name);
}

std::string Content(xmlNode *node)
{
    xmlChar *p = xmlNodeGetContent(node);
    std::string s = p ? reinterpret_cast<const char *>(p) : "";
    xmlFree(p);
    return s;
}

const StepKind kTvKinds[] = {StepKind::kLanguage, StepKind::kNetwork, StepKind::kInstall, StepKind::kUninstall,
                             StepKind::kLaunch,   StepKind::kClose,   StepKind::kPress};

} // namespace

std::string WriteReplayFile(const Plan &plan, const std::string &source)
{
    std::string out =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!--\n  Replay of " + Escape(source, false) +
        ", the run of process " + std::to_string(plan.pid) +
        ", made by lumora-tv scenario from the log.\n  Play it with: lumora-tv replay FILE. The format is "
        "described in quiet.xml.\n-->\n<Mode name=\"replay\">\n  <Home/>\n  <Scenario>\n";
    for (const Step &s : plan.steps) {
        if (s.kind != StepKind::kEvent)
            continue;
        bool bHex = NeedsHex(s.param1) || NeedsHex(s.param2);
        out += "    <At" + Attr("ms", std::to_string(std::max<int64_t>(s.ms, 0))) + "><Raw" +
               Attr("event", std::to_string(s.event)) + Attr("line", std::to_string(s.line));
        if (!s.bWellFormed)
            out += Attr("cut", "yes");
        if (bHex)
            out += Attr("hex", "yes") + Attr("param2", Hex(s.param2)) + ">" + Hex(s.param1);
        else
            out += Attr("param2", s.param2) + ">" + Escape(s.param1, false);
        out += "</Raw></At>\n";
    }
    out += "  </Scenario>\n  <Tv" + Attr("timed", YesNo(plan.bTimed)) + Attr("pid", std::to_string(plan.pid)) +
           ">\n    <Start" + Attr("installed", YesNo(plan.start.widget.bInstalled)) +
           Attr("running", YesNo(plan.start.widget.bRunning)) + Attr("language", plan.start.language) +
           Attr("network", plan.start.network) + "/>\n";
    size_t nEvents = 0;
    for (const Step &s : plan.steps) {
        if (s.kind == StepKind::kEvent) {
            ++nEvents;
            continue;
        }
        out += std::string("    <") + StepName(s.kind) + Attr("ms", std::to_string(s.ms)) +
               Attr("after", std::to_string(nEvents)) + Attr("line", std::to_string(s.line));
        if (s.kind == StepKind::kLanguage || s.kind == StepKind::kNetwork)
            out += Attr("value", s.value);
        if (s.kind == StepKind::kPress)
            out += Attr("item", std::to_string(s.item)) + Attr("button", std::to_string(s.button));
        out += "/>\n";
    }
    out += "    <Expect>\n";
    for (const Outcome &o : plan.outcomes) {
        static const char *const kNames[] = {"Shown", "NotShown", "Launch", "PowerOff"};
        out += std::string("      <") + kNames[static_cast<int>(o.kind)] + Attr("line", std::to_string(o.line));
        if (!o.popup.empty())
            out += Attr("popup", o.popup);
        if (o.item)
            out += Attr("item", std::to_string(o.item));
        if (!o.device.empty())
            out += Attr("device", o.device);
        if (!o.bOk)
            out += Attr("ok", "no");
        out += "/>\n";
    }
    for (const std::string &note : plan.notes)
        out += "      <!-- " + Comment(note) + " -->\n";
    out += "    </Expect>\n  </Tv>\n</Mode>\n";
    return out;
}

_xmlDoc *ParseUntrusted(const std::string &text, std::string &error)
{
    tvhost::xml::Untrusted parsed = tvhost::xml::ParseUntrusted(text, XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    error = parsed.error;
    return parsed.doc;
}

bool IsReplayFile(const std::string &path)
{
    gzFile f = gzopen(LocalFile(path).c_str(), "rb");
    if (!f)
        return false;
    char head[4096];
    int n = gzread(f, head, sizeof head);
    gzclose(f);
    if (n <= 0)
        return false;
    std::string s(head, static_cast<size_t>(n));
    size_t first = s.find_first_not_of(" \t\r\n");
    return first != std::string::npos && s[first] == '<' && s.find("<Mode") != std::string::npos;
}

namespace {

void ReadPlan(xmlDoc *doc, Plan &plan)
{
    std::vector<Step> events;
    std::vector<std::pair<size_t, Step>> tv; // after how many events
    bool bTv = false;
    xmlNode *root = xmlDocGetRootElement(doc);
    for (xmlNode *part = root ? root->children : nullptr; part; part = part->next) {
        if (Is(part, "Scenario")) {
            for (xmlNode *at = part->children; at; at = at->next)
                for (xmlNode *raw = Is(at, "At") ? at->children : nullptr; raw; raw = raw->next) {
                    if (!Is(raw, "Raw"))
                        continue;
                    Step s;
                    s.ms = Number(at, "ms");
                    s.event = static_cast<int>(Number(raw, "event"));
                    s.line = static_cast<size_t>(Number(raw, "line"));
                    s.bWellFormed = Get(raw, "cut") != "yes";
                    bool bHex = Get(raw, "hex") == "yes";
                    s.param1 = bHex ? Unhex(Content(raw)) : Content(raw);
                    s.param2 = bHex ? Unhex(Get(raw, "param2")) : Get(raw, "param2");
                    events.push_back(std::move(s));
                }
        } else if (Is(part, "Tv")) {
            bTv = true;
            plan.bTimed = Get(part, "timed") == "yes";
            plan.pid = static_cast<int>(Number(part, "pid"));
            for (xmlNode *n = part->children; n; n = n->next) {
                if (Is(n, "Start")) {
                    plan.start.widget.bInstalled = Get(n, "installed") != "no";
                    plan.start.widget.bRunning = Get(n, "running") == "yes";
                    plan.start.language = Get(n, "language");
                    plan.start.network = Get(n, "network");
                } else if (Is(n, "Expect")) {
                    static const char *const kNames[] = {"Shown", "NotShown", "Launch", "PowerOff"};
                    for (xmlNode *e = n->children; e; e = e->next)
                        for (int k = 0; k < 4; ++k)
                            if (Is(e, kNames[k]))
                                plan.outcomes.push_back({static_cast<Outcome::Kind>(k), Get(e, "popup"),
                                                         static_cast<int>(Number(e, "item")), Get(e, "device"),
                                                         Get(e, "ok") != "no", static_cast<size_t>(Number(e, "line"))});
                } else {
                    for (StepKind kind : kTvKinds)
                        if (Is(n, StepName(kind))) {
                            Step s;
                            s.kind = kind;
                            s.ms = Number(n, "ms");
                            s.line = static_cast<size_t>(Number(n, "line"));
                            s.value = Get(n, "value");
                            s.item = static_cast<int>(Number(n, "item"));
                            s.button = static_cast<int>(Number(n, "button"));
                            tv.emplace_back(static_cast<size_t>(std::max(0L, Number(n, "after"))), std::move(s));
                        }
                }
            }
        }
    }
    if (!bTv)
        throw Error("a mode file without the TV's side (<Tv>); make one with: lumora-tv scenario --from-log LOG");
    size_t t = 0;
    for (size_t e = 0; e <= events.size(); ++e) {
        for (; t < tv.size() && tv[t].first <= e; ++t)
            plan.steps.push_back(std::move(tv[t].second));
        if (e < events.size())
            plan.steps.push_back(std::move(events[e]));
    }
    for (; t < tv.size(); ++t)
        plan.steps.push_back(std::move(tv[t].second));
}

} // namespace

Plan ReadReplayFile(const std::string &path)
{
    std::string why;
    xmlDocPtr doc = ParseUntrusted(ReadBounded(path, kMaxPiped), why);
    if (!doc)
        throw Error(path + " is not a well-formed replay file: " + why);
    Plan plan;
    try {
        ReadPlan(doc, plan);
    } catch (const Error &e) {
        xmlFreeDoc(doc);
        throw Error(path + ": " + e.what());
    }
    xmlFreeDoc(doc);
    return plan;
}

} // namespace tvlog
