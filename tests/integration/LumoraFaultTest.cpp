// The running service against what goes wrong around it: an engine library
// missing or failing its start, a platform call refused, and hostile event
// texts raised from another process. Each takes its defined path, the service
// says why in its log, and it stays up with its watchdog in rhythm.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/notifications.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;
namespace noti = tvhost::notifications;

namespace {

class LumoraFault : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(LumoraTv({"reset"}).status, 0); }
    void TearDown() override { LeaveHostTvFresh(); }
};

// Swaps the engine library of the TV root for a test's stand-in, or takes it
// away, and puts the real one back even when the test fails. A library left
// aside by a run that was killed is put back first.
class EngineLibrarySwap {
public:
    explicit EngineLibrarySwap(const std::string &replacement)
    {
        Restore();
        fs::rename(Library(), Saved());
        if (!replacement.empty())
            fs::copy_file(replacement, Library());
    }
    ~EngineLibrarySwap() { Restore(); }

    static std::string Library()
    {
        return tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin/lib.target/libqorv_helper.so";
    }

private:
    static std::string Saved() { return Library() + ".set-aside"; }
    static void Restore()
    {
        if (!fs::exists(Saved()))
            return;
        std::error_code ec;
        fs::remove(Library(), ec);
        fs::rename(Saved(), Library());
    }
};

