// The parsers of the engine's event texts: what each stores, where it stops
// reading, and the exact debug lines other TV components read in the log.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "LumoraParameter.h"

namespace {

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
    EXPECT_EQ(
        log.Messages(),
        (Strings{"action_type=[open]", "action_name=[Widget]", "flag=[On]", "condition=[always]",
                 "[CDeviceNotification], strID = [d1]", "[CDeviceNotification], strType = [Washer]",
                 "[CDeviceNotification], strCtrlName = [Laundry]", "[CDeviceNotification], strNotiID = [7]",
                 "[CDeviceNotification], strNotiType = [alarm]", "[CDeviceNotification], strNotiText = [Done]",
                 "[CDeviceNotification], bWidgetLink = [false]",
                 "[CDeviceNotification], strDisplayCondition = [always]",
                 "[CDeviceNotification], bDisplayFlag = [true]", "[CDeviceNotification], nDisplayPeriodMS = [0]"}));
    for (const auto &r : log.Records()) {
        EXPECT_EQ(r.priority, kDebug) << r.text;
        EXPECT_EQ(r.tag, "LUMORA");
        EXPECT_EQ(r.text.rfind("LumoraParameter.cpp:Ele_OnDeviceNotification(", 0), 0u) << r.text;
    }
}

TEST(CDeviceNotification, AMissingPieceStopsReadingYetAPartialRecordStillParses)
{
    // log: the lines before the record's ten, which are logged only when all four elements were found.
    struct Case {
        const char *doc;
        bool result;
        const char *fields;
        Strings log;
        bool bRecordLogged;
    } cases[] = {
        {"<n type=\"alarm\"><Device id=\"d1\"/></n>", true, "||||||0||0|0", {"pDeviceNotification id is empty"}, false},
        {"<n id=\"7\" type=\"alarm\"><device id=\"d1\"/><x><Device id=\"deep\"/></x></n>",
         true,
         "|||7|alarm||0||0|0",
         {"can not find Device Element"},
         false},
        // The later elements are only searched for after the earlier ones.
        {"<n id=\"\"><Notification>Done</Notification><Device id=\"d1\" type=\"W\">L</Device></n>",
         true,
         "d1|W|L||||0||0|0",
         {"can not find Notification Element"},
         false},
        {"<n id=\"7\"><Device id=\"d1\"/><Notification>Done</Notification><DisplayOption flag=\"On\"/></n>",
         true,
         "d1|||7||Done|0||0|0",
         {"can not find Action Element"},
         false},
        {"<n id=\"7\"><Device id=\"d1\"/><Notification>Done</Notification><Action/><Other/></n>",
         true,
         "d1|||7||Done|0||0|0",
         {"action_name=[]", "can not find DisplayOption Element"},
         false},
        // An empty Action still logs its (empty) name; only exactly "On" sets the flag; widget link and
        // period are never read; texts are untrimmed and read whole across child elements, comments, CDATA
        // and references, as libxml2's getters give them.
        {"<n id=\"1&amp;2\" bWidgetLink=\"true\"><Device id=\"d\" type=\"W&#x41;\"> a<b>b</b><!--c--> </Device>"
         "<Notification>\n x&amp;y<![CDATA[<]]>\n</Notification><Action/>"
         "<DisplayOption widgetLink=\"true\" period=\"5\" flag=\"on\"/></n>",
         true,
         "d|WA| ab |1&2||\n x&y<\n|0||0|0",
         {"action_name=[]", "flag=[on]"},
         true},
    };
    CDeviceNotification n; // reused: every parse must start from a cleared record
    for (auto &c : cases) {
        ASSERT_TRUE(n.Parse(kFullNotification, nullptr));
        LogCapture log;
        EXPECT_EQ(n.Parse(c.doc, kFullNotification), c.result) << c.doc;
        EXPECT_EQ(Fields(n.m_Data), c.fields) << c.doc;
        Strings head = log.Messages();
        const auto record = std::remove_if(
            head.begin(), head.end(), [](const std::string &m) { return m.rfind("[CDeviceNotification], ", 0) == 0; });
        EXPECT_EQ(head.end() - record, c.bRecordLogged ? 10 : 0) << c.doc;
        head.erase(record, head.end());
        EXPECT_EQ(head, c.log) << c.doc;
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
    struct Summary {
        Strings types;
        std::string text;
    } summaries[] = {
        {{"air purifier", "Washer", "TV box", "TV", "Washer"}, "TV 1, TV box 1, Washer 2, air purifier 1"},
        {{"Washer", ""}, " 1, Washer 1"},
        {{std::string(253, 'T')}, std::string(253, 'T') + " 1"},
        {{std::string(254, 'T')}, std::string(254, 'T') + " "},
        {{"A", std::string(300, 'B')}, "A 1, " + std::string(253, 'B')},
        // Enough of one type for std::sort's partitioning, which needs a strict order.
        {Strings(40, "Washer"), "Washer 40"},
    };
    for (auto &c : summaries) {
        std::string doc = "<l>";
        for (const auto &t : c.types)
            doc += "<NewDevice id=\"same\"><Type>" + t + "</Type></NewDevice>";
        EXPECT_TRUE(l.Parse((doc + "</l>").c_str(), nullptr));
        EXPECT_EQ(l.GetSummary(), c.text);
        EXPECT_EQ(l.m_vecDevice.size(), c.types.size()) << "duplicate ids are kept";
    }

    struct Failure {
        const char *doc;
        Strings log;
        Strings items;
    } failures[] = {
        {"<l><Wrap><NewDevice id=\"a\"><Type>TV</Type></NewDevice></Wrap></l>", {"new_device is null"}, {}},
        {"<l><NewDevice><Type>TV</Type></NewDevice></l>", {"pNewDevice id is empty"}, {}},
        {"<l><NewDevice id=\"a\"><Type>Washer</Type></NewDevice><NewDevice id=\"b\"/>"
         "<NewDevice id=\"c\"><Type>TV</Type></NewDevice></l>",
         {"[CNewDeviceList] -----id:[a], type:[Washer]", "can not find Type Element"},
         {"a:Washer"}},
    };
    for (auto &c : failures) {
        ASSERT_TRUE(l.Parse("<l><NewDevice id=\"g\"><Type>TV</Type></NewDevice></l>", nullptr));
        log.Clear();
        EXPECT_FALSE(l.Parse(c.doc, nullptr)) << c.doc;
        EXPECT_EQ(Items(l), c.items);
        EXPECT_EQ(l.GetSummary(), "");
        EXPECT_EQ(log.Messages(), c.log);
    }
}

// The dispatcher reads and may change the list between merges.
TEST(CRegisteredDeviceList, MergeAfterAnEditOfTheListFindsTheItemByItsId)
{
    CRegisteredDeviceList l;
    const std::string doc = "<l>" + Device("1", "Connected", "Air Conditioner", "A") +
                            Device("2", "Connected", "Air Conditioner", "B") + "</l>";
    ASSERT_TRUE(l.Parse(doc.c_str(), nullptr));
    // The same report again adds nothing, its first device included.
    ASSERT_TRUE(l.m_ParseRegisteredDevice(doc.c_str(), static_cast<int>(doc.size())));
    EXPECT_EQ(Items(l), (Strings{"1|A|1|Connected|Air Conditioner", "2|B|1|Connected|Air Conditioner"}));
    l.m_vecDevice[0].strID = "9"; // same size
    l.InsertDeviceList({"9", "Nine", false, "Disconnected", "Air Conditioner"});
    l.InsertDeviceList({"1", "One", false, "Disconnected", "Air Conditioner"});
    EXPECT_EQ(Items(l), (Strings{"9|Nine|1|Disconnected|Air Conditioner", "2|B|1|Connected|Air Conditioner",
                                 "1|One|0|Disconnected|Air Conditioner"}));
    // A parse of what the list holds already merges into it by id, too.
    l.m_vecDevice[1].strID = "7";
    ASSERT_TRUE(l.m_ParseRegisteredDevice(doc.c_str(), static_cast<int>(doc.size())));
    EXPECT_EQ(Items(l), (Strings{"9|Nine|1|Disconnected|Air Conditioner", "7|B|1|Connected|Air Conditioner",
                                 "1|A|0|Connected|Air Conditioner", "2|B|1|Connected|Air Conditioner"}));
}

TEST(CRegisteredDeviceList, KeepsAirConditionersOnlyARepeatKeepsItsFirstConnectedFlagAndAnIncompleteDeviceStops)
{
    LogCapture log;
    CRegisteredDeviceList l;
    const std::string doc =
        "<list>" + Device("1", "Connected", "Air Conditioner", "Living room") +
        Device("2", "Connected", "Washer", "Bath") + Device("3", "Connected", "air conditioner", "x") +
        Device("4", "Connected", " Air Conditioner", "y") + Device("5", "Standby", "Air Conditioner", "Attic") +
        Device("1", "Disconnected", "Air Conditioner", "Hall") + Device("5", "Connected", "Air Conditioner", "Loft") +
        Device("1", "Connected", "Washer", "Ignored") + Device("1x", "Connected", "Air Conditioner", "Other") +
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
    struct Case {
        std::string doc;
        bool result;
        const char *message;
    } cases[] = {
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
}

// The service never calls this class and the fuzz targets check its info texts,
// appending and clearing; what they cannot tell is how a count is read.
TEST(CCommandResult, ACountIsReadLikeStrtolClampedToIntAndANegativeOneTakesNoValues)
{
    struct List {
        std::string text;
        bool result;
        Strings items;
        const char *message;
    } lists[] = {
        {"a|-1|b|0", true, {"a/-1/", "b/0/"}, nullptr},
        {"a|2x|p|q|r|x", true, {"a/2/p,q,", "r/0/"}, nullptr},
        {"a|10|0|1|2|3|4|5|6|7|8|9", true, {"a/10/0,1,2,3,4,5,6,7,8,9,"}, nullptr},
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
}

// Called again on a filled record, without the clear that Parse does first.
TEST(CDeviceNotification, ReparseDecidesTheFlagAnewAndKeepsTheIdWhenNoneIsGiven)
{
    CDeviceNotification n;
    ASSERT_TRUE(n.Parse(kFullNotification, nullptr));
    const std::string noFlag = "<n id=\"8\"><Device/><Notification/><Action/><DisplayOption/></n>";
    EXPECT_TRUE(n.ParseDeviceNotification(noFlag.c_str(), static_cast<int>(noFlag.size())));
    EXPECT_FALSE(n.m_Data.bDisplayFlag);
    EXPECT_EQ(n.m_Data.strNotiID, "8");

    const std::string noId = "<n type=\"t\"><Device id=\"x\"/></n>";
    LogCapture log;
    EXPECT_TRUE(n.ParseDeviceNotification(noId.c_str(), static_cast<int>(noId.size())));
    EXPECT_EQ(log.Messages(), Strings{"pDeviceNotification id is empty"});
    EXPECT_EQ(Fields(n.m_Data), "|||8|||0||0|0");
}
