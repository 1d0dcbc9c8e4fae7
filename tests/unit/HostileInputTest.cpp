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

#include "LogCapture.h"
#include "LumoraParameter.h"
#include "ManagerFixture.h"

using Peer = LumoraManagerTestPeer;

namespace {

void IgnoreXmlError(void *, const char *, ...) {}

// What one parser read: its result, the id and the free text it stored.
struct Read {
    bool bParsed = false;
    std::string strID;
    std::string strText;
};

// A parser an event reaches, with a document of its shape: id is an
// attribute value and text an element's content, both written as given
// (markup included); prolog goes in front (a document type declaration).
struct Parser {
    const char *name;
    std::function<std::string(const std::string &prolog, const std::string &id, const std::string &text)> doc;
    std::function<Read(const char *text)> parse;
};

const std::vector<Parser> &Parsers()
{
    static const std::vector<Parser> parsers = {
        {"device notification",
         [](const std::string &prolog, const std::string &id, const std::string &text) {
             return prolog + "<n id=\"" + id + "\"><Device id=\"" + id + "\" type=\"Washer\">" + text +
                    "</Device><Notification>" + text + "</Notification><Action/><DisplayOption flag=\"On\"/></n>";
         },
         [](const char *text) {
             CDeviceNotification p;
             Read r;
             r.bParsed = p.Parse(text, "");
             r.strID = p.m_Data.strID;
             r.strText = p.m_Data.strNotiText;
             EXPECT_EQ(p.m_Data.strCtrlName, r.strText);
             return r;
         }},
        {"new device list",
         [](const std::string &prolog, const std::string &id, const std::string &text) {
             return prolog + "<n><NewDevice id=\"" + id + "\"><Type>" + text + "</Type></NewDevice></n>";
         },
         [](const char *text) {
             CNewDeviceList p;
             Read r;
             r.bParsed = p.Parse(text, "");
             if (!p.m_vecDevice.empty()) {
                 r.strID = p.m_vecDevice[0].strID;
                 r.strText = p.m_vecDevice[0].strType;
                 // One entry of the summary is cut to 255 characters.
                 EXPECT_EQ(p.GetSummary(), (r.strText + " 1").substr(0, 255));
             }
             return r;
         }},
        {"registered device list",
         [](const std::string &prolog, const std::string &id, const std::string &text) {
             return prolog + "<n><RegisteredDevice id=\"" + id +
                    "\" status=\"Connected\"><Type>Air Conditioner</Type><Name>" + text + "</Name></RegisteredDevice></n>";
         },
         [](const char *text) {
             CRegisteredDeviceList p;
             Read r;
             r.bParsed = p.Parse(text, "");
             if (!p.m_vecDevice.empty()) {
                 r.strID = p.m_vecDevice[0].strID;
                 r.strText = p.m_vecDevice[0].strCtrlName;
             }
             return r;
         }},
        {"master keys",
         [](const std::string &prolog, const std::string &id, const std::string &text) {
             return prolog + "<MasterKeyList><MasterKey id=\"" + id + "\" name=\"n\">" + text +
                    "</MasterKey></MasterKeyList>";
         },
         [](const char *text) {
             Peer::MasterKeys().clear();
             Read r;
             r.bParsed = Peer::ParseMasterKeys(text);
             if (!Peer::MasterKeys().empty()) {
                 r.strID = Peer::MasterKeys()[0].id;
                 r.strText = Peer::MasterKeys()[0].key;
             }
             return r;
         }},
    };
    return parsers;
}

std::string Repeat(const std::string &s, size_t n)
{
    std::string out;
    out.reserve(s.size() * n);
    for (size_t i = 0; i < n; ++i)
        out += s;
    return out;
}

// The classic nested expansion: ten levels of ten references, 10^9 "lol"s.
std::string NestedEntities()
{
    std::string dtd = "<!DOCTYPE n [<!ENTITY lol0 \"lol\">";
    for (int i = 1; i <= 9; ++i)
        dtd += "<!ENTITY lol" + std::to_string(i) + " \"" + Repeat("&lol" + std::to_string(i - 1) + ";", 10) + "\">";
    return dtd + "]>";
}

class HostileInput : public ::testing::Test {
protected:
    void SetUp() override { xmlSetGenericErrorFunc(nullptr, IgnoreXmlError); }
    void TearDown() override { Peer::Release(); }

    // Messages of the parse that contain needle.
    int Logged(const std::string &needle) const
    {
        int n = 0;
        for (const auto &r : log.Records())
            n += r.text.find(needle) != std::string::npos;
        return n;
    }

    LogCapture log;
};

} // namespace

