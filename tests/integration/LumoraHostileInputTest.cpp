// Hostile engine events against the running service, raised from another
// process with `lumora-tv event NUMBER -`: printf conversions, entity
// expansions, an external entity naming a local file, nesting past libxml2's
// limit, tens of megabytes, invalid UTF-8, NUL bytes and empty texts. Each
// takes its defined path, nothing outside the document is read, and the
// service stays up with its watchdog in rhythm throughout.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/network.h"
#include "tvhost/notifications.h"

using namespace std::chrono_literals;
namespace noti = tvhost::notifications;

namespace {

std::string Repeat(const std::string &s, size_t n)
{
    std::string out;
    out.reserve(s.size() * n);
    for (size_t i = 0; i < n; ++i)
        out += s;
    return out;
}

// A device notification shown as a pop-up titled name with body text.
std::string Notification(const std::string &prolog, const std::string &id, const std::string &name,
                         const std::string &text)
{
    return prolog + "<n id=\"1\"><Device id=\"" + id + "\">" + name + "</Device><Notification>" + text +
           "</Notification><Action/><DisplayOption flag=\"On\" condition=\"Always\"/></n>";
}

std::string NewDevice(const std::string &id, const std::string &type)
{
    return "<l><NewDevice id=\"" + id + "\"><Type>" + type + "</Type></NewDevice></l>";
}

class LumoraHostileInput : public ::testing::Test {
protected:
    void SetUp() override
    {
        char path[] = "/tmp/lumora-secret-XXXXXX";
        int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        close(fd);
        m_strSecretFile = path;
        std::ofstream(m_strSecretFile) << kSecret;
        ASSERT_EQ(LumoraTv({"reset"}).status, 0);
    }
    void TearDown() override
    {
        std::remove(m_strSecretFile.c_str());
        tvhost::network::ClearOverride();
    }

    static void Raise(int nEvent, const std::string &text)
    {
        const std::vector<std::string> args{"event", std::to_string(nEvent), "-"};
        LumoraTvResult r = LumoraTv(args, text);
        EXPECT_EQ(r.out, "event " + std::to_string(nEvent) + ": the service answered 0\n")
            << Describe(args, r).substr(0, 2000);
    }

    const std::string kSecret = "SECRET-MARKER-c41d";
    std::string m_strSecretFile;
};

} // namespace

