// The service without a working engine: the library missing from the TV root,
// or one whose start fails. The service stays up, keeps the watchdog fed and
// says why in its log.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <sys/wait.h>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

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

class LumoraEngineFault : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fs::exists(EngineLibrarySwap::Library())) << "build the engine first";
        ASSERT_EQ(LumoraTv({"reset"}).status, 0);
    }
    void TearDown() override { LeaveHostTvFresh(); }

    // Runs the service until the engine start failed and one more watchdog
    // message came; checks what a person can find out and that SIGTERM ends it.
    void RunWithoutEngine(const std::vector<std::string> &expectedLog)
    {
        Supervisor tv;
        tv.Start({"--scenario", "demo"});
        const pid_t pid = tv.Pid();
        ASSERT_TRUE(tv.WaitForLog(">Fail to Start the QORV!", 10s)) << tv.Log();
        for (const auto &line : expectedLog)
            EXPECT_EQ(tv.CountInLog(line), 1) << line << "\n" << tv.Log();
        EXPECT_EQ(tv.CountInLog(">Success to start qorv!"), 0);

        const size_t before = tv.Messages().size();
        EXPECT_TRUE(tv.WaitForMessages(before + 1, 8s)) << "the watchdog stopped after the failed start";
        ASSERT_TRUE(tv.Running()) << tv.Log();
        LumoraTvResult r = LumoraTv({"status"});
        EXPECT_NE(r.out.find("service:   running (pid " + std::to_string(pid) + ")"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("engine:    not started"), std::string::npos) << r.out;
        r = LumoraTv({"event", "12291", "-"});
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("is not started"), std::string::npos) << r.err;

        tv.Signal(SIGTERM);
        const int status = tv.Wait(15s);
        const auto ended = Supervisor::Clock::now();
        ASSERT_NE(status, -1) << "no exit within a watchdog period after SIGTERM";
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << tv.Log();

        Supervision seen = Judge(tv.Messages(), pid, tv.StartedAt(), ended);
        EXPECT_TRUE(seen.problems.empty()) << ::testing::PrintToString(seen.problems);
        EXPECT_GE(seen.nWatchdogs, 1);
        EXPECT_LE(seen.longestGap, 8s);
    }
};

} // namespace

TEST_F(LumoraEngineFault, ALibraryWhoseStartFailsLeavesTheServiceUp)
{
    const std::string variant = std::string(QORV_SIM_VARIANT_DIR) + "/libqorv_startfails.so";
    ASSERT_TRUE(fs::exists(variant)) << variant << " is missing: build the qorv_sim_variants target";
    EngineLibrarySwap swap(variant);
    RunWithoutEngine({">Start QORV failed!"});
}

TEST_F(LumoraEngineFault, AMissingLibraryLeavesTheServiceUp)
{
    EngineLibrarySwap swap("");
    RunWithoutEngine({">Open the qorv helper library failed!", ">CLumoraQorvHelper the m_pQorv_Start is NULL!"});
}
