// The parsers of the engine's event texts: what each stores, where it stops
// reading, and the exact debug lines other TV components read in the log.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <libxml/xmlerror.h>

#include "LogCapture.h"
#include "LumoraParameter.h"

namespace {

// libxml2 reports malformed input on stderr; the parsers' own log is what counts here.
void IgnoreXmlError(void *, const char *, ...) {}
struct QuietXml {
    QuietXml() { xmlSetGenericErrorFunc(nullptr, IgnoreXmlError); }
} g_quietXml;

using Strings = std::vector<std::string>;

constexpr int kDebug = 3;

// One line per record or item, so that a whole one compares in one assertion.
std::string Fields(const CDeviceNotification::Data &d)
{
    return d.strID + "|" + d.strType + "|" + d.strCtrlName + "|" + d.strNotiID + "|" + d.strNotiType + "|" +
           d.strNotiText + "|" + (d.bWidgetLink ? "1" : "0") + "|" + d.strDisplayCondition + "|" +
           (d.bDisplayFlag ? "1" : "0") + "|" + std::to_string(d.nDisplayPeriodMS);
}

Strings Items(const CNewDeviceList &l)
{
    Strings out;
    for (const auto &i : l.m_vecDevice)
        out.push_back(i.strID + ":" + i.strType);
    return out;
}

Strings Items(const CRegisteredDeviceList &l)
{
    Strings out;
    for (const auto &i : l.m_vecDevice)
        out.push_back(i.strID + "|" + i.strCtrlName + "|" + (i.bConnected ? "1" : "0") + "|" + i.status + "|" + i.type);
    return out;
}

Strings Items(const CCommandResult &r)
{
    Strings out;
    for (const auto &i : r.vctItem) {
        out.push_back(i.strName + "/" + std::to_string(i.nCount) + "/");
        for (const auto &v : i.vctValue)
            out.back() += v + ",";
    }
    return out;
}

std::string Device(const std::string &id, const std::string &status, const std::string &type, const std::string &name)
{
    return "<RegisteredDevice id=\"" + id + "\" status=\"" + status + "\"><Type>" + type + "</Type><Name>" + name +
           "</Name></RegisteredDevice>";
}

const char *kFullNotification =
    "<n id=\"7\" type=\"alarm\"><Device id=\"d1\" type=\"Washer\">Laundry</Device><Notification>Done</Notification>"
    "<Action type=\"open\">Widget</Action><DisplayOption flag=\"On\" condition=\"always\"/></n>";

} // namespace

TEST(CDeviceNotification, FullDocumentFillsTheRecordAndLogsItFieldByField)
{
    LogCapture log;
    CDeviceNotification n;
    EXPECT_TRUE(n.Parse(kFullNotification, "<ignored/>"));
    EXPECT_EQ(Fields(n.m_Data), "d1|Washer|Laundry|7|alarm|Done|0|always|1|0");
    EXPECT_EQ(log.Messages(),
              (Strings{"action_type=[open]", "action_name=[Widget]", "flag=[On]", "condition=[always]",
                       "[CDeviceNotification], strID = [d1]", "[CDeviceNotification], strType = [Washer]",
                       "[CDeviceNotification], strCtrlName = [Laundry]", "[CDeviceNotification], strNotiID = [7]",
                       "[CDeviceNotification], strNotiType = [alarm]", "[CDeviceNotification], strNotiText = [Done]",
                       "[CDeviceNotification], bWidgetLink = [false]",
                       "[CDeviceNotification], strDisplayCondition = [always]",
                       "[CDeviceNotification], bDisplayFlag = [true]",
                       "[CDeviceNotification], nDisplayPeriodMS = [0]"}));
    for (const auto &r : log.Records()) {
        EXPECT_EQ(r.priority, kDebug) << r.text;
        EXPECT_EQ(r.tag, "LUMORA");
        EXPECT_EQ(r.text.rfind("LumoraParameter.cpp:Ele_OnDeviceNotification(", 0), 0u) << r.text;
    }
}

