#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <regex>

#include "ManagerFixture.h"
#include "tvhost/apps.h"
#include "tvhost/faults.h"
#include "tvhost/mainloop.h"
#include "tvhost/network.h"
#include "tvhost/notifications.h"
#include "tvhost/power.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
using Peer = LumoraManagerTestPeer;
using ::testing::Optional;
using Texts = std::vector<std::string>;

namespace {

// The manager's own log lines since the last call as "<platform priority> <message>"
// (3 debug, 4 info, 6 error, 7 fatal); other classes' lines are left out, handles read 0x?.
Texts Own(LogCapture &log)
{
    Texts out;
    for (const auto &r : log.Records())
        if (r.text.find("LumoraManager.cpp:") != std::string::npos)
            out.push_back(std::to_string(r.priority) + " " +
                          std::regex_replace(MessageOf(r.text), std::regex("0x[0-9a-f]+"), "0x?"));
    log.Clear();
    return out;
}

Texts Concat(Texts a, const Texts &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Texts kLanguageSent = {"3 LumoraManager::Construct SetLanguage strReturn = OK",
                             "3 LumoraManager::Construct SetSystemLanguage strReturn = OK"};

// Catalogue parsers need no main loop, no engine and no Construct.
class Catalogue : public ::testing::Test {
protected:
    void SetUp() override
    {
        Peer::Get();
        log.Clear();
    }
    void TearDown() override { Peer::Release(); }
    LogCapture log;
};

} // namespace

// Construct leaves the start to the main loop; it is told the language then.
TEST_F(ManagerTest, EngineStartsOnTheMainLoopThreeSecondsLater)
{
    tvhost::apps::SetInstalled(kWidgetApp, true);
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(Peer::Get().Construct(), 0);
    EXPECT_EQ(sim->Calls("qorv_start"), 0);
    EXPECT_EQ(Own(log), (Texts{"3 LumoraManager::LumoraManager()", "3 Enter into m_HandleWidgetInstall",
                               "3 connection_create() is successful. connection : 0x?\n"}));
    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_excute") == 2; }));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 3s) << "a lower bound: a busy machine only makes it later";
    EXPECT_EQ(sim->Calls("qorv_register_callback"), 1);
    EXPECT_EQ(log.Count("CLumoraQorvHelper Begin to Execute strParam1 = en_US!"), 2);
    EXPECT_EQ(Own(log), Concat({"3 Begin to start qorv!", "3 Success to start qorv!",
                                "3 Current Language is en_US.UTF-8", "3 The language to set is en_US!"},
                               kLanguageSent));
}

// Both commands with the part before the first dot, if any; none for a text
// without one, or a key turned integer.
TEST_F(ManagerTest, LanguageChangeSendsBothCommandsOrNone)
{
    StartWithWidget();
    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_excute") == 2; }));
    log.Clear();
    const struct {
        const char *text, *sent; // sent: null if nothing is
        Texts lines;
    } languages[] = {
        {"ko_KR.UTF-8", "ko_KR", Concat({"3 The language to set is ko_KR!"}, kLanguageSent)},
        {"en_US.UTF-8.x", "en_US", Concat({"3 The language to set is en_US!"}, kLanguageSent)},
        {"en", nullptr, {"3 The string has the wrong format!"}},
        {".UTF-8", nullptr, {"3 The language to set is !", "3 The string is empty!"}},
    };
    for (const auto &c : languages) {
        SCOPED_TRACE(c.text);
        const int nSent = sim->Calls("qorv_excute");
        tvhost::settings::SetString(kLanguageKey, c.text);
        ASSERT_TRUE(RunUntil([&] { return log.Has(c.lines.back().substr(2)); }));
        EXPECT_EQ(sim->Calls("qorv_excute"), nSent + (c.sent ? 2 : 0));
        EXPECT_EQ(
            log.Count(std::string("CLumoraQorvHelper Begin to Execute strParam1 = ") + (c.sent ? c.sent : "") + "!"),
            c.sent ? 2 : 0);
        EXPECT_EQ(Own(log),
                  Concat({"3 The keyName is [db/menu_widget/language]", std::string("3 Current Language is ") + c.text},
                         c.lines));
    }
    // The key turned integer is not read.
    tvhost::settings::SetInt(kLanguageKey, 5);
    ASSERT_TRUE(RunUntil([&] { return log.Has("The keyName is [db/menu_widget/language]"); }));
    tvhost::mainloop::RunFor(100ms);
    EXPECT_EQ(Own(log), Texts{"3 The keyName is [db/menu_widget/language]"});
}

// Wi-Fi (1) and Ethernet (3) refresh the engine; none (0) and cellular (2) are only logged.
TEST_F(ManagerTest, OnlyWifiAndEthernetRefreshTheEngine)
{
    StartWithWidget();
    for (int nType : {0, 3, 1, 2}) {
        tvhost::network::SetType(nType);
        ASSERT_TRUE(RunUntil(
            [&] { return log.Has("m_ConnectionTypeChangedCB() is called. type : " + std::to_string(nType)); }));
    }
    EXPECT_EQ(sim->Calls("qorv_refresh"), 2);
    // Each refresh has the engine report its devices again, later, on its own thread.
    ASSERT_TRUE(RunUntil([&] { return tvhost::log::Find("OnQorvEvent, event type is 0,").size() == 2; }));
    Texts info;
    for (const auto &line : Own(log))
        if (line[0] != '3')
            info.push_back(line);
    EXPECT_EQ(info, (Texts{"4 m_ConnectionTypeChangedCB() is called. type : 0",
                           "4 m_ConnectionTypeChangedCB() is called. type : 3",
                           "4 m_ConnectionTypeChangedCB() is called. type : 1",
                           "4 m_ConnectionTypeChangedCB() is called. type : 2"}));
}

// Removing the widget neither stops the engine nor is read by the pipe's
// handler; it only silences the network handler. Installed again, the start
// is asked for again, and the binding ignores it.
TEST_F(ManagerTest, WidgetRemovalSilencesOnlyTheNetworkHandler)
{
    StartWithWidget();
    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_excute") == 2; }));
    log.Clear();
    tvhost::apps::SetInstalled(kWidgetApp, false);
    ASSERT_TRUE(RunUntil([&] { return log.Has("Enter into m_HandleWidgetInstall"); }));
    tvhost::network::SetType(1);
    tvhost::mainloop::RunFor(300ms);
    EXPECT_EQ(Own(log), Texts{"3 Enter into m_HandleWidgetInstall"});
    EXPECT_EQ(sim->Calls("qorv_refresh"), 0);
    EXPECT_EQ(sim->Calls("qorv_stop"), 0);

    tvhost::apps::SetInstalled(kWidgetApp, true);
    ASSERT_TRUE(RunUntil([&] { return log.Has("CLumoraQorvHelper Lumora Helper has been started already!"); }));
    EXPECT_EQ(sim->Calls("qorv_start"), 1);
}

TEST_F(ManagerTest, EachConnectionFailureEndsConstructWithMinusOneAndItsFatalLine)
{
    struct {
        const char *fn;
        Texts lines;
    } cases[] = {
        {"connection_create", {"7 connection_create() is failed\n"}},
        {"connection_set_type_changed_cb",
         {"3 connection_create() is successful. connection : 0x?\n", "7 connection_set_type_changed_cb() is failed\n"}},
    };
    for (const auto &c : cases) {
        tvhost::faults::Queue(c.fn, -1);
        EXPECT_EQ(Peer::Get().Construct(), -1);
        EXPECT_EQ(Own(log), Concat({"3 LumoraManager::LumoraManager()"}, c.lines));
        Peer::TearDown();
        log.Clear();
    }
}

TEST_F(ManagerTest, OneInstanceUntilReleased)
{
    LumoraManager *p = LumoraManager::GetInstance();
    EXPECT_EQ(LumoraManager::GetInstance(), p);
    LumoraManager::ReleaseInstance();
    LumoraManager::ReleaseInstance(); // a second release does nothing
    EXPECT_EQ(Own(log), (Texts{"3 LumoraManager::LumoraManager()", "3 LumoraManager::~LumoraManager()"}));
}

TEST_F(ManagerTest, EngineEventsAreDispatchedByKind)
{
    StartWithWidget();
    tvhost::notifications::DrawTo(nullptr);
    const std::string kAirCon =
        "<DeviceNotification id=\"7\" type=\"alarm\"><Device id=\"ac1\" type=\"Air Conditioner\">Living room AC"
        "</Device><Notification>Filter needs cleaning</Notification><Action type=\"open\">Widget</Action>"
        "<DisplayOption flag=\"On\" condition=\"Always\"/></DeviceNotification>";
    const std::string kRegistered =
        "<RegisteredDevice id=\"1\" status=\"Connected\"><Type>Air Conditioner</Type><Name>Living room"
        "</Name></RegisteredDevice><RegisteredDevice id=\"2\" status=\"Connected\"><Type>Washer</Type>"
        "<Name>Bath</Name></RegisteredDevice>";
    const std::string kMasterKeys = "<MasterKeyList><MasterKey id=\"1\" name=\"Power\">PWR</MasterKey></MasterKeyList>";
    struct {
        int nEvent;
        std::string p1, p2;
        Texts lines; // after the entry line
        size_t nPosted;
    } cases[] = {
        {5, kAirCon, "", {}, 1},
        {5, "<DeviceNotification", "", {}, 1},
        {1,
         "<l><NewDevice id=\"n1\"><Type>Washer</Type></NewDevice><NewDevice id=\"n2\"><Type>Air Conditioner</Type>"
         "</NewDevice></l>",
         "",
         {},
         2},
        {1, "<l><NewDevice id=\"x\"/></l>", "", {}, 2},
        // The registered list is kept until the next one; what it holds after a parse is reported, success or not.
        {0,
         "<l>" + kRegistered + "</l>",
         "p2",
         {"3 Device list : strID = 1", "3 Device list : strCtrlName = Living room",
          "3 Device list : status = Connected", "3 Device list : type = Air Conditioner"},
         2},
        {0,
         "<l><RegisteredDevice id=\"9\" status=\"Off\"><Type>Air Conditioner</Type><Name>Hall</Name></RegisteredDevice>"
         "<RegisteredDevice id=\"10\"><Type>Air Conditioner</Type></RegisteredDevice>" +
             kRegistered + "</l>",
         "",
         {"3 Device list : strID = 9", "3 Device list : strCtrlName = Hall", "3 Device list : status = Off",
          "3 Device list : type = Air Conditioner"},
         2},
        {0, "not xml", "", {}, 2},
        {12290,
         kMasterKeys,
         "<MasterKeyList><MasterKey id=\"2\">IGN</MasterKey></MasterKeyList>",
         {"3 add master key PWR"},
         2},
        {12290, "<Other/>", "", {"3 root node != ControllableDevice", "3 call m_ParseMasterKeyMessage fail"}, 2},
        {2, kAirCon, "x", {}, 2},
        {12289, kMasterKeys, "", {}, 2},
        {-1, "", "", {}, 2},
        {12291, "", "", {"3 In HAC_EVENT_TV_POWER_OFF condition "}, 2},
    };
    log.Clear();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.nEvent);
        EXPECT_EQ(sim->Emit(c.nEvent, c.p1.c_str(), c.p2.c_str()), 0);
        EXPECT_EQ(Own(log), Concat({"3 Enter LumoraManager::OnQorvEvent, event type is " + std::to_string(c.nEvent) +
                                    ", strParam1 = " + c.p1 + ", strParam2 = " + c.p2},
                                   c.lines));
        EXPECT_EQ(tvhost::notifications::Posted().size(), c.nPosted);
    }
    const auto posted = tvhost::notifications::Posted();
    EXPECT_THAT(posted[0].title, Optional(std::string("Living room AC")));
    EXPECT_THAT(posted[1].body, Optional(std::string("Air Conditioner 1, Washer 1TV_NEW_HOME_APPLIANCE_DETECTED")));
    EXPECT_EQ(tvhost::power::Requests(), std::vector<int>{3});
}

