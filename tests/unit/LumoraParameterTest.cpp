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

// One line per record, so that a whole record compares in one assertion.
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
        out.push_back(i.strID + "|" + i.strCtrlName + "|" + (i.bConnected ? "1" : "0") + "|" + i.status + "|" +
                      i.type);
    return out;
}

Strings Items(const CCommandResult &r)
{
    Strings out;
    for (const auto &i : r.vctItem) {
        std::string s = i.strName + "/" + std::to_string(i.nCount) + "/";
        for (const auto &v : i.vctValue)
            s += v + ",";
        out.push_back(s);
    }
    return out;
}

const char *kFullNotification =
    "<n id=\"7\" type=\"alarm\"><Device id=\"d1\" type=\"Washer\">Laundry</Device><Notification>Done</Notification>"
    "<Action type=\"open\">Widget</Action><DisplayOption flag=\"On\" condition=\"always\"/></n>";
const char *kFullFields = "d1|Washer|Laundry|7|alarm|Done|0|always|1|0";

std::string Device(const std::string &id, const std::string &status, const std::string &type,
                   const std::string &name)
{
    return "<RegisteredDevice id=\"" + id + "\" status=\"" + status + "\"><Type>" + type + "</Type><Name>" + name +
           "</Name></RegisteredDevice>";
}

} // namespace

TEST(LumoraParameter, TokenizeSplitsOnRunsOfPipesAndNeverYieldsAnEmptyToken)
{
    struct Case {
        std::string text;
        Strings tokens;
    } cases[] = {
        {"", {}},
        {"|", {}},
        {"|||", {}},
        {"abc", {"abc"}},
        {"|x", {"x"}},
        {"a||b|", {"a", "b"}},
        {"|a|b||c|", {"a", "b", "c"}},
        {"a | b", {"a ", " b"}},
        {"x\ny|\t", {"x\ny", "\t"}},
    };
    for (auto &c : cases) {
        Strings tokens{"stale", "stale"};
        EXPECT_EQ(LumoraParameter::Tokenize(c.text, tokens), static_cast<int>(c.tokens.size())) << c.text;
        EXPECT_EQ(tokens, c.tokens) << c.text;
    }
}

TEST(LumoraParameter, WordTestsAreWholeExactAndCaseSensitive)
{
    std::string t = "true", f = "false";
    EXPECT_TRUE(LumoraParameter::IsTRUE(t));
    EXPECT_FALSE(LumoraParameter::IsFALSE(t));
    EXPECT_TRUE(LumoraParameter::IsFALSE(f));
    EXPECT_FALSE(LumoraParameter::IsTRUE(f));
    EXPECT_EQ(t + f, "truefalse");  // arguments are left as they were
    for (std::string s : {"TRUE", "True", "true ", " true", "1", "", "FALSE", "false\n"}) {
        EXPECT_FALSE(LumoraParameter::IsTRUE(s)) << s;
        EXPECT_FALSE(LumoraParameter::IsFALSE(s)) << s;
    }
}

TEST(CDeviceNotification, FullDocumentFillsTheRecordAndLogsItFieldByField)
{
    LogCapture log;
    CDeviceNotification n;
    EXPECT_TRUE(n.Parse(kFullNotification, "<ignored/>"));
    EXPECT_EQ(Fields(n.m_Data), kFullFields);

    Strings expected = {
        "action_type=[open]",
        "action_name=[Widget]",
        "flag=[On]",
        "condition=[always]",
        "[CDeviceNotification], strID = [d1]",
        "[CDeviceNotification], strType = [Washer]",
        "[CDeviceNotification], strCtrlName = [Laundry]",
        "[CDeviceNotification], strNotiID = [7]",
        "[CDeviceNotification], strNotiType = [alarm]",
        "[CDeviceNotification], strNotiText = [Done]",
        "[CDeviceNotification], bWidgetLink = [false]",
        "[CDeviceNotification], strDisplayCondition = [always]",
        "[CDeviceNotification], bDisplayFlag = [true]",
        "[CDeviceNotification], nDisplayPeriodMS = [0]",
    };
    EXPECT_EQ(log.Messages(), expected);
    for (const auto &r : log.Records()) {
        EXPECT_EQ(r.priority, kDebug) << r.text;
        EXPECT_EQ(r.tag, "LUMORA");
        EXPECT_EQ(r.text.rfind("LumoraParameter.cpp:Ele_OnDeviceNotification(", 0), 0u) << r.text;
    }
}

