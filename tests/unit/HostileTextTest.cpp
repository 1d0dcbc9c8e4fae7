// Engine texts built to make the service expand, do quadratic work or steer
// a terminal: every parser refuses them as a text that does not parse, or
// takes them as plain data, and the host TV shows nothing of them raw.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "HostileTexts.h"
#include "LogCapture.h"
#include "LumoraParameter.h"
#include "ManagerFixture.h"
#include "tvhost/notification_screen.h"

using Peer = LumoraManagerTestPeer;

namespace {

std::string Attributes(size_t n)
{
    std::string out;
    for (size_t i = 0; i < n; ++i)
        out += " a" + std::to_string(i) + "=\"\"";
    return out;
}

// A parser and a document of its shape: root start tag, then extra
// attributes of the root, then a text where the parser reads one.
struct Parser {
    const char *name, *root, *beforeText, *after;
    std::function<bool(const std::string &)> parse;
};

const Parser kParsers[] = {
    {"device notification", "<n", "><Device id=\"d\">",
     "</Device><Notification>t</Notification><Action/><DisplayOption/></n>",
     [](const std::string &t) { return CDeviceNotification().Parse(t.c_str(), ""); }},
    {"new device list", "<n", "><NewDevice id=\"1\"><Type>", "</Type></NewDevice></n>",
     [](const std::string &t) { return CNewDeviceList().Parse(t.c_str(), ""); }},
    {"registered device list", "<n", "><RegisteredDevice id=\"1\"><Type>Air Conditioner</Type><Name>",
     "</Name></RegisteredDevice></n>",
     [](const std::string &t) { return CRegisteredDeviceList().Parse(t.c_str(), ""); }},
    {"master keys", "<MasterKeyList", "><MasterKey id=\"1\">", "</MasterKey></MasterKeyList>", Peer::ParseMasterKeys},
    {"device types", "<ControllableDevice", "><Device>", "</Device></ControllableDevice>", Peer::ParseDeviceTypes},
    {"registered catalogue", "<n", "><RegisteredDevice id=\"1\"><Type>T</Type><Name>", "</Name></RegisteredDevice></n>",
     Peer::ParseRegistered},
    {"command catalogue", "<n", "><Command><SubCommandList><SubCommand type=\"t\" service=\"s\">",
     "</SubCommand></SubCommandList></Command></n>", Peer::ParseCommands},
};

} // namespace

TEST(HostileText, WhatWouldExpandOrCrowdIsRefusedAsATextThatDoesNotParseAndTheRestIsData)
{
    LogCapture log;
    const std::string entity = "<!DOCTYPE n [<!ENTITY e \"" + std::string(4096, 'A') + "\">]>";
    struct Case {
        const char *what;
        std::string prolog, attributes, text;
        bool bRefused;
    } cases[] = {
        {"flat expansion in a text", entity, "", Repeat("&e;", 2000), true},
        {"flat expansion in an attribute", entity, " x=\"" + Repeat("&e;", 2000) + "\"", "t", true},
        {"DTD default attributes", "<!DOCTYPE n [<!ATTLIST n id CDATA \"9\" flag CDATA \"On\">]>", "", "t", true},
        {"a document type behind a comment", "<!-- <n> --><!DOCTYPE n SYSTEM \"x\">", "", "t", true},
        {"200,000 attributes", "", Attributes(200000), "t", true},
        {"257 attributes", "", Attributes(257), "t", true},
        {"256 attributes", "", Attributes(256), "t", false},
        // The scan must go on after a comment or CDATA section, not inside it.
        {"257 attributes after a comment that ends in <a\"", "<!--<a\"-->", Attributes(257), "t", true},
        {"a crowded tag after an empty CDATA section", "", "", "<![CDATA[]]><x" + Attributes(257) + "/>", true},
        {"'=' in a value, a comment and CDATA", "<!--" + Repeat(" a=", 300) + "-->", " q=\"" + Repeat("=", 300) + "\"",
         "<!--" + Repeat("b=", 300) + "--><![CDATA[" + Repeat("c=", 300) + "]]>", false},
        {"predefined entities and character references", "", "", "&amp;&lt;&#65;&#x9b;", false},
        // ESC and BEL are not XML characters: raw, they make a text that does not parse.
        {"C0 controls in a name", "", "", "\x1b]0;t\x07\x1b[2J", true},
        {"C1 and bidirectional controls and a line feed in a name", "", "", "\xc2\x9b\xe2\x80\xae\t\nD/FORGED", false},
    };
    for (const auto &p : kParsers) {
        const bool bPlain = p.parse(std::string(p.root) + p.beforeText + "t" + p.after);
        for (const auto &c : cases) {
            log.Clear();
            const bool bParsed = p.parse(c.prolog + p.root + c.attributes + p.beforeText + c.text + p.after);
            EXPECT_EQ(bParsed, c.bRefused ? false : bPlain) << p.name << ": " << c.what;
            EXPECT_EQ(log.Count("doc parsed error"), c.bRefused ? 1 : 0) << p.name << ": " << c.what;
        }
    }
    Peer::Release();
}

