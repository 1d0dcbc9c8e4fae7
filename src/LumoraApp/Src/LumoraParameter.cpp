#include "LumoraParameter.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <libxml/parser.h>

#include "ExtLog.h"
#include "ExtXml.h"

namespace {

const xmlChar *X(const char *s)
{
    return reinterpret_cast<const xmlChar *>(s);
}

// Takes ownership of a libxml2 string: copies it and frees it at once.
// Returns false (and leaves out empty) when the string is absent.
bool Take(xmlChar *p, std::string &out)
{
    if (p == nullptr) {
        out.clear();
        return false;
    }
    out.assign(reinterpret_cast<const char *>(p));
    xmlFree(p);
    return true;
}

// A value held by one text node is read in place: the same text libxml2's
// getters would copy out, without their allocation (an event reads every
// field this way). Anything else takes libxml2's general path.
const xmlChar *SingleText(const xmlNode *children)
{
    static const xmlChar kEmpty[] = "";
    if (children == nullptr)
        return kEmpty;
    if (children->next == nullptr && children->content != nullptr &&
        (children->type == XML_TEXT_NODE || children->type == XML_CDATA_SECTION_NODE))
        return children->content;
    return nullptr;
}

bool GetAttr(xmlNode *node, const char *name, std::string &out)
{
    // xmlHasProp finds the attribute (or a DTD default) as xmlGetProp does.
    const xmlAttr *attr = xmlHasProp(node, X(name));
    if (attr == nullptr) {
        out.clear();
        return false;
    }
    if (attr->type == XML_ATTRIBUTE_NODE) {
        if (const xmlChar *text = SingleText(attr->children)) {
            out.assign(reinterpret_cast<const char *>(text));
            return true;
        }
    }
    return Take(xmlGetProp(node, X(name)), out);
}

std::string AttrOrEmpty(xmlNode *node, const char *name)
{
    std::string s;
    GetAttr(node, name, s);
    return s;
}

bool GetText(xmlNode *node, std::string &out)
{
    if (node->type == XML_ELEMENT_NODE) {
        if (const xmlChar *text = SingleText(node->children)) {
            out.assign(reinterpret_cast<const char *>(text));
            return true;
        }
    }
    return Take(xmlNodeGetContent(node), out);
}

std::string TextOrEmpty(xmlNode *node)
{
    std::string s;
    GetText(node, s);
    return s;
}

const char *Word(bool b)
{
    return b ? "true" : "false";
}

// Frees the parsed document on every way out of a parse routine.
class DocHolder {
public:
    explicit DocHolder(xmlDocPtr doc) : m_doc(doc) {}
    ~DocHolder()
    {
        if (m_doc != nullptr)
            xmlFreeDoc(m_doc);
    }
    DocHolder(const DocHolder &) = delete;
    DocHolder &operator=(const DocHolder &) = delete;
    xmlDocPtr get() const { return m_doc; }

private:
    xmlDocPtr m_doc;
};

const char *const kAirConditioner = "Air Conditioner";

// strtol saturates at the range of long; with a 32-bit long (as on the TV) that
// is the range of int, so clamp here too and an overlong count keeps its sign
// instead of wrapping (4294967296 would otherwise read as 0).
int ReadCount(const std::string &field)
{
    long n = std::strtol(field.c_str(), nullptr, 10);
    if (n > INT_MAX)
        return INT_MAX;
    if (n < INT_MIN)
        return INT_MIN;
    return static_cast<int>(n);
}

} // namespace

// ---------------------------------------------------------------------------
// LumoraParameter

bool LumoraParameter::IsTRUE(std::string &str)
{
    return str == "true";
}

bool LumoraParameter::IsFALSE(std::string &str)
{
    return str == "false";
}

int LumoraParameter::Tokenize(std::string &str, std::vector<std::string> &tokens)
{
    static const char *const kDelimiters = "||";

    tokens.clear();
    std::string::size_type start = str.find_first_not_of(kDelimiters, 0);
    std::string::size_type end = str.find_first_of(kDelimiters, start);
    while (start != std::string::npos || end != std::string::npos) {
        tokens.push_back(str.substr(start, end - start));
        start = str.find_first_not_of(kDelimiters, end);
        end = str.find_first_of(kDelimiters, start);
    }
    return static_cast<int>(tokens.size());
}