TEST(CDeviceNotification, EachMissingPieceStopsReadingButAPartialRecordStillParses)
{
    struct Case {
        const char *doc;
        bool result;
        const char *message;  // nullptr: no log line at all
        const char *fields;
    } cases[] = {
        {nullptr, false, nullptr, "||||||0||0|0"},
        {"", false, "doc parsed error", "||||||0||0|0"},
        {"<n id=\"7\"><Device>", false, "doc parsed error", "||||||0||0|0"},
        {"<n type=\"alarm\"><Device id=\"d1\"/></n>", true, "pDeviceNotification id is empty", "||||||0||0|0"},
        {"<n id=\"7\" type=\"alarm\"><device id=\"d1\"/><x><Device id=\"deep\"/></x></n>", true,
         "can not find Device Element", "|||7|alarm||0||0|0"},
        // The later elements are only searched for after the earlier ones.
        {"<n id=\"\"><Notification>Done</Notification><Device id=\"d1\" type=\"W\">L</Device></n>", true,
         "can not find Notification Element", "d1|W|L||||0||0|0"},
        {"<n id=\"7\"><Device id=\"d1\"/><Notification>Done</Notification><DisplayOption flag=\"On\"/></n>", true,
         "can not find Action Element", "d1|||7||Done|0||0|0"},
        {"<n id=\"7\"><Device id=\"d1\"/><Notification>Done</Notification><Action/><Other/></n>", true,
         "can not find DisplayOption Element", "d1|||7||Done|0||0|0"},
    };
    CDeviceNotification n;  // reused: every parse must start from a cleared record
    for (auto &c : cases) {
        ASSERT_TRUE(n.Parse(kFullNotification, nullptr));
        LogCapture log;
        EXPECT_EQ(n.Parse(c.doc, kFullNotification), c.result) << (c.doc ? c.doc : "null");
        EXPECT_EQ(Fields(n.m_Data), c.fields) << (c.doc ? c.doc : "null");
        if (c.message == nullptr) {
            EXPECT_TRUE(log.Messages().empty());
        } else {
            EXPECT_EQ(log.PriorityOf(c.message), kDebug) << c.message;
            EXPECT_EQ(tvhost::log::Find("strNotiID = ").size(), 0u) << "record logged after " << c.message;
        }
    }
}

TEST(CDeviceNotification, FlagNeedsExactlyOnAndTheUnreadFieldsNeverMove)
{
    CDeviceNotification n;
    for (const char *flag : {"on", "ON", "On ", ""}) {
        LogCapture log;
        std::string doc = std::string("<n id=\"1\" bWidgetLink=\"true\" nDisplayPeriodMS=\"9\"><Device/><Notification/>"
                                      "<Action/><DisplayOption widgetLink=\"true\" period=\"5\" flag=\"") +
                          flag + "\"/></n>";
        EXPECT_TRUE(n.Parse(doc.c_str(), nullptr));
        EXPECT_EQ(Fields(n.m_Data), "|||1|||0||0|0") << flag;
        EXPECT_TRUE(log.Has(std::string("flag=[") + flag + "]"));
    }
    LogCapture log;
    EXPECT_TRUE(n.Parse("<n id=\"1\"><Device/><Notification/><Action/><DisplayOption/></n>", nullptr));
    EXPECT_FALSE(n.m_Data.bDisplayFlag);
    EXPECT_TRUE(tvhost::log::Find("flag=[").empty());
    EXPECT_TRUE(tvhost::log::Find("condition=[").empty());
    EXPECT_TRUE(tvhost::log::Find("action_type=[").empty());
}