// The catalogues in the order they are parsed, with each parse's own lines.
TEST_F(Catalogue, EachParserKeepsWhatCameBeforeTheFirstIncompleteEntry)
{
    const std::map<char, bool (*)(const std::string &)> parsers = {{'K', Peer::ParseMasterKeys},
                                                                   {'T', Peer::ParseDeviceTypes},
                                                                   {'N', Peer::ParseDeviceNames},
                                                                   {'R', Peer::ParseRegistered},
                                                                   {'C', Peer::ParseCommands}};
    const std::string registered =
        "<a><RegisteredDevice id=\"1\" status=\"On\"><Type>Washer</Type><x/><Name>Bath</Name>"
        "</RegisteredDevice><RegisteredDevice id=\"2\"><Type>TV</Type><Name>Den</Name>"
        "</RegisteredDevice></a>";
    const struct {
        char parser;
        bool result;
        const char *lines; // joined by '|'
        std::string doc;
    } steps[] = {
        // A key without id ends the walk; an empty id is still an id.
        {'K', true, "add master key K1|MasterKey id is empty",
         "<MasterKeyList><MasterKey id=\"\" name=\"One\">K1</MasterKey><MasterKey name=\"Two\">K2</MasterKey>"
         "<MasterKey id=\"3\">K3</MasterKey></MasterKeyList>"},
        {'K', true, "add master key PWR|add master key VOL|add master key PWR",
         "<MasterKeyList><MasterKey id=\"1\" name=\"Power\">PWR</MasterKey><MasterKey id=\"2\">VOL</MasterKey>"
         "<MasterKey id=\"3\" name=\"Late\">PWR</MasterKey></MasterKeyList>"},
        // A failed document keeps the list; a wrong root is called ControllableDevice.
        {'K', false, "root node != ControllableDevice",
         "<ControllableDevice><MasterKey id=\"9\">X</MasterKey></ControllableDevice>"},
        {'K', false, "supported_MasterKey is null", "<MasterKeyList><Other/></MasterKeyList>"},
        // Device types are only logged.
        {'T', true, "type = Washer|type = Air Conditioner",
         "<ControllableDevice><Device a=\"x\">Washer</Device><Other>No</Other><Device>Air Conditioner</Device>"
         "</ControllableDevice>"},
        {'T', false, "root node != ControllableDevice", "<Devices><Device>Washer</Device></Devices>"},
        {'T', false, "supported_type is null", "<ControllableDevice/>"},
        // Registered devices append; Name before Type is not seen, a missing id or Type ends the walk too.
        {'R', true, "", registered},
        {'N', true, "", registered},
        {'R', true, "can not find Name Element",
         "<a><RegisteredDevice id=\"3\"><Name>Early</Name><Type>TV</Type></RegisteredDevice>"
         "<RegisteredDevice id=\"4\"><Type>TV</Type><Name>Late</Name></RegisteredDevice></a>"},
        {'R', true, "RegisteredDevice id is empty",
         "<a><RegisteredDevice><Type>TV</Type><Name>N</Name></RegisteredDevice></a>"},
        {'R', true, "can not find Type Element", "<a><RegisteredDevice id=\"5\"><Name>N</Name></RegisteredDevice></a>"},
        {'R', false, "RegisteredDevice is null", "<a><Device/></a>"},
        // A command without a list ends the walk; a bad sub-command ends only its list.
        {'C', true, "sub_command_list is null",
         "<C><Command/><Command><SubCommandList><SubCommand type=\"a\" service=\"b\">Late</SubCommand>"
         "</SubCommandList></Command></C>"},
        {'C', true, "sub_command is null", "<C><Command><SubCommandList/></Command></C>"},
        {'C', true, "SubCommand service is empty",
         "<C><Command><SubCommandList><SubCommand type=\"a\">x</SubCommand></SubCommandList></Command></C>"},
        {'C', false, "command is null", "<C/>"},
    };
    for (const auto &s : steps) {
        EXPECT_EQ(parsers.at(s.parser)(s.doc), s.result) << s.doc;
        std::string lines;
        for (const auto &line : Own(log))
            lines += (lines.empty() ? "" : "|") + line.substr(line[0] == '3' ? 2 : 0);
        EXPECT_EQ(lines, s.lines) << s.doc;
    }
    const auto &devices = Peer::Devices();
    ASSERT_EQ(devices.size(), 4u);
    EXPECT_EQ(devices[0].status + "|" + devices[0].type + "|" + devices[1].status, "On|Washer|");
    Peer::Get().m_PrintCurrentDeviceTypeList();
    Peer::Get().m_PrintCurrentDeviceList();
    EXPECT_EQ(Own(log),
              (Texts{"3 id:[1],name:[Bath]", "3 id:[2],name:[Den]", "3 id:[1],name:[Bath]", "3 id:[2],name:[Den]"}));

    ASSERT_EQ(Peer::MasterKeys().size(), 3u) << "replaced, not appended";
    EXPECT_EQ(Peer::MasterKeyName("PWR"), "Power") << "the earlier record wins";
    EXPECT_EQ(Peer::MasterKeyName("VOL"), "") << "no name";
    EXPECT_EQ(Peer::MasterKeyName("1"), "") << "looked up by key text, not id";

    // Each logs under its own name, the two device lists sharing one parser.
    log.Clear();
    for (char parser : std::string("KTNRC"))
        parsers.at(parser)("<x");
    Texts functions;
    for (const auto &r : log.Records())
        functions.push_back(r.text.substr(0, r.text.find('(')));
    EXPECT_EQ(functions, (Texts{"LumoraManager.cpp:m_ParseMasterKeyMessage", "LumoraManager.cpp:m_ParseDeviceTypeList",
                                "LumoraManager.cpp:m_ParseDeviceNameList", "LumoraManager.cpp:m_ParseRegisteredDevice",
                                "LumoraManager.cpp:m_ParseDeviceCommandList"}));
}