// ---------------------------------------------------------------------------
// CDeviceNotification

CDeviceNotification::CDeviceNotification() {}

CDeviceNotification::~CDeviceNotification() {}

bool CDeviceNotification::Parse(const char *strParam1, const char * /*strParam2*/)
{
    Clear();
    if (strParam1 == nullptr)
        return false;
    return ParseDeviceNotification(strParam1, static_cast<int>(std::strlen(strParam1)));
}

void CDeviceNotification::Clear()
{
    m_Data.strID.clear();
    m_Data.strType.clear();
    m_Data.strCtrlName.clear();
    m_Data.strNotiID.clear();
    m_Data.strNotiType.clear();
    m_Data.strNotiText.clear();
    m_Data.bWidgetLink = false;
    m_Data.strDisplayCondition.clear();
    m_Data.bDisplayFlag = false;
    m_Data.nDisplayPeriodMS = 0;
}

bool CDeviceNotification::ParseDeviceNotification(const char *buffer, int size)
{
    DocHolder doc(ExtXmlParseEngineText(buffer, size));
    if (doc.get() == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "doc parsed error");
        return false;
    }
    xmlNode *root = xmlDocGetRootElement(doc.get());
    if (root == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "DeviceNotification is null");
        return false;
    }
    // Deliberate: a document with a root always counts, and the caller gets
    // whatever was read. Pinned by LumoraParameterTest (device notification:
    // a missing piece).
    Ele_OnDeviceNotification(root);
    return true;
}

bool CDeviceNotification::Ele_OnDeviceNotification(xmlNode *node)
{
    // Deliberate: bWidgetLink and nDisplayPeriodMS are never read from the
    // document, whatever it holds. Pinned by LumoraParameterTest (device
    // notification: full document, and one that names them).
    m_Data.bWidgetLink = false;

    // Read aside: a document without an id leaves the id held before.
    std::string id;
    if (!GetAttr(node, "id", id)) {
        LUMORA_LOG(EXT_LOG_DEBUG, "pDeviceNotification id is empty");
        return false;
    }
    m_Data.strNotiID = std::move(id);
    m_Data.strNotiType = AttrOrEmpty(node, "type");

    xmlNode *device = xmlGetFirstChildNode(node, X("Device"));
    if (device == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "can not find Device Element");
        return false;
    }
    m_Data.strID = AttrOrEmpty(device, "id");
    m_Data.strType = AttrOrEmpty(device, "type");
    m_Data.strCtrlName = TextOrEmpty(device);

    xmlNode *notification = xmlGetNextSiblingNode(device, X("Notification"));
    if (notification == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "can not find Notification Element");
        return false;
    }
    m_Data.strNotiText = TextOrEmpty(notification);

    xmlNode *action = xmlGetNextSiblingNode(notification, X("Action"));
    if (action == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "can not find Action Element");
        return false;
    }
    std::string value;
    if (GetAttr(action, "type", value))
        LUMORA_LOG(EXT_LOG_DEBUG, "action_type=[%s]", value.c_str());
    if (GetText(action, value))
        LUMORA_LOG(EXT_LOG_DEBUG, "action_name=[%s]", value.c_str());

    xmlNode *option = xmlGetNextSiblingNode(action, X("DisplayOption"));
    if (option == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "can not find DisplayOption Element");
        return false;
    }
    // Decided anew on every parse: a missing flag means not displayed.
    const bool bHasFlag = GetAttr(option, "flag", value);
    if (bHasFlag)
        LUMORA_LOG(EXT_LOG_DEBUG, "flag=[%s]", value.c_str());
    m_Data.bDisplayFlag = bHasFlag && value == "On";
    if (GetAttr(option, "condition", m_Data.strDisplayCondition))
        LUMORA_LOG(EXT_LOG_DEBUG, "condition=[%s]", m_Data.strDisplayCondition.c_str());

    LUMORA_LOG(EXT_LOG_DEBUG, "[CDeviceNotification], strID = [%s]", m_Data.strID.c_str());
    LUMORA_LOG(EXT_LOG_DEBUG, "[CDeviceNotification], strType = [%s]", m_Data.strType.c_str());
    LUMORA_LOG(EXT_LOG_DEBUG, "[CDeviceNotification], strCtrlName = [%s]", m_Data.strCtrlName.c_str());
    LUMORA_LOG(EXT_LOG_DEBUG, "[CDeviceNotification], strNotiID = [%s]", m_Data.strNotiID.c_str());
    LUMORA_LOG(EXT_LOG_DEBUG, "[CDeviceNotification], strNotiType = [%s]", m_Data.strNotiType.c_str());
    LUMORA_LOG(EXT_LOG_DEBUG, "[CDeviceNotification], strNotiText = [%s]", m_Data.strNotiText.c_str());
    LUMORA_LOG(EXT_LOG_DEBUG, "[CDeviceNotification], bWidgetLink = [%s]", Word(m_Data.bWidgetLink));
    LUMORA_LOG(EXT_LOG_DEBUG, "[CDeviceNotification], strDisplayCondition = [%s]", m_Data.strDisplayCondition.c_str());
    LUMORA_LOG(EXT_LOG_DEBUG, "[CDeviceNotification], bDisplayFlag = [%s]", Word(m_Data.bDisplayFlag));
    LUMORA_LOG(EXT_LOG_DEBUG, "[CDeviceNotification], nDisplayPeriodMS = [%d]", m_Data.nDisplayPeriodMS);
    return true;
}

