#include <gtest/gtest.h>

#include <cstring>
#include <libxml/parser.h>

#include "ManagerFixture.h"

using Peer = LumoraManagerTestPeer;

namespace {
class Catalogue : public ::testing::Test {
protected:
    void TearDown() override { Peer::Release(); }
    LogCapture log;
};
} // namespace

TEST_F(Catalogue, MasterKeysAreReplacedOnlyByADocumentThatReachesItsKeys)
{
    EXPECT_TRUE(Peer::ParseMasterKeys("<MasterKeyList><MasterKey id=\"1\" name=\"Power\">PWR</MasterKey>"
                                      "<MasterKey id=\"2\">VOL</MasterKey><MasterKey id=\"3\" name=\"Late\">PWR</MasterKey>"
                                      "</MasterKeyList>"));
    ASSERT_EQ(Peer::MasterKeys().size(), 3u);
    EXPECT_EQ(Peer::MasterKeyName("PWR"), "Power") << "the earlier record wins";
    EXPECT_EQ(Peer::MasterKeyName("VOL"), "") << "no name";
    EXPECT_EQ(Peer::MasterKeyName("1"), "") << "looked up by key text, not id";

    struct Bad {
        const char *doc;
        const char *message;
    } bad[] = {
        {"<MasterKeyList>", "doc parsed error"},
        {"<ControllableDevice><MasterKey id=\"9\">X</MasterKey></ControllableDevice>", "root node != ControllableDevice"},
        {"<MasterKeyList><Other/></MasterKeyList>", "supported_MasterKey is null"},
    };
    for (const auto &b : bad) {
        log.Clear();
        EXPECT_FALSE(Peer::ParseMasterKeys(b.doc)) << b.doc;
        EXPECT_TRUE(log.Has(b.message)) << b.doc;
        EXPECT_EQ(Peer::MasterKeys().size(), 3u) << "a malformed document keeps the list";
        ASSERT_FALSE(log.Records().empty());
        EXPECT_NE(log.Records().back().text.find("LumoraManager.cpp:m_ParseMasterKeyMessage("), std::string::npos)
            << log.Records().back().text;
    }

    // K1, K2 without id, K3: K1 only, and still a success.
    log.Clear();
    EXPECT_TRUE(Peer::ParseMasterKeys("<MasterKeyList><MasterKey id=\"\" name=\"One\">K1</MasterKey>"
                                      "<MasterKey name=\"Two\">K2</MasterKey><MasterKey id=\"3\">K3</MasterKey>"
                                      "</MasterKeyList>"));
    ASSERT_EQ(Peer::MasterKeys().size(), 1u);
    EXPECT_EQ(Peer::MasterKeys()[0].key, "K1");
    EXPECT_EQ(Peer::MasterKeys()[0].id, "") << "an empty id is still an id";
    EXPECT_TRUE(log.Has("MasterKey id is empty"));
    EXPECT_TRUE(log.Has("add master key K1"));
}

TEST_F(Catalogue, DeviceTypesAreOnlyLogged)
{
    EXPECT_TRUE(Peer::ParseDeviceTypes("<ControllableDevice><Device a=\"x\">Washer</Device><Other>No</Other>"
                                       "<Device>Air Conditioner</Device></ControllableDevice>"));
    EXPECT_TRUE(log.Has("type = Washer"));
    EXPECT_TRUE(log.Has("type = Air Conditioner"));
    EXPECT_FALSE(log.Has("type = No"));
    EXPECT_TRUE(Peer::DeviceTypes().empty());

    EXPECT_FALSE(Peer::ParseDeviceTypes("<Devices><Device>Washer</Device></Devices>"));
    EXPECT_TRUE(log.Has("root node != ControllableDevice"));
    EXPECT_FALSE(Peer::ParseDeviceTypes("<ControllableDevice/>"));
    EXPECT_TRUE(log.Has("supported_type is null"));
    EXPECT_FALSE(Peer::ParseDeviceTypes(""));
    EXPECT_TRUE(log.Has("doc parsed error"));
}

TEST_F(Catalogue, RegisteredDevicesAppendUntilTheFirstIncompleteOne)
{
    const std::string doc = "<Any><RegisteredDevice id=\"1\" status=\"On\"><Type>Washer</Type><x/><Name>Bath</Name>"
                            "</RegisteredDevice><RegisteredDevice id=\"2\"><Type>TV</Type><Name>Den</Name>"
                            "</RegisteredDevice></Any>";
    EXPECT_TRUE(Peer::ParseRegistered(doc));
    EXPECT_TRUE(Peer::ParseDeviceNames(doc));
    auto &devices = Peer::Devices();
    ASSERT_EQ(devices.size(), 4u) << "the same document twice doubles the list";
    EXPECT_EQ(devices[0].id, "1");
    EXPECT_EQ(devices[0].status, "On");
    EXPECT_EQ(devices[0].type, "Washer");
    EXPECT_EQ(devices[0].name, "Bath");
    EXPECT_EQ(devices[1].status, "") << "absent status";
    log.Clear();
    Peer::Get().m_PrintCurrentDeviceList();
    EXPECT_EQ(log.Messages().front(), "id:[1],name:[Bath]");

    // Name before Type is not seen, and the walk stops there.
    log.Clear();
    EXPECT_TRUE(Peer::ParseRegistered("<Any><RegisteredDevice id=\"3\"><Name>Early</Name><Type>TV</Type></RegisteredDevice>"
                                      "<RegisteredDevice id=\"4\"><Type>TV</Type><Name>Late</Name></RegisteredDevice></Any>"));
    EXPECT_TRUE(log.Has("can not find Name Element"));
    EXPECT_EQ(devices.size(), 4u);

    EXPECT_TRUE(Peer::ParseRegistered("<Any><RegisteredDevice><Type>TV</Type><Name>N</Name></RegisteredDevice></Any>"));
    EXPECT_TRUE(log.Has("RegisteredDevice id is empty"));
    EXPECT_TRUE(Peer::ParseRegistered("<Any><RegisteredDevice id=\"5\"><Name>N</Name></RegisteredDevice></Any>"));
    EXPECT_TRUE(log.Has("can not find Type Element"));
    EXPECT_FALSE(Peer::ParseRegistered("<Any><Device/></Any>"));
    EXPECT_TRUE(log.Has("RegisteredDevice is null"));
    EXPECT_EQ(devices.size(), 4u);

    // Each of the two names logs under its own function name.
    log.Clear();
    Peer::ParseDeviceNames("<x");
    Peer::ParseRegistered("<x");
    auto records = log.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_NE(records[0].text.find(":m_ParseDeviceNameList("), std::string::npos) << records[0].text;
    EXPECT_NE(records[1].text.find(":m_ParseRegisteredDevice("), std::string::npos) << records[1].text;
}