TEST_F(Catalogue, VoiceCommandsKeepTheFirstPhraseAndSkipDegree)
{
    const std::string doc = "<Commands><Command><SubCommandList>"
                            "<SubCommand type=\"set\" service=\"power\" var=\"v\" value=\"on\">Turn on</SubCommand>"
                            "<SubCommand type=\"set\" service=\"temp\">Degree up</SubCommand>"
                            "<SubCommand type=\"set\" service=\"temp\">Set 20 Degree</SubCommand>"
                            "<SubCommand type=\"set\" service=\"temp\">one degree up</SubCommand>"
                            "<SubCommand type=\"set\" service=\"other\">Turn on</SubCommand>"
                            "<SubCommand type=\"get\" service=\"status\"/>"
                            "</SubCommandList><SubCommandList><SubCommand type=\"x\" service=\"y\">Second "
                            "list</SubCommand></SubCommandList>"
                            "</Command><Command><SubCommandList><SubCommand service=\"s\">No type</SubCommand>"
                            "<SubCommand type=\"t\" service=\"s\">After bad</SubCommand></SubCommandList></Command>"
                            "<Command><SubCommandList><SubCommand type=\"t\" service=\"mode\">Cool "
                            "mode</SubCommand></SubCommandList></Command>"
                            "</Commands>";
    EXPECT_TRUE(Peer::ParseCommands(doc));
    EXPECT_TRUE(Peer::ParseCommands(doc));
    EXPECT_EQ(Own(log), (Texts{"3 SubCommand type is empty", "3 SubCommand type is empty"}));
    Peer::Get().m_PrintCurrentCommandList();
    Texts lines = Own(log), entries;
    ASSERT_EQ(lines.size(), 20u);
    for (size_t i = 0; i < lines.size(); i += 5)
        entries.push_back(lines[i] + lines[i + 1] + lines[i + 2] + lines[i + 3] + lines[i + 4]);
    // Ordered by phrase; a sub-command without one is stored under the empty phrase.
    EXPECT_EQ(
        entries,
        (Texts{"3 voice_cmd:[]3 execute_cmd:[get]3 service_id:[status]3 service_var:[]3 service_value:[]",
               "3 voice_cmd:[Cool mode]3 execute_cmd:[t]3 service_id:[mode]3 service_var:[]3 service_value:[]",
               "3 voice_cmd:[Turn on]3 execute_cmd:[set]3 service_id:[power]3 service_var:[v]3 service_value:[on]",
               "3 voice_cmd:[one degree up]3 execute_cmd:[set]3 service_id:[temp]3 service_var:[]3 service_value:[]"}));
}