// ---------------------------------------------------------------------------
// CNewDeviceList

CNewDeviceList::CNewDeviceList() {}

CNewDeviceList::~CNewDeviceList() {}

bool CNewDeviceList::Parse(const char *strParam1, const char * /*strParam2*/)
{
    Clear();
    if (strParam1 == nullptr)
        return false;
    return ParseNewDeviceList(strParam1, static_cast<int>(std::strlen(strParam1)));
}

void CNewDeviceList::Clear()
{
    m_vecDevice.clear();
    m_strSummary.clear();
}

bool CNewDeviceList::ParseNewDeviceList(const char *buffer, int size)
{
    bool bComplete = true;
    {
        DocHolder doc(ExtXmlParseEngineText(buffer, size));
        if (doc.get() == nullptr) {
            LUMORA_LOG(EXT_LOG_DEBUG, "doc parsed error");
            return false;
        }
        xmlNode *root = xmlDocGetRootElement(doc.get());
        if (root == nullptr) {
            LUMORA_LOG(EXT_LOG_DEBUG, "new_device_list is null");
            return false;
        }
        xmlNode *element = xmlGetFirstChildNode(root, X("NewDevice"));
        if (element == nullptr) {
            LUMORA_LOG(EXT_LOG_DEBUG, "new_device is null");
            return false;
        }
        while (element != nullptr && bComplete) {
            bComplete = Ele_OnNewDevice(element);
            element = xmlGetNextSiblingNode(element, X("NewDevice"));
        }
    }
    // Deliberate: unlike the registered list, an incomplete device fails the
    // whole list. Pinned by LumoraParameterTest (new device list).
    if (!bComplete)
        return false;
    return m_MakeSummary();
}

bool CNewDeviceList::Ele_OnNewDevice(xmlNode *node)
{
    Item item;
    if (!GetAttr(node, "id", item.strID)) {
        LUMORA_LOG(EXT_LOG_DEBUG, "pNewDevice id is empty");
        return false;
    }
    xmlNode *type = xmlGetFirstChildNode(node, X("Type"));
    if (type == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "can not find Type Element");
        return false;
    }
    item.strType = TextOrEmpty(type);
    LUMORA_LOG(EXT_LOG_DEBUG, "[CNewDeviceList] -----id:[%s], type:[%s]", item.strID.c_str(), item.strType.c_str());
    m_vecDevice.push_back(std::move(item));
    return true;
}