TEST(CDeviceNotification, AMissingPieceStopsReadingYetAPartialRecordStillParses)
{
    // log: the lines before the record's ten, which are logged only when all four elements were found.
    struct Case { const char *doc; bool result; const char *fields; Strings log; bool bRecordLogged; } cases[] = {
        {nullptr, false, "||||||0||0|0", {}, false},
        {"<n id=\"7\"><Device>", false, "||||||0||0|0", {"doc parsed error"}, false},
        {"<n type=\"alarm\"><Device id=\"d1\"/></n>", true, "||||||0||0|0", {"pDeviceNotification id is empty"}, false},
        {"<n id=\"7\" type=\"alarm\"><device id=\"d1\"/><x><Device id=\"deep\"/></x></n>", true, "|||7|alarm||0||0|0",
         {"can not find Device Element"}, false},
        // The later elements are only searched for after the earlier ones.
        {"<n id=\"\"><Notification>Done</Notification><Device id=\"d1\" type=\"W\">L</Device></n>", true,
         "d1|W|L||||0||0|0", {"can not find Notification Element"}, false},
        {"<n id=\"7\"><Device id=\"d1\"/><Notification>Done</Notification><DisplayOption flag=\"On\"/></n>", true,
         "d1|||7||Done|0||0|0", {"can not find Action Element"}, false},
        {"<n id=\"7\"><Device id=\"d1\"/><Notification>Done</Notification><Action/><Other/></n>", true,
         "d1|||7||Done|0||0|0", {"action_name=[]", "can not find DisplayOption Element"}, false},
        // An empty Action still logs its (empty) name; only exactly "On" sets the flag; widget link and
        // period are never read; texts are untrimmed, with the text of child elements and entities resolved.
        {"<n id=\"1\" bWidgetLink=\"true\"><Device id=\"d\"> a<b>b</b> </Device><Notification>\n x&amp;y\n"
         "</Notification><Action/><DisplayOption widgetLink=\"true\" period=\"5\" flag=\"on\"/></n>",
         true, "d|| ab |1||\n x&y\n|0||0|0", {"action_name=[]", "flag=[on]"}, true},
    };
    CDeviceNotification n;  // reused: every parse must start from a cleared record
    for (auto &c : cases) {
        const std::string what = c.doc ? c.doc : "null";
        ASSERT_TRUE(n.Parse(kFullNotification, nullptr));
        LogCapture log;
        EXPECT_EQ(n.Parse(c.doc, kFullNotification), c.result) << what;
        EXPECT_EQ(Fields(n.m_Data), c.fields) << what;
        Strings head;
        size_t nRecordLines = 0;
        for (const auto &m : log.Messages()) {
            if (m.rfind("[CDeviceNotification], ", 0) == 0)
                ++nRecordLines;
            else
                head.push_back(m);
        }
        EXPECT_EQ(head, c.log) << what;
        EXPECT_EQ(nRecordLines, c.bRecordLogged ? 10u : 0u) << what;
        for (const auto &r : log.Records())
            EXPECT_EQ(r.priority, kDebug) << r.text;
    }
}

TEST(CNewDeviceList, KeepsDocumentOrderSummarisesPerTypeAndFailsWholeOnAnIncompleteDevice)
{
    LogCapture log;
    CNewDeviceList l;
    EXPECT_TRUE(l.Parse("<list><NewDevice id=\"a\"><Type>Washer</Type></NewDevice><Other/>"
                        "<NewDevice id=\"b\"><Type>Air Conditioner</Type></NewDevice></list>",
                        nullptr));
    EXPECT_EQ(Items(l), (Strings{"a:Washer", "b:Air Conditioner"}));
    EXPECT_EQ(l.GetSummary(), "Air Conditioner 1, Washer 1");
    EXPECT_EQ(log.Messages(), (Strings{"[CNewDeviceList] -----id:[a], type:[Washer]",
                                       "[CNewDeviceList] -----id:[b], type:[Air Conditioner]"}));

    // Entries in byte order of the type, each cut at 255 characters (its separator included).
    struct Summary { Strings types; std::string text; } summaries[] = {
        {{"Washer", "Air Conditioner", "Washer"}, "Air Conditioner 1, Washer 2"},
        {{"air purifier", "Washer", "TV box", "TV"}, "TV 1, TV box 1, Washer 1, air purifier 1"},
        {{"Washer", ""}, " 1, Washer 1"},
        {{std::string(253, 'T')}, std::string(253, 'T') + " 1"},
        {{std::string(254, 'T')}, std::string(254, 'T') + " "},
        {{"A", std::string(300, 'B')}, "A 1, " + std::string(253, 'B')},
    };
    for (auto &c : summaries) {
        std::string doc = "<l>";
        for (const auto &t : c.types)
            doc += "<NewDevice id=\"same\"><Type>" + t + "</Type></NewDevice>";
        EXPECT_TRUE(l.Parse((doc + "</l>").c_str(), nullptr));
        EXPECT_EQ(l.GetSummary(), c.text);
        EXPECT_EQ(l.m_vecDevice.size(), c.types.size()) << "duplicate ids are kept";
    }

    struct Failure { const char *doc; Strings log; Strings items; } failures[] = {
        {nullptr, {}, {}},
        {"<l><NewDevice id=\"a\">", {"doc parsed error"}, {}},
        {"<l><Wrap><NewDevice id=\"a\"><Type>TV</Type></NewDevice></Wrap></l>", {"new_device is null"}, {}},
        {"<l><NewDevice><Type>TV</Type></NewDevice></l>", {"pNewDevice id is empty"}, {}},
        {"<l><NewDevice id=\"a\"><Type>Washer</Type></NewDevice><NewDevice id=\"b\"/>"
         "<NewDevice id=\"c\"><Type>TV</Type></NewDevice></l>",
         {"[CNewDeviceList] -----id:[a], type:[Washer]", "can not find Type Element"}, {"a:Washer"}},
    };
    for (auto &c : failures) {
        ASSERT_TRUE(l.Parse("<l><NewDevice id=\"g\"><Type>TV</Type></NewDevice></l>", nullptr));
        log.Clear();
        EXPECT_FALSE(l.Parse(c.doc, nullptr)) << (c.doc ? c.doc : "null");
        EXPECT_EQ(Items(l), c.items);
        EXPECT_EQ(l.GetSummary(), "");
        EXPECT_EQ(log.Messages(), c.log);
    }
}

