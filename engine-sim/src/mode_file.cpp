// Reading the mode file with libxml2. The file is edited by hand, so every
// problem is reported with its line and reading goes on past it.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <iterator>
#include <set>
#include <sstream>

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include "mode.h"
#include "tvhost/parse.h"
#include "tvhost/untrusted_xml.h"

namespace qorvsim {

namespace {

constexpr long kMaxMs = 24L * 3600 * 1000;
constexpr long kMaxRepeat = 10000000;
constexpr int kMaxXmlErrors = 10;
// A mode file is a few kilobytes; a replay file holds a log's event texts.
constexpr size_t kMaxFile = size_t{256} << 20;

bool Is(const xmlNode *pNode, const char *pName)
{
    return xmlStrcmp(pNode->name, reinterpret_cast<const xmlChar *>(pName)) == 0;
}

std::string Name(const xmlNode *pNode)
{
    return reinterpret_cast<const char *>(pNode->name);
}

bool Has(xmlNode *pNode, const char *pName)
{
    return xmlHasProp(pNode, reinterpret_cast<const xmlChar *>(pName)) != nullptr;
}

std::string Attr(xmlNode *pNode, const char *pName, const std::string &strDefault = "")
{
    xmlChar *p = xmlGetProp(pNode, reinterpret_cast<const xmlChar *>(pName));
    if (!p)
        return strDefault;
    std::string s(reinterpret_cast<const char *>(p));
    xmlFree(p);
    return s;
}

std::string Trim(const std::string &s)
{
    const char *ws = " \t\r\n";
    size_t b = s.find_first_not_of(ws);
    if (b == std::string::npos)
        return "";
    return s.substr(b, s.find_last_not_of(ws) - b + 1);
}

std::string Content(xmlNode *pNode)
{
    xmlChar *p = xmlNodeGetContent(pNode);
    if (!p)
        return "";
    std::string s(reinterpret_cast<const char *>(p));
    xmlFree(p);
    return Trim(s);
}

// A Raw step may hold its document as child elements (easy to write) or as
// escaped text or CDATA.
std::string RawContent(xmlDoc *pDoc, xmlNode *pNode)
{
    bool bElements = false;
    for (xmlNode *c = pNode->children; c; c = c->next)
        bElements = bElements || c->type == XML_ELEMENT_NODE;
    if (!bElements)
        return Content(pNode);
    xmlBuffer *pBuffer = xmlBufferCreate();
    for (xmlNode *c = pNode->children; c; c = c->next)
        if (c->type != XML_COMMENT_NODE)
            xmlNodeDump(pBuffer, pDoc, c, 0, 0);
    std::string s(reinterpret_cast<const char *>(xmlBufferContent(pBuffer)));
    xmlBufferFree(pBuffer);
    return Trim(s);
}

bool ParseNumber(const std::string &s, long nMin, long nMax, long &nOut)
{
    long n = 0;
    if (!tvhost::ParseInt(Trim(s), n) || n < nMin || n > nMax)
        return false;
    nOut = n;
    return true;
}

std::vector<std::string> SplitIDs(const std::string &s)
{
    std::vector<std::string> ids;
    std::string cur;
    for (char c : s + " ") {
        if (c == ' ' || c == ',' || c == '\t' || c == '\n' || c == '\r') {
            if (!cur.empty())
                ids.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    return ids;
}

struct XmlErrors {
    const std::function<void(const std::string &)> *pReport;
    std::string strFile;
    int nCount = 0;
};

#if LIBXML_VERSION >= 21200
void OnXmlError(void *pContext, const xmlError *pError)
#else
void OnXmlError(void *pContext, xmlErrorPtr pError)
#endif
{
    XmlErrors *pErrors = static_cast<XmlErrors *>(pContext);
    if (++pErrors->nCount > kMaxXmlErrors) {
        if (pErrors->nCount == kMaxXmlErrors + 1)
            (*pErrors->pReport)(pErrors->strFile + ": more XML errors follow, not shown");
        return;
    }
    std::string strMessage = Trim(pError->message ? pError->message : "unknown error");
    (*pErrors->pReport)(pErrors->strFile + ":" + std::to_string(pError->line) + ": XML error: " + strMessage);
}

class Reader {
public:
    Reader(const std::string &strFile, const std::function<void(const std::string &)> &report)
        : m_strFile(strFile), m_report(report)
    {}

    void Read(xmlDoc *pDoc, Mode &mode)
    {
        m_pDoc = pDoc;
        xmlNode *pRoot = xmlDocGetRootElement(pDoc);
        if (!pRoot) {
            m_report(m_strFile + ": no root element; empty home, no scenario");
            return;
        }
        if (!Is(pRoot, "Mode"))
            Report(pRoot, "the root is <" + Name(pRoot) + ">, expected <Mode>; reading its content anyway");
        mode.strName = Attr(pRoot, "name");
        std::vector<xmlNode *> scenarios;
        for (xmlNode *c = pRoot->children; c; c = c->next) {
            if (c->type != XML_ELEMENT_NODE)
                continue;
            if (Is(c, "Home"))
                ReadHome(c, mode.home);
            else if (Is(c, "Scenario"))
                scenarios.push_back(c); // after the home: steps name its devices
            else
                Report(c, "unknown element <" + Name(c) + ">, skipped");
        }
        for (xmlNode *s : scenarios)
            ReadScenario(s, mode);
        std::stable_sort(mode.vctScenario.begin(), mode.vctScenario.end(),
                         [](const Cue &a, const Cue &b) { return a.nMs < b.nMs; });
    }

private:
    void Report(xmlNode *pNode, const std::string &strWhat)
    {
        m_report(m_strFile + ":" + std::to_string(xmlGetLineNo(pNode)) + ": " + strWhat);
    }

    bool Known(const std::string &strID) const { return m_ids.count(strID) != 0; }

    bool KnownNew(const Home &home, const std::string &strID) const
    {
        return std::any_of(home.vctNew.begin(), home.vctNew.end(), [&](const Device &d) { return d.strID == strID; });
    }

    bool ReadDevice(xmlNode *pNode, Device &device)
    {
        device.strID = Attr(pNode, "id");
        device.strType = Attr(pNode, "type");
        device.strName = Attr(pNode, "name");
        if (device.strID.empty()) {
            Report(pNode, "<" + Name(pNode) + "> without id, skipped");
            return false;
        }
        if (device.strType.empty()) {
            Report(pNode, "<" + Name(pNode) + " id=\"" + device.strID + "\"> without type, skipped");
            return false;
        }
        if (!m_ids.insert(device.strID).second) {
            Report(pNode, "device id \"" + device.strID + "\" used twice, skipped");
            return false;
        }
        return true;
    }

    void ReadHome(xmlNode *pHome, Home &home)
    {
        for (xmlNode *c = pHome->children; c; c = c->next) {
            if (c->type != XML_ELEMENT_NODE)
                continue;
            if (Is(c, "Device")) {
                Device device;
                if (!ReadDevice(c, device))
                    continue;
                device.strStatus = Attr(c, "status", "Connected");
                if (device.strStatus != "Connected" && device.strStatus != "Disconnected")
                    Report(c, "status \"" + device.strStatus +
                                  "\" is neither Connected nor Disconnected; reported as written");
                home.vctRegistered.push_back(device);
            } else if (Is(c, "NewDevice")) {
                Device device;
                if (!ReadDevice(c, device))
                    continue;
                device.strStatus = "Connected";
                home.vctNew.push_back(device);
            } else if (Is(c, "MasterKey")) {
                MasterKey key{Attr(c, "id"), Attr(c, "name"), Content(c)};
                if (key.strID.empty()) {
                    Report(c, "<MasterKey> without id, skipped");
                    continue;
                }
                home.vctMasterKeys.push_back(key);
            } else {
                Report(c, "unknown home element <" + Name(c) + ">, skipped");
            }
        }
    }

    void ReadScenario(xmlNode *pScenario, Mode &mode)
    {
        for (xmlNode *c = pScenario->children; c; c = c->next) {
            if (c->type != XML_ELEMENT_NODE)
                continue;
            if (!Is(c, "At")) {
                Report(c, "<" + Name(c) + "> outside an <At ms=\"...\">, skipped");
                continue;
            }
            Cue cue;
            cue.nLine = static_cast<int>(xmlGetLineNo(c));
            if (!ParseNumber(Attr(c, "ms"), 0, kMaxMs, cue.nMs)) {
                Report(c, "<At> needs ms=\"milliseconds after the start\" (0 to " + std::to_string(kMaxMs) +
                              "), skipped with its steps");
                continue;
            }
            if (Has(c, "repeat") && !ParseNumber(Attr(c, "repeat"), 1, kMaxRepeat, cue.nRepeat)) {
                Report(c, "repeat=\"" + Attr(c, "repeat") + "\" is not a count from 1 to " +
                              std::to_string(kMaxRepeat) + ", skipped with its steps");
                continue;
            }
            if (Has(c, "every") && !ParseNumber(Attr(c, "every"), 0, kMaxMs, cue.nEveryMs)) {
                Report(c, "every=\"" + Attr(c, "every") + "\" is not a number of milliseconds, skipped with its steps");
                continue;
            }
            for (xmlNode *s = c->children; s; s = s->next) {
                if (s->type != XML_ELEMENT_NODE)
                    continue;
                Step step;
                if (ReadStep(s, mode.home, step))
                    cue.vctSteps.push_back(step);
            }
            if (cue.vctSteps.empty()) {
                Report(c, "<At ms=\"" + std::to_string(cue.nMs) + "\"> has no step to play");
                continue;
            }
            mode.vctScenario.push_back(cue);
        }
    }

    bool ReadDeviceRef(xmlNode *pNode, Step &step)
    {
        step.strDevice = Attr(pNode, "device");
        if (step.strDevice.empty()) {
            Report(pNode, "<" + Name(pNode) + "> needs device=\"id\", skipped");
            return false;
        }
        if (!Known(step.strDevice)) {
            Report(pNode, "<" + Name(pNode) + "> names the unknown device \"" + step.strDevice + "\", skipped");
            return false;
        }
        return true;
    }

    bool ReadNewIDs(xmlNode *pNode, const Home &home, Step &step)
    {
        step.bAllIDs = !Has(pNode, "ids");
        if (step.bAllIDs)
            return true;
        for (const std::string &id : SplitIDs(Attr(pNode, "ids"))) {
            if (KnownNew(home, id))
                step.vctIDs.push_back(id);
            else
                Report(pNode, "\"" + id + "\" is not a new device of the home, left out");
        }
        if (step.vctIDs.empty()) {
            Report(pNode, "<" + Name(pNode) + "> lists no new device of the home, skipped");
            return false;
        }
        return true;
    }

    bool ReadNotify(xmlNode *pNode, Step &step)
    {
        if (!ReadDeviceRef(pNode, step))
            return false;
        step.strNotiID = Attr(pNode, "id");
        step.strNotiType = Attr(pNode, "type", "Notice");
        step.strCondition = Attr(pNode, "condition", "Always");
        step.strFlag = Attr(pNode, "flag", "On");
        step.strAction = Attr(pNode, "action", "Widget");
        for (xmlNode *c = pNode->children; c; c = c->next) {
            if (c->type != XML_ELEMENT_NODE)
                continue;
            if (Is(c, "Text"))
                step.vctTexts.emplace_back(Attr(c, "lang", "en"), Content(c));
            else
                Report(c, "unknown element <" + Name(c) + "> in <Notify>, ignored");
        }
        if (Has(pNode, "text"))
            step.vctTexts.emplace_back("en", Attr(pNode, "text"));
        if (step.vctTexts.empty()) {
            Report(pNode, "<Notify> without text (text=\"...\" or <Text lang=\"en\">...</Text>), skipped");
            return false;
        }
        return true;
    }

    bool ReadStep(xmlNode *pNode, const Home &home, Step &step)
    {
        step.nLine = static_cast<int>(xmlGetLineNo(pNode));
        if (Is(pNode, "RegisteredDevices")) {
            step.kind = StepKind::RegisteredDevices;
        } else if (Is(pNode, "NewDevices")) {
            step.kind = StepKind::NewDevices;
            return ReadNewIDs(pNode, home, step);
        } else if (Is(pNode, "Register")) {
            step.kind = StepKind::Register;
            return ReadNewIDs(pNode, home, step);
        } else if (Is(pNode, "Notify")) {
            step.kind = StepKind::Notify;
            return ReadNotify(pNode, step);
        } else if (Is(pNode, "MasterKeys")) {
            step.kind = StepKind::MasterKeys;
        } else if (Is(pNode, "PowerOff")) {
            step.kind = StepKind::PowerOff;
        } else if (Is(pNode, "Refresh")) {
            step.kind = StepKind::Refresh;
        } else if (Is(pNode, "Connect") || Is(pNode, "Disconnect")) {
            step.kind = Is(pNode, "Connect") ? StepKind::Connect : StepKind::Disconnect;
            return ReadDeviceRef(pNode, step);
        } else if (Is(pNode, "Raw")) {
            step.kind = StepKind::Raw;
            long nEvent = 0;
            if (!ParseNumber(Attr(pNode, "event"), INT32_MIN, INT32_MAX, nEvent)) {
                Report(pNode, "<Raw> needs event=\"number\", skipped");
                return false;
            }
            step.nEvent = static_cast<int>(nEvent);
            step.strParam1 = RawContent(m_pDoc, pNode);
            step.strParam2 = Attr(pNode, "param2");
        } else {
            Report(pNode, "unknown step <" + Name(pNode) + ">, skipped");
            return false;
        }
        return true;
    }

    std::string m_strFile;
    const std::function<void(const std::string &)> &m_report;
    xmlDoc *m_pDoc = nullptr;
    std::set<std::string> m_ids;
};

} // namespace

Mode LoadMode(const std::string &strPath, const std::function<void(const std::string &)> &report)
{
    Mode mode;
    // Opened without waiting: a FIFO in the file's place would hold the
    // engine's start until something wrote to it.
    const int fd = open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat st {};
    if (fd < 0 || fstat(fd, &st) != 0) {
        report(strPath + ": cannot read (" + strerror(errno) + "); empty home, no scenario");
        if (fd >= 0)
            close(fd);
        return mode;
    }
    if (!S_ISREG(st.st_mode)) {
        close(fd);
        report(strPath + ": not a regular file; empty home, no scenario");
        return mode;
    }
    std::string strText;
    char chunk[1 << 16];
    ssize_t n = 0;
    while (strText.size() <= kMaxFile && (n = read(fd, chunk, sizeof chunk)) != 0) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            break;
        strText.append(chunk, static_cast<size_t>(n));
    }
    const int readError = n < 0 ? errno : 0;
    close(fd);
    if (readError != 0) {
        report(strPath + ": cannot read (" + strerror(readError) + "); empty home, no scenario");
        return mode;
    }
    if (strText.size() > kMaxFile) {
        report(strPath + ": larger than " + std::to_string(kMaxFile >> 20) + " MiB; empty home, no scenario");
        return mode;
    }
    XmlErrors errors{&report, strPath};
    // Error handlers are per thread in libxml2; this one only sees this parse.
    xmlSetStructuredErrorFunc(&errors, OnXmlError);
    const tvhost::xml::Untrusted parsed = tvhost::xml::ParseUntrusted(strText, XML_PARSE_RECOVER);
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    xmlDoc *pDoc = parsed.doc;
    if (parsed.bCrowded) {
        report(strPath + ": a start tag with more than " + std::to_string(tvhost::xml::kMaxAttributes) +
               " attributes; empty home, no scenario");
        return mode;
    }
    if (parsed.bDeclared) {
        report(strPath + ": declares a document type or an entity, which a mode file never needs; refused: empty "
                         "home, no scenario");
        return mode;
    }
    if (!pDoc) {
        report(strPath + ": not readable as XML; empty home, no scenario");
        return mode;
    }
    Reader(strPath, report).Read(pDoc, mode);
    xmlFreeDoc(pDoc);
    return mode;
}

std::string ChooseText(const std::vector<std::pair<std::string, std::string>> &vctTexts, const std::string &strLanguage)
{
    if (vctTexts.empty())
        return "";
    auto base = [](const std::string &s) { return s.substr(0, s.find_first_of("_-.")); };
    auto same = [](const std::string &a, const std::string &b) { return strcasecmp(a.c_str(), b.c_str()) == 0; };
    for (const auto &t : vctTexts)
        if (same(t.first, strLanguage))
            return t.second;
    for (const auto &t : vctTexts)
        if (same(base(t.first), base(strLanguage)))
            return t.second;
    for (const auto &t : vctTexts)
        if (same(base(t.first), "en"))
            return t.second;
    return vctTexts.front().second;
}

} // namespace qorvsim