TEST(CDeviceNotification, TextIsUntrimmedAndForeignTextIsLoggedLiterally)
{
    LogCapture log;
    CDeviceNotification n;
    EXPECT_TRUE(n.Parse("<n id=\"%n\"><Device id=\"%s%s\"> %s%n<b>%s</b> </Device><Notification>\n a&amp;b\n"
                        "</Notification><Action type=\"%x\">%d</Action><DisplayOption flag=\"On\" "
                        "condition=\"%p\"/></n>",
                        nullptr));
    EXPECT_EQ(n.m_Data.strCtrlName, " %s%n%s ");
    EXPECT_EQ(n.m_Data.strNotiText, "\n a&b\n");
    EXPECT_TRUE(log.Has("[CDeviceNotification], strCtrlName = [ %s%n%s ]"));
    EXPECT_TRUE(log.Has("[CDeviceNotification], strID = [%s%s]"));
    EXPECT_TRUE(log.Has("action_type=[%x]"));
    EXPECT_TRUE(log.Has("action_name=[%d]"));
    EXPECT_TRUE(log.Has("condition=[%p]"));
}

TEST(CNewDeviceList, ListKeepsDocumentOrderAndSummarisesPerType)
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

    // The summary is empty only without items.
    CNewDeviceList empty;
    EXPECT_FALSE(empty.m_MakeSummary());
    EXPECT_TRUE(l.m_MakeSummary());
    EXPECT_EQ(l.GetSummary(), "Air Conditioner 1, Washer 1");

    Strings ids{"x"};
    l.CopyIDs(ids);
    l.CopyIDs(ids);
    EXPECT_EQ(ids, (Strings{"x", "a", "b", "a", "b"}));

    struct Case {
        Strings types;
        const char *summary;
    } cases[] = {
        {{"Washer", "Air Conditioner", "Washer"}, "Air Conditioner 1, Washer 2"},
        {{"air purifier", "Washer"}, "Washer 1, air purifier 1"},
        {{"TV box", "TV", "TV box"}, "TV 1, TV box 2"},
        {{"Washer", ""}, " 1, Washer 1"},
    };
    for (auto &c : cases) {
        std::string doc = "<l>";
        for (size_t i = 0; i < c.types.size(); ++i)
            doc += "<NewDevice id=\"same\"><Type>" + c.types[i] + "</Type></NewDevice>";
        EXPECT_TRUE(l.Parse((doc + "</l>").c_str(), nullptr));
        EXPECT_EQ(l.GetSummary(), c.summary);
        EXPECT_EQ(l.m_vecDevice.size(), c.types.size());  // duplicate ids are kept
    }
}

TEST(CNewDeviceList, EachSummaryEntryIsCutAt255Characters)
{
    CNewDeviceList l;
    auto parse = [&](const Strings &types) {
        std::string doc = "<l>";
        for (const auto &t : types)
            doc += "<NewDevice id=\"i\"><Type>" + t + "</Type></NewDevice>";
        EXPECT_TRUE(l.Parse((doc + "</l>").c_str(), nullptr));
        return l.GetSummary();
    };
    EXPECT_EQ(parse({std::string(253, 'T')}), std::string(253, 'T') + " 1");  // exactly 255
    EXPECT_EQ(parse({std::string(254, 'T')}), std::string(254, 'T') + " ");
    EXPECT_EQ(parse({std::string(300, 'T')}), std::string(255, 'T'));
    // The separator counts towards the later entry's 255.
    EXPECT_EQ(parse({"A", std::string(300, 'B')}), "A 1, " + std::string(253, 'B'));
}