TEST_F(HostileInput, PrintfConversionsInIdsNamesAndTextsAreStoredAndLoggedLiterally)
{
    const std::string conversions = "%s%n%s%x%p%99999999d%%";
    for (const auto &p : Parsers()) {
        log.Clear();
        Read r = p.parse(p.doc("", conversions, conversions).c_str());
        EXPECT_TRUE(r.bParsed) << p.name;
        EXPECT_EQ(r.strID, conversions) << p.name;
        EXPECT_EQ(r.strText, conversions) << p.name;
        EXPECT_GE(Logged(conversions), 1) << p.name << ": logged as data, not as a format";
    }
}

TEST_F(HostileInput, DocumentsThatDoNotParseTakeTheDocParsedErrorPath)
{
    const std::string deep = Repeat("<d>", 10000) + Repeat("</d>", 10000);
    struct Case {
        const char *what;
        std::string prolog;
        std::string text;
    } cases[] = {
        {"nested entity expansion", NestedEntities(), "&lol9;"},
        {"nesting deeper than libxml2's limit of 256", "", deep},
        {"invalid UTF-8", "", "bad \xff\xfe \xc3\x28 bytes"},
        {"a NUL byte inside the text: the document ends there", "", std::string("cut", 3) + '\0' + "rest"},
    };
    for (const auto &c : cases)
        for (const auto &p : Parsers()) {
            log.Clear();
            const std::string doc = p.doc(c.prolog, "1", c.text);
            Read r = p.parse(doc.c_str());
            EXPECT_FALSE(r.bParsed) << p.name << ": " << c.what;
            EXPECT_EQ(r.strText, "") << p.name << ": " << c.what;
            EXPECT_EQ(log.Count("doc parsed error"), 1) << p.name << ": " << c.what;
        }
    for (const auto &p : Parsers()) {
        log.Clear();
        EXPECT_FALSE(p.parse("").bParsed) << p.name << ": the empty text";
        EXPECT_EQ(log.Count("doc parsed error"), 1) << p.name << ": the empty text";
    }
}

TEST_F(HostileInput, WhatFollowsANulByteIsNeverRead)
{
    for (const auto &p : Parsers()) {
        std::string doc = p.doc("", "1", "name");
        doc += '\0';
        doc += "<garbage that would not parse";
        log.Clear();
        Read r = p.parse(doc.c_str());
        EXPECT_TRUE(r.bParsed) << p.name;
        EXPECT_EQ(r.strText, "name") << p.name;
        EXPECT_EQ(Logged("garbage"), 0) << p.name;
    }
}

TEST_F(HostileInput, AnExternalEntityNamingALocalFileIsNeverRead)
{
    char path[] = "/tmp/lumora-secret-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    const std::string secret = "SECRET-MARKER-7f3a";
    std::ofstream(path) << secret;
    for (const std::string &uri : {std::string(path), "file://" + std::string(path)}) {
        const std::string prolog = "<!DOCTYPE n [<!ENTITY ext SYSTEM \"" + uri + "\">]>";
        for (const auto &p : Parsers()) {
            log.Clear();
            Read r = p.parse(p.doc(prolog, "1", "before&ext;after").c_str());
            EXPECT_TRUE(r.bParsed) << p.name;
            EXPECT_EQ(r.strText, "beforeafter") << p.name << ": the reference stays unresolved";
            EXPECT_EQ(Logged(secret), 0) << p.name;
        }
    }
    // The external subset of a document type is not loaded either.
    for (const auto &p : Parsers()) {
        log.Clear();
        Read r = p.parse(p.doc("<!DOCTYPE n SYSTEM \"" + std::string(path) + "\">", "1", "x").c_str());
        EXPECT_TRUE(r.bParsed) << p.name;
        EXPECT_EQ(Logged(secret), 0) << p.name;
    }
    std::remove(path);
}

TEST_F(HostileInput, ManyReferencesToOneLargeInternalEntityExpandInTheStoredText)
{
    // 4 KiB referenced 256 times: a document under 8 KiB becomes a 1 MiB text.
    const std::string chunk(4096, 'A');
    const std::string prolog = "<!DOCTYPE n [<!ENTITY big \"" + chunk + "\">]>";
    for (const auto &p : Parsers()) {
        const std::string doc = p.doc(prolog, "1", Repeat("&big;", 256));
        EXPECT_LT(doc.size(), 8192u);
        log.Clear();
        Read r = p.parse(doc.c_str());
        EXPECT_TRUE(r.bParsed) << p.name;
        EXPECT_EQ(r.strText.size(), chunk.size() * 256) << p.name;
        EXPECT_EQ(r.strText.find_first_not_of('A'), std::string::npos) << p.name;
    }
}

TEST_F(HostileInput, DocumentsOfTensOfMegabytesParseWhole)
{
    const std::string text(20u << 20, 'x');
    for (const auto &p : Parsers()) {
        log.Clear();
        Read r = p.parse(p.doc("", "big", text).c_str());
        EXPECT_TRUE(r.bParsed) << p.name;
        EXPECT_EQ(r.strID, "big") << p.name;
        EXPECT_EQ(r.strText.size(), text.size()) << p.name;
    }
}