TEST(HostileText, ALongRegisteredListKeepsEachIdOnceInOrderOfFirstReport)
{
    std::string doc = "<n>";
    for (int i = 0; i < 100000; ++i)
        doc += "<RegisteredDevice id=\"" + std::to_string(i % 60000) + "\" status=\"" +
               (i < 60000 ? "Connected" : "Disconnected") + "\"><Type>Air Conditioner</Type><Name>n" +
               std::to_string(i) + "</Name></RegisteredDevice>";
    CRegisteredDeviceList list;
    ASSERT_TRUE(list.Parse((doc + "</n>").c_str(), ""));
    ASSERT_EQ(list.m_vecDevice.size(), 60000u);
    // What a repeat keeps of each field is the parsers' suite's.
    for (size_t i : {0u, 39999u, 40000u, 59999u})
        EXPECT_EQ(list.m_vecDevice[i].strID + "|" + list.m_vecDevice[i].strCtrlName,
                  std::to_string(i) + "|n" + std::to_string(i < 40000 ? i + 60000 : i));
}

// What the log echo makes of these controls is LumoraHostileTest's, through the real binary.
TEST(HostileText, APopUpDrawsNoControlAndBoundsAnyText)
{
    const std::string name =
        "a\x1b]52;c;Zm9v\x07\x1b[2J\x7f\xc2\x9b\xc2\x9d\xe2\x80\xae\xe2\x81\xa6\xff\nD/FORGED( 1): x";
    tvhost::notifications::Record r;
    r.appId = std::string(1000, 'p') + name;
    r.title = name;
    r.body = Repeat(name + " ", 200000);
    r.subText = std::string(1 << 20, 'w');
    r.buttonCount = 1;
    r.buttonLabel[0] = name + std::string(500, 'b');
    const std::string box = tvhost::notifications::Render(r);
    // No control byte but the line feed, no C1 or bidirectional control, no line that reads as a record.
    for (size_t i = 0; i < box.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(box[i]);
        ASSERT_FALSE((c < 0x20 && c != '\n') || c == 0x7F) << "byte " << int(c) << " at " << i;
        const std::string next = box.substr(i, 3);
        ASSERT_FALSE(c == 0xC2 && next.size() > 1 && static_cast<unsigned char>(next[1]) <= 0x9F) << i;
        ASSERT_TRUE(next != "\u202e" && next != "\u2066") << i;
    }
    EXPECT_THAT(box, ::testing::Not(::testing::HasSubstr("\nD/FORGED")));
    size_t nLines = 0, nColumns = 0;
    for (size_t at = 0, end; at < box.size(); at = end + 1, ++nLines) {
        end = box.find('\n', at);
        size_t n = 0; // code points: every character here is one column wide
        for (size_t i = at; i < end; ++i)
            n += (static_cast<unsigned char>(box[i]) & 0xC0) != 0x80;
        EXPECT_TRUE(nColumns == 0 || n == nColumns) << "line " << nLines << " of\n" << box;
        nColumns = n;
    }
    EXPECT_EQ(nColumns, 68u) << box;
    EXPECT_LE(nLines, 32u) << box;
    EXPECT_THAT(box, ::testing::HasSubstr("\u2026")) << box;
}