TEST_F(LumoraHostileInput, EveryHostileEventTakesItsDefinedPathAndTheServiceKeepsItsWatchdog)
{
    Supervisor tv;
    tv.Start({"--scenario", "quiet"});
    const pid_t pid = tv.Pid();
    ASSERT_TRUE(tv.WaitForLog("LumoraManager::Construct SetSystemLanguage strReturn = OK", 20s)) << tv.Log();

    // Texts with printf conversions, as names, ids, notification texts, types and keys.
    const std::string conv = "%s%n%s%x%p%99999999d%%";
    Raise(5, Notification("", conv, conv, conv));
    Raise(1, NewDevice(conv, conv));
    Raise(0, "<l><RegisteredDevice id=\"" + conv + "\"><Type>Air Conditioner</Type><Name>" + conv +
                 "</Name></RegisteredDevice></l>");
    Raise(12290, "<MasterKeyList><MasterKey id=\"" + conv + "\" name=\"" + conv + "\">" + conv +
                     "</MasterKey></MasterKeyList>");

    // Expansions: the nested bomb is refused by libxml2; 256 references to a
    // 4 KiB entity turn a 6 KiB document into a 1 MiB text.
    std::string bomb = "<!DOCTYPE n [<!ENTITY l0 \"lol\">";
    for (int i = 1; i <= 9; ++i)
        bomb += "<!ENTITY l" + std::to_string(i) + " \"" + Repeat("&l" + std::to_string(i - 1) + ";", 10) + "\">";
    bomb += "]>";
    Raise(5, Notification(bomb, "d", "bomb", "&l9;"));
    const std::string flat = "<!DOCTYPE n [<!ENTITY big \"" + std::string(4096, 'A') + "\">]>";
    Raise(5, Notification(flat, "d", "flat", Repeat("&big;", 256)));

    // An external entity naming a local file: never read.
    const std::string external = "<!DOCTYPE n [<!ENTITY ext SYSTEM \"file://" + m_strSecretFile + "\">]>";
    Raise(5, Notification(external, "d", "external", "before&ext;after"));
    Raise(12290, external + "<MasterKeyList><MasterKey id=\"x\">key&ext;</MasterKey></MasterKeyList>");

    // Past libxml2's depth limit, invalid UTF-8, and a NUL byte: the text ends there.
    Raise(5, Notification("", "d", "deep", Repeat("<d>", 5000) + Repeat("</d>", 5000)));
    Raise(5, Notification("", "d", "utf8", "\xff\xfe\xc3\x28"));
    Raise(5, Notification("", "d", "cut", std::string("before", 6) + '\0' + "after"));
    Raise(5, Notification("", "d", "nul", "Filter") + '\0' + "<trailing garbage");

    // Empty texts.
    Raise(5, "");
    Raise(0, "");
    Raise(12290, "");

    // Tens of megabytes in one text: the summary entry is cut at 255 characters.
    Raise(1, NewDevice("big", std::string(32u << 20, 'x')));

    EXPECT_TRUE(tv.Running()) << tv.Log().substr(0, 4000);

    // What the viewer sees.
    std::vector<noti::Record> shown;
    noti::remote::Error error;
    ASSERT_TRUE(noti::remote::Shown(shown, error)) << error.text;
    ASSERT_EQ(shown.size(), 6u);
    EXPECT_EQ(shown[0].title.value_or(""), conv);
    EXPECT_EQ(shown[0].body.value_or(""), conv);
    EXPECT_EQ(shown[1].body.value_or("").rfind(conv + " 1", 0), 0u);
    EXPECT_EQ(shown[2].title.value_or(""), "flat");
    EXPECT_EQ(shown[2].body.value_or("").size(), 4096u * 256u);
    EXPECT_EQ(shown[3].body.value_or(""), "beforeafter");
    EXPECT_EQ(shown[4].body.value_or(""), "Filter");
    const std::string summary = shown[5].body.value_or("");
    EXPECT_EQ(summary.find_first_not_of('x'), 255u) << summary.substr(0, 300);

    // What the log says: texts as data, the refused documents each once.
    const std::string log = tv.Log();
    EXPECT_NE(log.find(">[CDeviceNotification], strCtrlName = [" + conv + "]"), std::string::npos);
    EXPECT_NE(log.find(">[CNewDeviceList] -----id:[" + conv + "], type:[" + conv + "]"), std::string::npos);
    EXPECT_NE(log.find(">Device list : strCtrlName = " + conv + "\n"), std::string::npos);
    EXPECT_NE(log.find(">add master key " + conv + "\n"), std::string::npos);
    EXPECT_NE(log.find(">add master key key\n"), std::string::npos);
    EXPECT_EQ(tv.CountInLog(">doc parsed error"), 7) << "bomb, depth, UTF-8, cut by a NUL, and the three empty texts";
    EXPECT_EQ(tv.CountInLog(">call m_ParseMasterKeyMessage fail"), 1);
    EXPECT_EQ(log.find("trailing garbage"), std::string::npos);
    EXPECT_EQ(log.find(kSecret), std::string::npos) << "the external file reached the log or a pop-up";
    for (const auto &r : shown)
        EXPECT_EQ(r.body.value_or("").find(kSecret), std::string::npos);

    tv.Signal(SIGTERM);
    const int status = tv.Wait(20s);
    const auto ended = Supervisor::Clock::now();
    ASSERT_NE(status, -1);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    Supervision seen = Judge(tv.Messages(), pid, tv.StartedAt(), ended);
    EXPECT_TRUE(seen.problems.empty()) << ::testing::PrintToString(seen.problems);
    EXPECT_LE(seen.longestGap, 8s) << "a 6 s watchdog period and a margin";
}