TEST(CRegisteredDeviceList, KeepsAirConditionersOnlyARepeatKeepsItsFirstConnectedFlagAndAnIncompleteDeviceStops)
{
    LogCapture log;
    CRegisteredDeviceList l;
    const std::string doc =
        "<list>" + Device("1", "Connected", "Air Conditioner", "Living room") +
        Device("2", "Connected", "Washer", "Bath") + Device("3", "Connected", "air conditioner", "x") +
        Device("4", "Connected", " Air Conditioner", "y") +
        Device("5", "Standby", "Air Conditioner", "Attic") + Device("1", "Disconnected", "Air Conditioner", "Hall") +
        Device("5", "Connected", "Air Conditioner", "Loft") + Device("1", "Connected", "Washer", "Ignored") +
        Device("1x", "Connected", "Air Conditioner", "Other") +
        "<RegisteredDevice id=\"6\"><Type>Air Conditioner</Type><Name>Cellar</Name></RegisteredDevice></list>";
    EXPECT_TRUE(l.Parse(doc.c_str(), nullptr));
    EXPECT_EQ(Items(l), (Strings{"1|Hall|1|Disconnected|Air Conditioner", "5|Loft|0|Connected|Air Conditioner",
                                 "1x|Other|1|Connected|Air Conditioner", "6|Cellar|0||Air Conditioner"}));
    EXPECT_TRUE(log.Has("[CRegisteredDeviceList::Parse test2--------]strParam1 = " + doc + " \n\t"));
    EXPECT_TRUE(log.Has("[CRegisteredDeviceList] -----id:[2]\n --------name:[Bath]\n -------bConnected:[1]\n "
                        "------status:[Connected]\n ------type:[Washer]\n"));
    EXPECT_EQ(tvhost::log::Find("[CRegisteredDeviceList] -----id:[").size(), 10u) << "every report is logged";

    // What came before an incomplete device stays; nothing after it is read, and a new document starts empty.
    const std::string kept = Device("1", "Connected", "Air Conditioner", "A");
    const std::string later = Device("2", "Connected", "Air Conditioner", "B");
    struct Case { std::string doc; bool result; const char *message; } cases[] = {
        {"<l>" + kept, false, "doc parsed error"},
        {"<l><Wrap>" + kept + "</Wrap></l>", false, "RegisteredDevice is null"},
        {"<l>" + kept + "<RegisteredDevice status=\"Connected\"/>" + later + "</l>", true,
         "RegisteredDevice id is empty"},
        {"<l>" + kept + "<RegisteredDevice id=\"0\"><Name>n</Name></RegisteredDevice>" + later + "</l>", true,
         "can not find Type Element"},
        {"<l>" + kept + "<RegisteredDevice id=\"0\"><Name>n</Name><Type>Air Conditioner</Type></RegisteredDevice>" +
             later + "</l>",
         true, "can not find Name Element"},
    };
    for (auto &c : cases) {
        ASSERT_TRUE(l.Parse(doc.c_str(), nullptr));
        log.Clear();
        EXPECT_EQ(l.Parse(c.doc.c_str(), nullptr), c.result) << c.doc;
        EXPECT_EQ(Items(l), c.result ? Strings{"1|A|1|Connected|Air Conditioner"} : Strings{}) << c.doc;
        EXPECT_EQ(log.PriorityOf(c.message), kDebug) << c.message;
        EXPECT_TRUE(tvhost::log::Find("id:[2]").empty()) << "read past the incomplete device: " << c.doc;
    }
    EXPECT_FALSE(l.Parse(nullptr, nullptr));
    EXPECT_TRUE(l.m_vecDevice.empty());
}

