// The running service against what goes wrong around it: an engine library
// missing or failing its start, a platform call refused, and hostile event
// texts raised from another process. Each takes its defined path, the service
// says why in its log, and it stays up with its watchdog in rhythm.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <unistd.h>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/notifications.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Optional;
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
    EXPECT_THAT(r.out, HasSubstr("service:   running (pid " + std::to_string(tv.Pid()) + ")"));
    EXPECT_THAT(r.out, HasSubstr("engine:    not started"));
    r = LumoraTv({"event", "12291", "-"});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, HasSubstr("is not started"));
    ExpectSupervised(tv.Terminate());
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

TEST_F(LumoraFault, AnEngineStartThatFailsLeavesTheServiceUp)
{
    const std::string variant = std::string(QORV_SIM_VARIANT_DIR) + "/libqorv_startfails.so";
    ASSERT_TRUE(fs::exists(variant)) << variant << " is missing: build the qorv_sim_variants target";
    EngineLibrarySwap swap(variant);
    RunWithoutEngine({">Start QORV failed!"});
}

TEST_F(LumoraFault, AMissingEngineLibraryLeavesTheServiceUp)
{
    EngineLibrarySwap swap("");
    RunWithoutEngine({">Open the qorv helper library failed!", ">CLumoraQorvHelper the m_pQorv_Start is NULL!"});
}

// The platform call that only the real binary makes: the entry point's
// subscription of the language key. The service logs it and starts; only the
// catalogue rebinding on a language change is lost, the manager's own
// subscription still works.
TEST_F(LumoraFault, ARefusedLanguageSubscriptionAtCreateIsOnlyLogged)
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

namespace {

// Hostile event texts raised from another process into one running service:
// the parsers' every path is the unit suites'; here the texts cross the
// control socket and reach the viewer, and the service keeps its watchdog.
class LumoraHostileEvents : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(LumoraTv({"reset"}).status, 0);
        tv = std::make_unique<Supervisor>();
        tv->Start({"--scenario", "quiet"});
        ASSERT_TRUE(tv->WaitForLog("LumoraManager::Construct SetSystemLanguage strReturn = OK", 20s)) << tv->Log();
    }
    static void TearDownTestSuite()
    {
        if (tv->Running())
            ExpectSupervised(tv->Terminate());
        tv.reset();
        LeaveHostTvFresh();
    }
    // The pop-up the last event put on screen.
    static noti::Record LastShown()
    {
        std::vector<noti::Record> shown;
        noti::remote::Error error;
        EXPECT_TRUE(noti::remote::Shown(shown, error)) << error.text;
        return shown.empty() ? noti::Record{} : shown.back();
    }
    static std::unique_ptr<Supervisor> tv;
};
std::unique_ptr<Supervisor> LumoraHostileEvents::tv;

} // namespace

TEST_F(LumoraHostileEvents, PrintfConversionsAreShownAndLoggedAsData)
{
    const std::string conv = "%s%n%s%x%p%99999999d%%";
    Raise(5, Notification("", conv, conv, conv));
    EXPECT_THAT(LastShown().title, Optional(conv));
    EXPECT_THAT(LastShown().body, Optional(conv));
    Raise(1, "<l><NewDevice id=\"" + conv + "\"><Type>" + conv + "</Type></NewDevice></l>");
    EXPECT_EQ(LastShown().body.value_or("").rfind(conv + " 1", 0), 0u);
    Raise(0, "<l><RegisteredDevice id=\"" + conv + "\"><Type>Air Conditioner</Type><Name>" + conv +
                 "</Name></RegisteredDevice></l>");
    Raise(12290, "<MasterKeyList><MasterKey id=\"" + conv + "\" name=\"" + conv + "\">" + conv +
                     "</MasterKey></MasterKeyList>");
    const std::string &log = tv->Log();
    EXPECT_THAT(log, HasSubstr(">[CDeviceNotification], strCtrlName = [" + conv + "]"));
    EXPECT_THAT(log, HasSubstr(">[CNewDeviceList] -----id:[" + conv + "], type:[" + conv + "]"));
    EXPECT_THAT(log, HasSubstr(">Device list : strCtrlName = " + conv + "\n"));
    EXPECT_THAT(log, HasSubstr(">add master key " + conv + "\n"));
}

TEST_F(LumoraHostileEvents, AnExternalEntityIsNeverRead)
{
    const std::string secret = "SECRET-MARKER-c41d";
    char secretFile[] = "/tmp/lumora-secret-XXXXXX";
    const int fd = mkstemp(secretFile);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(secretFile) << secret;
    const std::string external = std::string("<!DOCTYPE n [<!ENTITY ext SYSTEM \"file://") + secretFile + "\">]>";
    Raise(5, Notification(external, "d", "external", "before&ext;after"));
    EXPECT_THAT(LastShown().body, Optional(std::string("beforeafter")));
    Raise(12290, external + "<MasterKeyList><MasterKey id=\"x\">key&ext;</MasterKey></MasterKeyList>");
    EXPECT_THAT(tv->Log(), HasSubstr(">add master key key\n"));
    EXPECT_THAT(tv->Log(), Not(HasSubstr(secret)));
    std::remove(secretFile);
}

TEST_F(LumoraHostileEvents, TheTextEndsAtANulByte)
{
    Raise(5, Notification("", "d", "nul", "Filter") + '\0' + "<trailing garbage");
    EXPECT_THAT(LastShown().body, Optional(std::string("Filter")));
    EXPECT_THAT(tv->Log(), Not(HasSubstr("trailing garbage")));
}

TEST_F(LumoraHostileEvents, TensOfMegabytesAreShownInASummaryCutAt255)
{
    Raise(1, "<l><NewDevice id=\"big\"><Type>" + std::string(32u << 20, 'x') + "</Type></NewDevice></l>");
    const std::string summary = LastShown().body.value_or("");
    EXPECT_EQ(summary.find_first_not_of('x'), 255u) << summary.substr(0, 300);
    EXPECT_TRUE(tv->Running());
}
