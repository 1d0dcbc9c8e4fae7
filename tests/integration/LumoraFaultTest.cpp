// The running service against what goes wrong around it: an engine library
// failing its start, and a platform call refused. Each takes its
// defined path, the service says why in its log, and it stays up with its
// watchdog in rhythm. Hostile event texts are HostileInputTest's: the texts
// reach the same parsers, and cross the control socket whole (Supervision).
#include <gtest/gtest.h>

#include <filesystem>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

class LumoraFault : public HostTvTest {
protected:
};

// Swaps the engine library of the TV root for a test's stand-in, and puts the
// real one back even when the test fails. A library left aside by a run that
// was killed is put back first (rename replaces the stand-in).
struct EngineLibrarySwap {
    const std::string library = tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin/lib.target/libqorv_helper.so";
    const std::string saved = library + ".set-aside";

    explicit EngineLibrarySwap(const std::string &replacement)
    {
        Restore();
        fs::rename(library, saved);
        fs::copy_file(replacement, library);
    }
    ~EngineLibrarySwap() { Restore(); }
    void Restore() const
    {
        if (fs::exists(saved))
            fs::rename(saved, library);
    }
};

} // namespace

// A missing library takes the same path; its log lines are the binding's
// suite's. What lumora-tv says of an engine not started is Supervision's.
TEST_F(LumoraFault, AnEngineStartThatFailsLeavesTheServiceUpAndFed)
{
    const std::string variant = std::string(QORV_SIM_VARIANT_DIR) + "/libqorv_startfails.so";
    ASSERT_TRUE(fs::exists(variant)) << variant << " is missing: build the qorv_sim_variants target";
    EngineLibrarySwap swap(variant);
    Supervisor tv;
    tv.Start({"--scenario", "demo"});
    ASSERT_TRUE(tv.WaitForLog(">Fail to Start the QORV!", kHangGuard)) << tv.Log();
    EXPECT_EQ(tv.CountInLog(">Start QORV failed!"), 1);
    EXPECT_EQ(tv.CountInLog(">Success to start qorv!"), 0);
    EXPECT_TRUE(tv.WaitForMessages(tv.Messages().size() + 1, 8s)) << "the watchdog stopped after the failed start";
    ExpectSupervised(tv.Terminate());
}

// The platform call that only the real binary makes: the entry point's
// subscription of the language key. The service logs it and starts; only the
// catalogue rebinding on a language change is lost, the manager's own
// subscription still works.
TEST_F(LumoraFault, ARefusedLanguageSubscriptionAtCreateIsOnlyLogged)
{
    Supervisor tv;
    tv.Start({"--scenario", "quiet"}, {"TVHOST_FAULTS=vconf_notify_key_changed=-1"});
    ASSERT_TRUE(tv.WaitForLog(">Unable to register a vconf changed cb to db/menu_widget/language.", kHangGuard))
        << tv.Log();
    ASSERT_TRUE(tv.WaitForLog(">LumoraManager::Construct SetSystemLanguage strReturn = OK", kHangGuard)) << tv.Log();

    ASSERT_EQ(LumoraTv({"set", "db/menu_widget/language", "ko_KR.UTF-8"}).status, 0);
    EXPECT_TRUE(tv.WaitForLog(">CLumoraQorvHelper Begin to Execute strParam1 = ko_KR!", kHangGuard)) << tv.Log();
    EXPECT_EQ(tv.CountInLog(">In app_lang_change"), 0);
    ExpectSupervised(tv.Terminate());
}