// Runs the service until the engine start failed and one more watchdog
// message came; checks what a person can find out and that SIGTERM ends it.
void RunWithoutEngine(const std::vector<std::string> &expectedLog)
{
    Supervisor tv;
    tv.Start({"--scenario", "demo"});
    ASSERT_TRUE(tv.WaitForLog(">Fail to Start the QORV!", 20s)) << tv.Log();
    for (const auto &line : expectedLog)
        EXPECT_EQ(tv.CountInLog(line), 1) << line << "\n" << tv.Log();
    EXPECT_EQ(tv.CountInLog(">Success to start qorv!"), 0);

    EXPECT_TRUE(tv.WaitForMessages(tv.Messages().size() + 1, 8s)) << "the watchdog stopped after the failed start";
    LumoraTvResult r = LumoraTv({"status"});
    EXPECT_NE(r.out.find("service:   running (pid " + std::to_string(tv.Pid()) + ")"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("engine:    not started"), std::string::npos) << r.out;
    r = LumoraTv({"event", "12291", "-"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("is not started"), std::string::npos) << r.err;
    ExpectSupervised(tv.Terminate());
}

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

void Raise(int nEvent, const std::string &text)
{
    const std::vector<std::string> args{"event", std::to_string(nEvent), "-"};
    LumoraTvResult r = LumoraTv(args, text);
    EXPECT_EQ(r.out, "event " + std::to_string(nEvent) + ": the service answered 0\n")
        << Describe(args, r).substr(0, 2000);
}

} // namespace

TEST_F(LumoraFault, AnEngineLibraryWhoseStartFailsOrThatIsMissingLeavesTheServiceUp)
{
    const std::string variant = std::string(QORV_SIM_VARIANT_DIR) + "/libqorv_startfails.so";
    ASSERT_TRUE(fs::exists(variant)) << variant << " is missing: build the qorv_sim_variants target";
    {
        EngineLibrarySwap swap(variant);
        RunWithoutEngine({">Start QORV failed!"});
    }
    ASSERT_EQ(LumoraTv({"reset"}).status, 0);
    EngineLibrarySwap swap("");
    RunWithoutEngine({">Open the qorv helper library failed!", ">CLumoraQorvHelper the m_pQorv_Start is NULL!"});
}

// The platform call that only the real binary makes: the entry point's
// subscription of the language key. The service logs it and starts; only the
// catalogue rebinding on a language change is lost, the manager's own
// subscription still works.
TEST_F(LumoraFault, ALanguageSubscriptionRefusedAtCreateIsLoggedAndTheServiceCarriesOn)
{
    Supervisor tv;
    tv.Start({"--scenario", "quiet"}, {"TVHOST_FAULTS=vconf_notify_key_changed=-1"});
    ASSERT_TRUE(tv.WaitForLog(">Unable to register a vconf changed cb to db/menu_widget/language.", 10s)) << tv.Log();
    ASSERT_TRUE(tv.WaitForLog(">LumoraManager::Construct SetSystemLanguage strReturn = OK", 20s)) << tv.Log();

    ASSERT_EQ(LumoraTv({"set", "db/menu_widget/language", "ko_KR.UTF-8"}).status, 0);
    EXPECT_TRUE(tv.WaitForLog(">CLumoraQorvHelper Begin to Execute strParam1 = ko_KR!", 10s)) << tv.Log();
    EXPECT_EQ(tv.CountInLog(">In app_lang_change"), 0);
    ExpectSupervised(tv.Terminate());
}

// printf conversions, entity expansions, an external entity naming a local
// file, nesting past libxml2's limit, tens of megabytes, invalid UTF-8, NUL
// bytes and empty texts: nothing outside the document is read.
TEST_F(LumoraFault, EveryHostileEventTakesItsDefinedPathAndTheServiceKeepsItsWatchdog)
{
    const std::string secret = "SECRET-MARKER-c41d";
    char secretFile[] = "/tmp/lumora-secret-XXXXXX";
    const int fd = mkstemp(secretFile);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(secretFile) << secret;

    Supervisor tv;
    tv.Start({"--scenario", "quiet"});
    ASSERT_TRUE(tv.WaitForLog("LumoraManager::Construct SetSystemLanguage strReturn = OK", 20s)) << tv.Log();

    // Texts with printf conversions, as names, ids, notification texts, types and keys.
    const std::string conv = "%s%n%s%x%p%99999999d%%";
    Raise(5, Notification("", conv, conv, conv));
    Raise(1, "<l><NewDevice id=\"" + conv + "\"><Type>" + conv + "</Type></NewDevice></l>");
    Raise(0, "<l><RegisteredDevice id=\"" + conv + "\"><Type>Air Conditioner</Type><Name>" + conv +
                 "</Name></RegisteredDevice></l>");
    Raise(12290, "<MasterKeyList><MasterKey id=\"" + conv + "\" name=\"" + conv + "\">" + conv +
                     "</MasterKey></MasterKeyList>");

    // Expansions: refused, as every text that declares a document type.
    std::string bomb = "<!DOCTYPE n [<!ENTITY l0 \"lol\">";
    for (int i = 1; i <= 9; ++i)
        bomb += "<!ENTITY l" + std::to_string(i) + " \"" + Repeat("&l" + std::to_string(i - 1) + ";", 10) + "\">";
    bomb += "]>";
    Raise(5, Notification(bomb, "d", "bomb", "&l9;"));
    const std::string flat = "<!DOCTYPE n [<!ENTITY big \"" + std::string(4096, 'A') + "\">]>";
    Raise(5, Notification(flat, "d", "flat", Repeat("&big;", 256)));

    // An external entity naming a local file: never read.
    const std::string external = std::string("<!DOCTYPE n [<!ENTITY ext SYSTEM \"file://") + secretFile + "\">]>";
    Raise(5, Notification(external, "d", "external", "before&ext;after"));
    Raise(12290, external + "<MasterKeyList><MasterKey id=\"x\">key&ext;</MasterKey></MasterKeyList>");

    // Past libxml2's depth limit, invalid UTF-8, and a NUL byte: the text ends there.
    Raise(5, Notification("", "d", "deep", Repeat("<d>", 5000) + Repeat("</d>", 5000)));
    Raise(5, Notification("", "d", "utf8", "\xff\xfe\xc3\x28"));
    Raise(5, Notification("", "d", "cut", std::string("before", 6) + '\0' + "after"));
    Raise(5, Notification("", "d", "nul", "Filter") + '\0' + "<trailing garbage");
    for (int nEvent : {5, 0, 12290})
        Raise(nEvent, "");
    // Tens of megabytes in one text: the summary entry is cut at 255 characters.
    Raise(1, "<l><NewDevice id=\"big\"><Type>" + std::string(32u << 20, 'x') + "</Type></NewDevice></l>");
    EXPECT_TRUE(tv.Running()) << tv.Log().substr(0, 4000);

    // What the viewer sees.
    std::vector<noti::Record> shown;
    noti::remote::Error error;
    ASSERT_TRUE(noti::remote::Shown(shown, error)) << error.text;
    ASSERT_EQ(shown.size(), 4u);
    EXPECT_EQ(shown[0].title.value_or(""), conv);
    EXPECT_EQ(shown[0].body.value_or(""), conv);
    EXPECT_EQ(shown[1].body.value_or("").rfind(conv + " 1", 0), 0u);
    EXPECT_EQ(shown[2].body.value_or(""), "Filter");
    const std::string summary = shown[3].body.value_or("");
    EXPECT_EQ(summary.find_first_not_of('x'), 255u) << summary.substr(0, 300);

    // What the log says: texts as data, the refused documents each once.
    const std::string log = tv.Log();
    EXPECT_NE(log.find(">[CDeviceNotification], strCtrlName = [" + conv + "]"), std::string::npos);
    EXPECT_NE(log.find(">[CNewDeviceList] -----id:[" + conv + "], type:[" + conv + "]"), std::string::npos);
    EXPECT_NE(log.find(">Device list : strCtrlName = " + conv + "\n"), std::string::npos);
    EXPECT_NE(log.find(">add master key " + conv + "\n"), std::string::npos);
    EXPECT_EQ(log.find(">add master key key\n"), std::string::npos);
    EXPECT_EQ(tv.CountInLog(">doc parsed error"), 10)
        << "bomb, flat, the two external entities, depth, UTF-8, cut by a NUL, and the three empty texts";
    EXPECT_EQ(tv.CountInLog(">call m_ParseMasterKeyMessage fail"), 2);
    EXPECT_EQ(log.find("trailing garbage"), std::string::npos);
    EXPECT_EQ(log.find(secret), std::string::npos) << "the external file reached the log or a pop-up";
    for (const auto &r : shown)
        EXPECT_EQ(r.body.value_or("").find(secret), std::string::npos);
    std::remove(secretFile);
    ExpectSupervised(tv.Terminate());
}