TEST(CNewDeviceList, AnIncompleteDeviceFailsTheListAndLeavesNoSummary)
{
    const char *good = "<l><NewDevice id=\"g\"><Type>TV</Type></NewDevice></l>";
    struct Case {
        const char *doc;
        const char *message;
        Strings items;
    } cases[] = {
        {nullptr, nullptr, {}},
        {"<l><NewDevice id=\"a\">", "doc parsed error", {}},
        {"<l><Wrap><NewDevice id=\"a\"><Type>TV</Type></NewDevice></Wrap></l>", "new_device is null", {}},
        {"<l><NewDevice><Type>TV</Type></NewDevice></l>", "pNewDevice id is empty", {}},
        {"<l><NewDevice id=\"a\"><Type>Washer</Type></NewDevice><NewDevice id=\"b\"/>"
         "<NewDevice id=\"c\"><Type>TV</Type></NewDevice></l>",
         "can not find Type Element", {"a:Washer"}},
    };
    CNewDeviceList l;
    for (auto &c : cases) {
        ASSERT_TRUE(l.Parse(good, nullptr));
        LogCapture log;
        EXPECT_FALSE(l.Parse(c.doc, nullptr)) << (c.doc ? c.doc : "null");
        EXPECT_EQ(Items(l), c.items);
        EXPECT_EQ(l.GetSummary(), "");
        if (c.message == nullptr)
            EXPECT_TRUE(log.Messages().empty());
        else
            EXPECT_EQ(log.PriorityOf(c.message), kDebug) << c.message;
        EXPECT_TRUE(tvhost::log::Find("id:[c]").empty());  // nothing after the incomplete device is read
    }
}

TEST(CRegisteredDeviceList, KeepsAirConditionersOnlyAndLogsEveryReport)
{
    LogCapture log;
    CRegisteredDeviceList l;
    std::string doc = "<list>" + Device("1", "Connected", "Air Conditioner", "Living room") +
                      Device("2", "Connected", "Washer", "Bath") + Device("3", "Connected", "air conditioner", "x") +
                      Device("4", "Connected", " Air Conditioner", "y") + "</list>";
    EXPECT_TRUE(l.Parse(doc.c_str(), nullptr));
    EXPECT_EQ(Items(l), (Strings{"1|Living room|1|Connected|Air Conditioner"}));
    EXPECT_TRUE(log.Has("[CRegisteredDeviceList::Parse test2--------]strParam1 = " + doc + " \n\t"));
    EXPECT_TRUE(log.Has("[CRegisteredDeviceList] -----id:[2]\n --------name:[Bath]\n -------bConnected:[1]\n "
                        "------status:[Connected]\n ------type:[Washer]\n"));
    EXPECT_EQ(tvhost::log::Find("[CRegisteredDeviceList] -----id:[").size(), 4u);
}

TEST(CRegisteredDeviceList, ARepeatedDeviceUpdatesItsItemButKeepsTheFirstConnectedFlag)
{
    CRegisteredDeviceList l;
    std::string doc = "<list>" + Device("1", "Connected", "Air Conditioner", "Living room") +
                      Device("5", "Standby", "Air Conditioner", "Attic") +
                      Device("1", "Disconnected", "Air Conditioner", "Hall") + Device("5", "Connected", "Air Conditioner", "Loft") +
                      Device("1", "Connected", "Washer", "Ignored") + Device("1x", "Connected", "Air Conditioner", "Other") +
                      "<RegisteredDevice id=\"6\"><Type>Air Conditioner</Type><Name>Cellar</Name></RegisteredDevice>"
                      "</list>";
    EXPECT_TRUE(l.Parse(doc.c_str(), nullptr));
    EXPECT_EQ(Items(l), (Strings{"1|Hall|1|Disconnected|Air Conditioner", "5|Loft|0|Connected|Air Conditioner",
                                 "1x|Other|1|Connected|Air Conditioner", "6|Cellar|0||Air Conditioner"}));

    // A second document starts from an empty list.
    EXPECT_TRUE(l.Parse(("<l>" + Device("9", "Connected", "Air Conditioner", "New") + "</l>").c_str(), nullptr));
    EXPECT_EQ(Items(l), (Strings{"9|New|1|Connected|Air Conditioner"}));
}