TEST_F(Catalogue, VoiceCommandsKeepTheFirstPhraseAndSkipDegree)
{
    const std::string doc =
        "<Commands>"
        "<Command><SubCommandList>"
        "<SubCommand type=\"set\" service=\"power\" var=\"v\" value=\"on\">Turn on</SubCommand>"
        "<SubCommand type=\"set\" service=\"temp\">Degree up</SubCommand>"
        "<SubCommand type=\"set\" service=\"temp\">Set 20 Degree</SubCommand>"
        "<SubCommand type=\"set\" service=\"temp\">Up one Degree please</SubCommand>"
        "<SubCommand type=\"set\" service=\"temp\">one degree up</SubCommand>"
        "<SubCommand type=\"set\" service=\"other\">Turn on</SubCommand>"
        "<SubCommand type=\"get\" service=\"status\"/>"
        "</SubCommandList><SubCommandList><SubCommand type=\"x\" service=\"y\">Second list</SubCommand></SubCommandList>"
        "</Command>"
        "<Command><SubCommandList><SubCommand service=\"s\">No type</SubCommand>"
        "<SubCommand type=\"t\" service=\"s\">After bad</SubCommand></SubCommandList></Command>"
        "<Command><SubCommandList><SubCommand type=\"t\" service=\"mode\">Cool mode</SubCommand></SubCommandList></Command>"
        "</Commands>";
    EXPECT_TRUE(Peer::ParseCommands(doc));
    auto &commands = Peer::Commands();
    std::vector<std::string> keys;
    for (const auto &e : commands)
        keys.push_back(e.first);
    EXPECT_EQ(keys, (std::vector<std::string>{"", "Cool mode", "Turn on", "one degree up"}));
    EXPECT_EQ(commands["Turn on"].service_id, "power") << "the first definition wins";
    EXPECT_EQ(commands["Turn on"].service_var, "v");
    EXPECT_EQ(commands["Turn on"].service_value, "on");
    EXPECT_EQ(commands[""].execute_cmd, "get");
    EXPECT_TRUE(log.Has("SubCommand type is empty"));
    EXPECT_FALSE(log.Has("voice is empty"));

    auto before = commands.size();
    EXPECT_TRUE(Peer::ParseCommands(doc));
    EXPECT_EQ(commands.size(), before);

    log.Clear();
    EXPECT_TRUE(Peer::ParseCommands("<C><Command/><Command><SubCommandList><SubCommand type=\"a\" service=\"b\">Late</SubCommand>"
                                    "</SubCommandList></Command></C>"));
    EXPECT_TRUE(log.Has("sub_command_list is null"));
    EXPECT_EQ(commands.count("Late"), 0u) << "a command without a list stops the walk";
    EXPECT_TRUE(Peer::ParseCommands("<C><Command><SubCommandList/></Command></C>"));
    EXPECT_TRUE(log.Has("sub_command is null"));
    EXPECT_TRUE(Peer::ParseCommands("<C><Command><SubCommandList><SubCommand type=\"a\">x</SubCommand></SubCommandList></Command></C>"));
    EXPECT_TRUE(log.Has("SubCommand service is empty"));
    EXPECT_FALSE(Peer::ParseCommands("<C/>"));
    EXPECT_TRUE(log.Has("command is null"));

    log.Clear();
    Peer::Get().m_PrintCurrentCommandList();
    EXPECT_EQ(log.Count("voice_cmd:[Turn on]"), 1);
    EXPECT_EQ(log.Messages().size(), 5 * commands.size());
}

TEST_F(Catalogue, FirstChildNodeMatchesAnyNodeTypeAmongDirectChildren)
{
    const char *text = "<r>t<a><b/></a><b/></r>";
    xmlDocPtr doc = xmlParseMemory(text, static_cast<int>(std::strlen(text)));
    xmlNodePtr root = xmlDocGetRootElement(doc);
    EXPECT_EQ(Peer::FirstChild(root, "text"), root->children);
    EXPECT_EQ(Peer::FirstChild(root, "b"), root->children->next->next);
    EXPECT_EQ(Peer::FirstChild(root->children->next->next, "b"), nullptr) << "no children";
    EXPECT_EQ(Peer::FirstChild(root, "missing"), nullptr);
    xmlFreeDoc(doc);
}