bool CNewDeviceList::m_MakeSummary()
{
    m_strSummary.clear();

    // Each type once with its count, in the types' byte order: the devices'
    // own strings sorted by pointer, no copies.
    std::vector<const std::string *> types;
    types.reserve(m_vecDevice.size());
    for (const Item &item : m_vecDevice)
        types.push_back(&item.strType);
    std::sort(types.begin(), types.end(), [](const std::string *a, const std::string *b) { return *a < *b; });

    // Deliberate: each entry goes through a fixed buffer, so an overlong type
    // is cut there. Pinned by LumoraParameterTest (new device list summaries).
    char entry[256];
    const char *separator = "";
    for (size_t i = 0; i < types.size();) {
        size_t j = i + 1;
        while (j < types.size() && *types[j] == *types[i])
            ++j;
        std::snprintf(entry, sizeof(entry), "%s%s %d", separator, types[i]->c_str(), static_cast<int>(j - i));
        m_strSummary += entry;
        separator = ", ";
        i = j;
    }
    return !m_strSummary.empty();
}

std::string CNewDeviceList::GetSummary()
{
    return m_strSummary;
}

void CNewDeviceList::CopyIDs(std::vector<std::string> &ids)
{
    for (const Item &item : m_vecDevice)
        ids.push_back(item.strID);
}

// ---------------------------------------------------------------------------
// CRegisteredDeviceList

CRegisteredDeviceList::CRegisteredDeviceList() {}

CRegisteredDeviceList::~CRegisteredDeviceList() {}

bool CRegisteredDeviceList::Parse(const char *strParam1, const char * /*strParam2*/)
{
    Clear();
    if (strParam1 == nullptr)
        return false;
    LUMORA_LOG(EXT_LOG_DEBUG, "[CRegisteredDeviceList::Parse test2--------]strParam1 = %s \n\t", strParam1);
    return m_ParseRegisteredDevice(strParam1, static_cast<int>(std::strlen(strParam1)));
}

void CRegisteredDeviceList::Clear()
{
    m_vecDevice.clear();
}

bool CRegisteredDeviceList::m_ParseRegisteredDevice(const char *buffer, int size)
{
    DocHolder doc(ExtXmlParseEngineText(buffer, size));
    if (doc.get() == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "doc parsed error");
        return false;
    }
    xmlNode *root = xmlDocGetRootElement(doc.get());
    if (root == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "registered_device_list is null");
        return false;
    }
    xmlNode *element = xmlGetFirstChildNode(root, X("RegisteredDevice"));
    if (element == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "RegisteredDevice is null");
        return false;
    }
    Index index;
    for (size_t i = 0; i < m_vecDevice.size(); ++i)
        index.emplace(m_vecDevice[i].strID, i);
    bool bOk = true;
    while (element != nullptr && bOk) {
        bOk = m_EleOnRegisteredDevice(element, &index);
        element = xmlGetNextSiblingNode(element, X("RegisteredDevice"));
    }
    // Deliberate: an incomplete device only stops the reading; the list still
    // counts. Pinned by LumoraParameterTest (registered-device list).
    return true;
}

bool CRegisteredDeviceList::m_EleOnRegisteredDevice(xmlNode *node)
{
    return m_EleOnRegisteredDevice(node, nullptr);
}

bool CRegisteredDeviceList::m_EleOnRegisteredDevice(xmlNode *node, Index *pIndex)
{
    Item item;
    if (!GetAttr(node, "id", item.strID)) {
        LUMORA_LOG(EXT_LOG_DEBUG, "RegisteredDevice id is empty");
        return false;
    }
    GetAttr(node, "status", item.status);
    if (item.status == "Connected")
        item.bConnected = true;
    else if (item.status == "Disconnected")
        item.bConnected = false;

    xmlNode *type = xmlGetFirstChildNode(node, X("Type"));
    if (type == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "can not find Type Element");
        return false;
    }
    item.type = TextOrEmpty(type);

    xmlNode *name = xmlGetNextSiblingNode(type, X("Name"));
    if (name == nullptr) {
        LUMORA_LOG(EXT_LOG_DEBUG, "can not find Name Element");
        return false;
    }
    item.strCtrlName = TextOrEmpty(name);

    InsertDeviceList(item, pIndex);
    return true;
}