TEST(CRegisteredDeviceList, AnIncompleteDeviceStopsReadingYetTheListSucceeds)
{
    const std::string kept = Device("1", "Connected", "Air Conditioner", "A");
    const std::string later = Device("2", "Connected", "Air Conditioner", "B");
    struct Case {
        std::string doc;
        bool null;
        bool result;
        const char *message;
        Strings items;
    } cases[] = {
        {"", true, false, nullptr, {}},
        {"<l>" + kept, false, false, "doc parsed error", {}},
        {"<l><Wrap>" + kept + "</Wrap></l>", false, false, "RegisteredDevice is null", {}},
        {"<l><RegisteredDevice id=\"0\"><Type>Air Conditioner</Type></RegisteredDevice>" + later + "</l>", false,
         true, "can not find Name Element", {}},
        {"<l>" + kept + "<RegisteredDevice status=\"Connected\"/>" + later + "</l>", false, true,
         "RegisteredDevice id is empty", {"1|A|1|Connected|Air Conditioner"}},
        {"<l>" + kept + "<RegisteredDevice id=\"0\"><Name>n</Name></RegisteredDevice>" + later + "</l>", false, true,
         "can not find Type Element", {"1|A|1|Connected|Air Conditioner"}},
        {"<l>" + kept + "<RegisteredDevice id=\"0\"><Name>n</Name><Type>Air Conditioner</Type></RegisteredDevice>" +
             later + "</l>",
         false, true, "can not find Name Element", {"1|A|1|Connected|Air Conditioner"}},
    };
    CRegisteredDeviceList l;
    for (auto &c : cases) {
        ASSERT_TRUE(l.Parse(("<l>" + Device("z", "Connected", "Air Conditioner", "Z") + "</l>").c_str(), nullptr));
        LogCapture log;
        EXPECT_EQ(l.Parse(c.null ? nullptr : c.doc.c_str(), nullptr), c.result) << c.doc;
        EXPECT_EQ(Items(l), c.items) << c.doc;
        if (c.message == nullptr)
            EXPECT_TRUE(log.Messages().empty());
        else
            EXPECT_EQ(log.PriorityOf(c.message), kDebug) << c.message;
        EXPECT_TRUE(tvhost::log::Find("id:[2]").empty()) << "read past the incomplete device: " << c.doc;
    }
}

TEST(CCommandResult, ParseIsAStubThatTouchesNothing)
{
    CCommandResult r;
    EXPECT_FALSE(r.bValid || r.bSuccess);
    std::string info = "true|true|done", list = "a|0";
    ASSERT_TRUE(r.m_ParseSubCommandInfo(info));
    ASSERT_TRUE(r.m_ParseSubCommandList(list));
    EXPECT_TRUE(r.Parse(nullptr, nullptr));
    EXPECT_TRUE(r.Parse("false", "garbage"));
    EXPECT_TRUE(r.bValid && r.bSuccess);
    EXPECT_EQ(r.strInfo, "done");
    EXPECT_EQ(Items(r), (Strings{"a/0/"}));
    r.Clear();
    EXPECT_FALSE(r.bValid || r.bSuccess);
    EXPECT_EQ(r.strInfo, "");
    EXPECT_TRUE(r.vctItem.empty());
}

