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

// Before anything in the process allocates through libxml2.
const int g_nHooks = xmlMemSetup(
    [](void *p) {
        g_nLive -= p != nullptr;
        std::free(p);
    },
    [](size_t n) {
        void *p = std::malloc(n);
        g_nLive += p != nullptr;
        return p;
    },
    [](void *p, size_t n) {
        void *q = std::realloc(p, n);
        g_nLive += q != nullptr && p == nullptr;
        return q;
    },
    [](const char *s) {
        char *p = strdup(s);
        g_nLive += p != nullptr;
        return p;
    });

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

} // namespace

TEST(KeptDocument, OnlyTheDefinedCataloguePathsKeepTheirDocument)
{
    ASSERT_EQ(g_nHooks, 0);
    LogCapture log;
    xmlSetGenericErrorFunc(nullptr, IgnoreXmlError);
    CDeviceNotification().Parse("<n id=\"1\"/>", ""); // first use: libxml2's own globals
    using Parse = std::function<bool(const std::string &)>;
    struct Case {
        Parse parse;
        std::string doc;
        bool bKept;
    } cases[] = {
        {Peer::ParseMasterKeys,
         "<MasterKeyList><MasterKey id=\"1\">K</MasterKey><MasterKey>L</MasterKey></MasterKeyList>", true},
        {Peer::ParseMasterKeys, "<MasterKeyList><Other/></MasterKeyList>", true},
        {Peer::ParseMasterKeys, "<ControllableDevice><MasterKey id=\"1\"/></ControllableDevice>", false},
        {Peer::ParseMasterKeys, "<MasterKeyList><MasterKey>", false},
        {Peer::ParseDeviceTypes, "<ControllableDevice><Device>Washer</Device></ControllableDevice>", false},
        {Peer::ParseDeviceTypes, "<ControllableDevice><Other/></ControllableDevice>", true},
        {Peer::ParseDeviceTypes, "<MasterKeyList><Device>W</Device></MasterKeyList>", false},
        {Peer::ParseRegistered,
         "<l><RegisteredDevice id=\"1\"><Type>T</Type><Name>N</Name></RegisteredDevice><RegisteredDevice/></l>", false},
        {Peer::ParseDeviceNames, "<l/>", false},
        {Peer::ParseCommands,
         "<l><Command><SubCommandList><SubCommand type=\"t\" service=\"s\">Go</SubCommand><SubCommand/>"
         "</SubCommandList></Command></l>",
         false},
        {Peer::ParseCommands, "<l><Other/></l>", false},
    };
    for (const auto &c : cases) {
        const long nKept = Kept([&] { c.parse(c.doc); });
        EXPECT_TRUE(c.bKept ? nKept > 0 : nKept == 0) << c.doc << ": " << nKept << " blocks kept";
    }

    // The event parsers free theirs on every path: complete, stopped early, failed, malformed.
    const Parse eventParsers[] = {[](const std::string &s) { return CDeviceNotification().Parse(s.c_str(), ""); },
                                  [](const std::string &s) { return CNewDeviceList().Parse(s.c_str(), ""); },
                                  [](const std::string &s) { return CRegisteredDeviceList().Parse(s.c_str(), ""); }};
    for (const char *doc :
         {"<n id=\"1\"><Device id=\"d\">N</Device><Notification>T</Notification><Action/><DisplayOption/></n>",
          "<n id=\"1\"><Device id=\"d\">N</Device></n>",
          "<n><NewDevice id=\"a\"><Type>W</Type></NewDevice><NewDevice id=\"b\"/></n>",
          "<n><RegisteredDevice id=\"1\"><Type>Air Conditioner</Type><Name>N</Name></RegisteredDevice></n>",
          "<n><RegisteredDevice id=\"1\"/></n>", "<n>", ""})
        for (const auto &parse : eventParsers)
            EXPECT_EQ(Kept([&] { parse(doc); }), 0) << doc;
    Peer::Release();
}