void CRegisteredDeviceList::InsertDeviceList(CRegisteredDeviceList::Item item)
{
    InsertDeviceList(std::move(item), nullptr);
}

void CRegisteredDeviceList::InsertDeviceList(CRegisteredDeviceList::Item item, Index *pIndex)
{
    LUMORA_LOG(EXT_LOG_DEBUG,
               "[CRegisteredDeviceList] -----id:[%s]\n --------name:[%s]\n -------bConnected:[%d]\n "
               "------status:[%s]\n ------type:[%s]\n",
               item.strID.c_str(), item.strCtrlName.c_str(), item.bConnected ? 1 : 0, item.status.c_str(),
               item.type.c_str());

    // Deliberate: air conditioners only, one item per id in order of first
    // appearance. Pinned by LumoraParameterTest (registered-device list).
    if (item.type != kAirConditioner)
        return;
    size_t at = m_vecDevice.size();
    if (pIndex) {
        const auto found = pIndex->find(item.strID);
        if (found != pIndex->end())
            at = found->second;
    } else {
        at = static_cast<size_t>(std::find_if(m_vecDevice.begin(), m_vecDevice.end(),
                                              [&](const Item &have) { return have.strID == item.strID; }) -
                                 m_vecDevice.begin());
    }
    if (at < m_vecDevice.size()) {
        // Deliberate: bConnected keeps the device's first report; status
        // shows the latest. Pinned by LumoraParameterTest (registered-device
        // list: a repeat).
        Item &existing = m_vecDevice[at];
        existing.strCtrlName = item.strCtrlName;
        existing.status = item.status;
        existing.type = item.type;
        return;
    }
    if (pIndex)
        pIndex->emplace(item.strID, m_vecDevice.size());
    m_vecDevice.push_back(std::move(item));
}

// ---------------------------------------------------------------------------
// CCommandResult

CCommandResult::CCommandResult() : bValid(false), bSuccess(false) {}

CCommandResult::~CCommandResult()
{
    Clear();
}

bool CCommandResult::Parse(const char * /*strParam1*/, const char * /*strParam2*/)
{
    return true;
}

void CCommandResult::Clear()
{
    bValid = false;
    bSuccess = false;
    strInfo.clear();
    vctItem.clear();
}

bool CCommandResult::m_ParseSubCommandInfo(std::string &text)
{
    std::vector<std::string> fields;
    int nTokens = Tokenize(text, fields);

    if (nTokens == 1) {
        if (fields[0] == "false")
            return true;
        LUMORA_LOG(EXT_LOG_DEBUG, "[CCommandResult]vctResult[0]=(%s)", fields[0].c_str());
        return false;
    }
    if (nTokens == 3) {
        if (fields[0] != "true") {
            LUMORA_LOG(EXT_LOG_DEBUG, "[CCommandResult]vctResult[0,1,2]=(%s,%s,%s)", fields[0].c_str(),
                       fields[1].c_str(), fields[2].c_str());
            return false;
        }
        bValid = true;
        bSuccess = (fields[1] == "true");
        strInfo = fields[2];
        return true;
    }
    LUMORA_LOG(EXT_LOG_DEBUG, "[CCommandResult]nTokens=%d", nTokens);
    return false;
}

bool CCommandResult::m_ParseSubCommandList(std::string &text)
{
    std::vector<std::string> fields;
    const size_t n = static_cast<size_t>(Tokenize(text, fields));

    size_t i = 0;
    int nState = 0;
    while (i < n) {
        Item item;
        item.strName = fields[i];
        if (i + 1 >= n) {
            nState = 1; // a name with no count behind it
            break;
        }
        item.nCount = ReadCount(fields[i + 1]);
        i += 2;
        if (item.nCount != 0) {
            if (i >= n) {
                nState = 2; // a count with nothing behind it
                break;
            }
            for (int taken = 0; taken < item.nCount && i < n; ++taken)
                item.vctValue.push_back(fields[i++]);
        }
        vctItem.push_back(item);
    }
    if (nState != 0) {
        LUMORA_LOG(EXT_LOG_DEBUG, "[CCommandResult]nState=%d", nState);
        return false;
    }
    return true;
}