TEST(CCommandResult, InfoTextIsFalseAloneOrThreeFieldsLedByTrue)
{
    struct Case {
        std::string text;
        bool result;
        const char *state;    // bValid bSuccess strInfo after the call
        const char *message;  // nullptr: nothing logged
    } cases[] = {
        {"true|false|x", true, "1 0 x", nullptr},
        {"true|True|x", true, "1 0 x", nullptr},
        {"||true||true|free text|", true, "1 1 free text", nullptr},
        {"false", true, "0 0 ", nullptr},
        {"True|true|x", false, "0 0 ", "[CCommandResult]vctResult[0,1,2]=(True,true,x)"},
        {"yes", false, "0 0 ", "[CCommandResult]vctResult[0]=(yes)"},
        {"|true|", false, "0 0 ", "[CCommandResult]vctResult[0]=(true)"},
        {"%s%n", false, "0 0 ", "[CCommandResult]vctResult[0]=(%s%n)"},
        {"|||", false, "0 0 ", "[CCommandResult]nTokens=0"},
        {"true|true", false, "0 0 ", "[CCommandResult]nTokens=2"},
        {"true|true|x|y", false, "0 0 ", "[CCommandResult]nTokens=4"},
    };
    for (auto &c : cases) {
        LogCapture log;
        CCommandResult r;
        EXPECT_EQ(r.m_ParseSubCommandInfo(c.text), c.result) << c.text;
        EXPECT_EQ(std::to_string(r.bValid) + " " + std::to_string(r.bSuccess) + " " + r.strInfo, c.state) << c.text;
        EXPECT_EQ(log.Messages(), c.message ? Strings{c.message} : Strings{}) << c.text;
    }
    // "false" and failures leave an earlier result alone.
    CCommandResult r;
    std::string first = "true|true|kept", again = "false", bad = "no";
    ASSERT_TRUE(r.m_ParseSubCommandInfo(first));
    EXPECT_TRUE(r.m_ParseSubCommandInfo(again));
    EXPECT_FALSE(r.m_ParseSubCommandInfo(bad));
    EXPECT_TRUE(r.bValid && r.bSuccess);
    EXPECT_EQ(r.strInfo, "kept");
}

TEST(CCommandResult, SubCommandListReadsNameCountValuesGroups)
{
    struct Case {
        std::string text;
        bool result;
        Strings items;
        const char *message;
    } cases[] = {
        {"power|1|on|volume|0|mode|2|cool|low", true, {"power/1/on,", "volume/0/", "mode/2/cool,low,"}, nullptr},
        {"|||", true, {}, nullptr},
        {"a|3|x", true, {"a/3/x,"}, nullptr},
        {"a|-1|b|0", true, {"a/-1/", "b/0/"}, nullptr},
        {"a|2x|p|q|r|0", true, {"a/2/p,q,", "r/0/"}, nullptr},
        {"a|x|b|0", true, {"a/0/", "b/0/"}, nullptr},
        {"a|4294967296|v", true, {"a/2147483647/v,"}, nullptr},
        {"a|-4294967296|v", false, {"a/-2147483648/"}, "[CCommandResult]nState=1"},
        {"a", false, {}, "[CCommandResult]nState=1"},
        {"a|0|b", false, {"a/0/"}, "[CCommandResult]nState=1"},
        {"a|-1|b", false, {"a/-1/"}, "[CCommandResult]nState=1"},
        {"a|2", false, {}, "[CCommandResult]nState=2"},
        {"a|1|v|b|-3", false, {"a/1/v,"}, "[CCommandResult]nState=2"},
    };
    for (auto &c : cases) {
        LogCapture log;
        CCommandResult r;
        EXPECT_EQ(r.m_ParseSubCommandList(c.text), c.result) << c.text;
        EXPECT_EQ(Items(r), c.items) << c.text;
        EXPECT_EQ(log.Messages(), c.message ? Strings{c.message} : Strings{}) << c.text;
    }
    // Nothing is cleared between calls: the items accumulate.
    CCommandResult r;
    std::string one = "a|0", two = "b|1|v|c";
    EXPECT_TRUE(r.m_ParseSubCommandList(one));
    EXPECT_FALSE(r.m_ParseSubCommandList(two));
    EXPECT_EQ(Items(r), (Strings{"a/0/", "b/1/v,"}));
}
