// The running service against engine texts built to expand, to make it do
// quadratic work, or to steer the terminal that shows its log and pop-ups:
// it handles each, stays up and answers the next event, and its terminal
// output holds no raw control character and no forged record.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "HostileTexts.h"
#include "LumoraTv.h"
#include "Supervisor.h"

using namespace std::chrono_literals;

namespace {

void Raise(int nEvent, const std::string &text)
{
    // The large texts take seconds under a sanitizer on a loaded machine; the
    // wait is only a guard against a service that never answers.
    const std::vector<std::string> args{"event", "--wait", "600", std::to_string(nEvent), "-"};
    const LumoraTvResult r = LumoraTv(args, text);
    // The first line is the service's answer; what the host TV saw follows.
    EXPECT_EQ(r.out.substr(0, r.out.find('\n') + 1), "event " + std::to_string(nEvent) + ": the service answered 0\n")
        << Describe(args, r).substr(0, 2000);
}

std::string Notification(const std::string &prolog, const std::string &attributes, const std::string &text)
{
    return prolog + "<n id=\"1\"" + attributes + "><Device id=\"d\">" + text + "</Device><Notification>" + text +
           "</Notification><Action/><DisplayOption flag=\"On\"/></n>";
}

} // namespace

using LumoraHostile = HostTvTest;

TEST_F(LumoraHostile, HostileTextsLeaveTheServiceUpAndItsTerminalFreeOfControlsAndForgedRecords)
{
    Supervisor tv;
    tv.Start({"--scenario", "quiet"});
    ASSERT_TRUE(tv.WaitForLog("LumoraManager::Construct SetSystemLanguage strReturn = OK", kHangGuard)) << tv.Log();

    const std::string entity = "<!DOCTYPE n [<!ENTITY e \"" + std::string(60000, 'A') + "\">]>";
    Raise(5, Notification(entity, "", Repeat("&e;", 4000)));
    Raise(5, Notification(entity, " x=\"" + Repeat("&e;", 4000) + "\"", "t"));
    Raise(5, Notification("<!DOCTYPE n [<!ATTLIST n id CDATA \"9\">]>", "", "t"));
    std::string attributes;
    for (int i = 0; i < 200000; ++i)
        attributes += " a" + std::to_string(i) + "=\"\"";
    Raise(0, "<l" + attributes +
                 "><RegisteredDevice id=\"1\"><Type>Air Conditioner</Type><Name>n</Name>"
                 "</RegisteredDevice></l>");
    // Many devices (the parsers' suite takes 100,000): each is logged four
    // times, which a sanitizer build writes slowly.
    std::string devices = "<l>";
    for (int i = 0; i < 20000; ++i)
        devices += "<RegisteredDevice id=\"" + std::to_string(i) +
                   "\"><Type>Air Conditioner</Type><Name>n</Name>"
                   "</RegisteredDevice>";
    Raise(0, devices + "</l>");
    EXPECT_EQ(tv.CountInLog(">doc parsed error"), 4) << "the expansions, the DTD and the crowded start tag";

    // Names with terminal controls and a line that reads as a record: raw
    // ESC and BEL make a text that does not parse, but it is logged whole;
    // C1 and bidirectional controls and line feeds are XML and reach the
    // record fields and the pop-up.
    const std::string forged = "\nD/LUMORA(    1): FORGED";
    const std::string raw = "\x1b]0;title\x07\x1b]52;c;Zm9v\x07\x1b[2J" + forged;
    const std::string xml = "\xc2\x9b"
                            "2J\xc2\x9d"
                            "0;t\xe2\x80\xae\xe2\x81\xa6" +
                            forged;
    for (const std::string &name : {raw, xml}) {
        Raise(5, Notification("", "", name));
        Raise(1, "<l><NewDevice id=\"" + name + "\"><Type>" + name + "</Type></NewDevice></l>");
        Raise(0, "<l><RegisteredDevice id=\"1\"><Type>Air Conditioner</Type><Name>" + name +
                     "</Name></RegisteredDevice></l>");
        Raise(12290,
              "<MasterKeyList><MasterKey id=\"1\" name=\"" + name + "\">" + name + "</MasterKey></MasterKeyList>");
        Raise(77, name);
    }
    Raise(5, Notification("", "", "after"));
    EXPECT_TRUE(tv.WaitForLog(">[CDeviceNotification], strCtrlName = [after]", kHangGuard));
    EXPECT_TRUE(tv.Running());

    const std::string out = tv.Log();
    for (size_t i = 0; i < out.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(out[i]);
        ASSERT_FALSE((c < 0x20 && c != '\n') || c == 0x7F) << "byte " << int(c) << " near " << out.substr(i, 80);
        ASSERT_FALSE(c == 0xC2 && i + 1 < out.size() && static_cast<unsigned char>(out[i + 1]) <= 0x9F)
            << out.substr(i, 80);
        ASSERT_NE(out.compare(i, 3, "\u202e"), 0) << out.substr(i, 80);
    }
    EXPECT_THAT(out, ::testing::HasSubstr("parser error : PCDATA invalid Char value 27")) << "libxml2's report";
    EXPECT_GE(tv.CountInLog("\n    | D/LUMORA(    1): FORGED"), 10) << "each name's second line, marked";
    EXPECT_EQ(tv.CountInLog(forged), 0) << "a name's line read as a record";
    ExpectSupervised(tv.Terminate());
}