TEST(CCommandResult, InfoIsFalseAloneOrThreeFieldsLedByTrueAndTheListReadsNameCountValuesGroups)
{
    // state: bValid bSuccess strInfo after the call; message: nullptr when nothing is logged.
    struct Info { std::string text; bool result; const char *state; const char *message; } infos[] = {
        {"true|True|x", true, "1 0 x", nullptr},
        {"||true||true| free text|", true, "1 1  free text", nullptr},
        {"false", true, "0 0 ", nullptr},
        {"True|true|x", false, "0 0 ", "[CCommandResult]vctResult[0,1,2]=(True,true,x)"},
        {"|true|", false, "0 0 ", "[CCommandResult]vctResult[0]=(true)"},
        {"%s%n", false, "0 0 ", "[CCommandResult]vctResult[0]=(%s%n)"},
        {"|||", false, "0 0 ", "[CCommandResult]nTokens=0"},
        {"true|true|x|y", false, "0 0 ", "[CCommandResult]nTokens=4"},
    };
    for (auto &c : infos) {
        LogCapture log;
        CCommandResult r;
        EXPECT_EQ(r.m_ParseSubCommandInfo(c.text), c.result) << c.text;
        EXPECT_EQ(std::to_string(r.bValid) + " " + std::to_string(r.bSuccess) + " " + r.strInfo, c.state) << c.text;
        EXPECT_EQ(log.Messages(), c.message ? Strings{c.message} : Strings{}) << c.text;
    }
    // A count is read like strtol, clamped to int; a negative one takes no values.
    struct List { std::string text; bool result; Strings items; const char *message; } lists[] = {
        {"power|1|on|volume|0|mode|2|cool|low", true, {"power/1/on,", "volume/0/", "mode/2/cool,low,"}, nullptr},
        {"a|3|x", true, {"a/3/x,"}, nullptr},
        {"a|-1|b|0", true, {"a/-1/", "b/0/"}, nullptr},
        {"a|2x|p|q|r|x", true, {"a/2/p,q,", "r/0/"}, nullptr},
        {"a|4294967296|v", true, {"a/2147483647/v,"}, nullptr},
        {"a|-4294967296|v", false, {"a/-2147483648/"}, "[CCommandResult]nState=1"},
        {"a|0|b", false, {"a/0/"}, "[CCommandResult]nState=1"},
        {"a|2", false, {}, "[CCommandResult]nState=2"},
    };
    for (auto &c : lists) {
        LogCapture log;
        CCommandResult r;
        EXPECT_EQ(r.m_ParseSubCommandList(c.text), c.result) << c.text;
        EXPECT_EQ(Items(r), c.items) << c.text;
        EXPECT_EQ(log.Messages(), c.message ? Strings{c.message} : Strings{}) << c.text;
    }
    // Nothing is cleared between calls; "false", a failure and Parse (a stub) leave a result alone.
    CCommandResult r;
    std::string first = "true|true|kept", again = "false", bad = "no", one = "a|0", two = "b|1|v|c";
    ASSERT_TRUE(r.m_ParseSubCommandInfo(first) && r.m_ParseSubCommandList(one) && r.m_ParseSubCommandInfo(again));
    EXPECT_FALSE(r.m_ParseSubCommandList(two) || r.m_ParseSubCommandInfo(bad));
    EXPECT_TRUE(r.Parse(nullptr, nullptr) && r.Parse("false", "garbage") && r.bValid && r.bSuccess);
    EXPECT_EQ(r.strInfo, "kept");
    EXPECT_EQ(Items(r), (Strings{"a/0/", "b/1/v,"}));
    r.Clear();
    EXPECT_FALSE(r.bValid || r.bSuccess || !r.strInfo.empty() || !r.vctItem.empty());
}
