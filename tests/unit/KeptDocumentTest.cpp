// Which parsed documents stay allocated after a parse. Only the master-key
// parser keeps its document (on success, and for a list without a key) and
// the device-type parser keeps it when there is no "Device"; every other path
// of every parser frees it. Counted through libxml2's allocator hooks, since
// LeakSanitizer's suppressions name those two functions whole and would not
// see a document kept on one of their other paths.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <libxml/parser.h>
#include <libxml/xmlmemory.h>

#include "LogCapture.h"
#include "LumoraParameter.h"
#include "ManagerFixture.h"

using Peer = LumoraManagerTestPeer;

namespace {

std::atomic<long> g_nLive{0};

void *CountedMalloc(size_t n)
{
    void *p = std::malloc(n);
    g_nLive += p != nullptr;
    return p;
}

void *CountedRealloc(void *p, size_t n)
{
    void *q = std::realloc(p, n);
    g_nLive += (q != nullptr && p == nullptr);
    return q;
}

void CountedFree(void *p)
{
    g_nLive -= p != nullptr;
    std::free(p);
}

char *CountedStrdup(const char *s)
{
    char *p = strdup(s);
    g_nLive += p != nullptr;
    return p;
}

// Before anything in the process allocates through libxml2.
const int g_nHooks = xmlMemSetup(CountedFree, CountedMalloc, CountedRealloc, CountedStrdup);

void IgnoreXmlError(void *, const char *, ...) {}

// libxml2 blocks still allocated after parse() than before it. The last
// parse error (libxml2 keeps its texts until the next one) is not counted.
long Kept(const std::function<void()> &parse)
{
    xmlResetLastError();
    const long nBefore = g_nLive;
    parse();
    xmlResetLastError();
    return g_nLive - nBefore;
}

class KeptDocument : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(g_nHooks, 0);
        xmlSetGenericErrorFunc(nullptr, IgnoreXmlError);
        // First use: libxml2's own globals.
        CDeviceNotification().Parse("<n id=\"1\"/>", "");
    }
    void TearDown() override { Peer::Release(); }
    LogCapture log;
};

} // namespace

TEST_F(KeptDocument, OnlyTheDefinedCataloguePathsKeepTheirDocument)
{
    struct Case {
        const char *what;
        std::function<bool(const std::string &)> parse;
        std::string doc;
        bool bKept;
    } cases[] = {
        {"master keys", Peer::ParseMasterKeys, "<MasterKeyList><MasterKey id=\"1\">K</MasterKey></MasterKeyList>", true},
        {"master keys, one without id", Peer::ParseMasterKeys,
         "<MasterKeyList><MasterKey id=\"1\">K</MasterKey><MasterKey>L</MasterKey></MasterKeyList>", true},
        {"master keys, none", Peer::ParseMasterKeys, "<MasterKeyList><Other/></MasterKeyList>", true},
        {"master keys, wrong root", Peer::ParseMasterKeys, "<ControllableDevice><MasterKey id=\"1\"/></ControllableDevice>",
         false},
        {"master keys, malformed", Peer::ParseMasterKeys, "<MasterKeyList><MasterKey>", false},
        {"device types", Peer::ParseDeviceTypes, "<ControllableDevice><Device>Washer</Device></ControllableDevice>",
         false},
        {"device types, none", Peer::ParseDeviceTypes, "<ControllableDevice><Other/></ControllableDevice>", true},
        {"device types, wrong root", Peer::ParseDeviceTypes, "<MasterKeyList><Device>W</Device></MasterKeyList>", false},
        {"device types, malformed", Peer::ParseDeviceTypes, "<ControllableDevice>", false},
        {"registered devices", Peer::ParseRegistered,
         "<l><RegisteredDevice id=\"1\"><Type>T</Type><Name>N</Name></RegisteredDevice><RegisteredDevice/></l>", false},
        {"registered devices, none", Peer::ParseDeviceNames, "<l/>", false},
        {"commands", Peer::ParseCommands,
         "<l><Command><SubCommandList><SubCommand type=\"t\" service=\"s\">Go</SubCommand><SubCommand/>"
         "</SubCommandList></Command></l>",
         false},
        {"commands, none", Peer::ParseCommands, "<l><Other/></l>", false},
    };
    for (const auto &c : cases) {
        const long nKept = Kept([&] { c.parse(c.doc); });
        if (c.bKept)
            EXPECT_GT(nKept, 0) << c.what;
        else
            EXPECT_EQ(nKept, 0) << c.what;
    }
}

TEST_F(KeptDocument, EventParsersFreeTheirDocumentOnEveryPath)
{
    const char *docs[] = {
        "<n id=\"1\"><Device id=\"d\">N</Device><Notification>T</Notification><Action/><DisplayOption/></n>",
        "<n id=\"1\"><Device id=\"d\">N</Device></n>",
        "<n><NewDevice id=\"a\"><Type>W</Type></NewDevice><NewDevice id=\"b\"/></n>",
        "<n><RegisteredDevice id=\"1\"><Type>Air Conditioner</Type><Name>N</Name></RegisteredDevice></n>",
        "<n><RegisteredDevice id=\"1\"/></n>",
        "<n>",
        "",
    };
    for (const char *doc : docs) {
        EXPECT_EQ(Kept([&] { CDeviceNotification().Parse(doc, ""); }), 0) << doc;
        EXPECT_EQ(Kept([&] { CNewDeviceList().Parse(doc, ""); }), 0) << doc;
        EXPECT_EQ(Kept([&] { CRegisteredDeviceList().Parse(doc, ""); }), 0) << doc;
    }
}
