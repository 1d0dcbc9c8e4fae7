// Hostile engine texts against every parser an event reaches (events 5, 1, 0
// and 12290): each gets its defined result or the "doc parsed error" path,
// external text is only ever data, and nothing outside the document is read.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <unistd.h>

#include <libxml/xmlerror.h>

#include "HostileTexts.h"
#include "LogCapture.h"
#include "LumoraParameter.h"
#include "ManagerFixture.h"

using Peer = LumoraManagerTestPeer;

namespace {

void IgnoreXmlError(void *, const char *, ...) {}

// What a parser read, in one line: its result, and the id and text of the first item.
std::string Read(bool bParsed, const std::string &id, const std::string &text)
{
    return (bParsed ? "parsed|" : "failed|") + id + "|" + text;
}

// An event parser and a document of its shape: prolog in front (a document
// type declaration), id an attribute value and text an element's content,
// both written as given.
struct Parser {
    const char *name, *beforeID, *beforeText, *after;
    std::function<std::string(const char *)> parse;
    std::string Doc(const std::string &prolog, const std::string &id, const std::string &text) const
    {
        return prolog + beforeID + id + beforeText + text + after;
    }
};

const Parser kParsers[] = {
    {"device notification", "<n id=\"", "\"><Device id=\"d\">N</Device><Notification>",
     "</Notification><Action/><DisplayOption/></n>",
     [](const char *t) {
         CDeviceNotification p;
         bool b = p.Parse(t, "");
         return Read(b, p.m_Data.strNotiID, p.m_Data.strNotiText);
     }},
    {"new device list", "<n><NewDevice id=\"", "\"><Type>", "</Type></NewDevice></n>",
     [](const char *t) {
         CNewDeviceList p;
         bool b = p.Parse(t, "");
         return p.m_vecDevice.empty() ? Read(b, "", "") : Read(b, p.m_vecDevice[0].strID, p.m_vecDevice[0].strType);
     }},
    {"registered device list", "<n><RegisteredDevice id=\"",
     "\" status=\"Connected\"><Type>Air Conditioner</Type><Name>", "</Name></RegisteredDevice></n>",
     [](const char *t) {
         CRegisteredDeviceList p;
         bool b = p.Parse(t, "");
         return p.m_vecDevice.empty() ? Read(b, "", "") : Read(b, p.m_vecDevice[0].strID, p.m_vecDevice[0].strCtrlName);
     }},
    {"master keys", "<MasterKeyList><MasterKey id=\"", "\" name=\"n\">", "</MasterKey></MasterKeyList>",
     [](const char *t) {
         Peer::MasterKeys().clear();
         bool b = Peer::ParseMasterKeys(t);
         auto &keys = Peer::MasterKeys();
         return keys.empty() ? Read(b, "", "") : Read(b, keys[0].id, keys[0].key);
     }},
};

} // namespace

TEST(HostileInput, TextsAreOnlyDataAndWhatDoesNotParseTakesTheDocParsedErrorPath)
{
    LogCapture log;
    xmlSetGenericErrorFunc(nullptr, IgnoreXmlError);
    // A local file for external entities and subsets to name.
    char path[] = "/tmp/lumora-secret-XXXXXX";
    ASSERT_EQ(close(mkstemp(path)), 0);
    const std::string secret = "SECRET-MARKER-7f3a", conversions = "%s%n%s%x%p%99999999d%%", file = path;
    std::ofstream(path) << secret;
    const std::string big(20u << 20, 'x'), mib(4096 * 256, 'A');
    std::string bomb = "<!DOCTYPE n [<!ENTITY lol0 \"lol\">"; // ten levels of ten references: 10^9 "lol"s
    for (int i = 1; i <= 9; ++i)
        bomb += "<!ENTITY lol" + std::to_string(i) + " \"" + Repeat("&lol" + std::to_string(i - 1) + ";", 10) + "\">";
    // expected: the text read, or nullptr for a document that does not parse.
    struct Case {
        const char *what;
        std::string prolog, id, text, tail;
        const char *expected;
    } cases[] = {
        {"printf conversions, logged as data", "", conversions, conversions, "", conversions.c_str()},
        {"what follows a NUL byte", "", "1", "name", std::string(1, '\0') + "<garbage " + secret, "name"},
        {"an external entity", "<!DOCTYPE n [<!ENTITY e SYSTEM \"" + file + "\">]>", "1", "a&e;b", "", nullptr},
        {"an external entity URL", "<!DOCTYPE n [<!ENTITY e SYSTEM \"file://" + file + "\">]>", "1", "a&e;b", "",
         nullptr},
        {"an external subset", "<!DOCTYPE n SYSTEM \"" + file + "\">", "1", "x", "", nullptr},
        {"tens of megabytes", "", "big", big, "", big.c_str()},
        // Flat expansion, which libxml2 does not stop: refused with any other DTD.
        {"an entity referenced 256 times", "<!DOCTYPE n [<!ENTITY big \"" + mib.substr(0, 4096) + "\">]>", "1",
         Repeat("&big;", 256), "", nullptr},
        {"nested entity expansion", bomb + "]>", "1", "&lol9;", "", nullptr},
        {"nesting deeper than libxml2's limit of 256", "", "1", Repeat("<d>", 10000) + Repeat("</d>", 10000), "",
         nullptr},
        {"invalid UTF-8", "", "1", "bad \xff\xfe \xc3\x28 bytes", "", nullptr},
        {"a NUL byte inside the text: the document ends there", "", "1", std::string("cut\0rest", 8), "", nullptr},
    };
    for (const auto &p : kParsers) {
        for (const auto &c : cases) {
            log.Clear();
            const std::string read = p.parse((p.Doc(c.prolog, c.id, c.text) + c.tail).c_str());
            EXPECT_TRUE(read == (c.expected ? Read(true, c.id, c.expected) : Read(false, "", "")))
                << p.name << ": " << c.what << ": " << read.substr(0, 200);
            EXPECT_EQ(log.Count("doc parsed error"), c.expected ? 0 : 1) << p.name << ": " << c.what;
            EXPECT_TRUE(tvhost::log::Find(secret).empty()) << p.name << ": " << c.what;
            EXPECT_TRUE(c.id != conversions || !tvhost::log::Find(conversions).empty()) << p.name << ": as data";
        }
        log.Clear();
        EXPECT_EQ(p.parse(""), Read(false, "", "")) << p.name;
        EXPECT_EQ(log.Count("doc parsed error"), 1) << p.name << ": the empty text";
    }
    std::remove(path);
    Peer::Release();
}
