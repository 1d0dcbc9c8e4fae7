#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "EngineSim.h"
#include "LogCapture.h"
#include "LumoraQorvHelper.h"

namespace {

using Texts = std::vector<std::string>;
using ::testing::ElementsAre;
using ::testing::StartsWith;

// The engine's call returns only once the object has answered.
struct Recorder : IQorvHelperCallBack {
    int OnQorvEvent(int nEvent, std::string strParam1, std::string strParam2) override
    {
        events.push_back(std::to_string(nEvent) + "|" + strParam1 + "|" + strParam2);
        return nAnswer;
    }
    Texts events;
    int nAnswer = 42;
};

// Points the binding at another library for one scope.
struct LibraryPath {
    explicit LibraryPath(const std::string &path) : path(path) { LIB_QORV_HELPER_PATH = this->path.c_str(); }
    ~LibraryPath() { LIB_QORV_HELPER_PATH = saved; }
    const char *saved = LIB_QORV_HELPER_PATH;
    std::string path;
};

// The records captured since the last call, as "<platform priority> <message>": 3 debug, 6 error.
Texts Lines(LogCapture &log)
{
    Texts out;
    for (const auto &r : log.Records())
        out.push_back(std::to_string(r.priority) + " " + MessageOf(r.text));
    log.Clear();
    return out;
}

// A binding over the simulated engine, with the log since the last Lines().
class LumoraQorvHelper : public ::testing::Test {
protected:
    void Start()
    {
        ASSERT_EQ(helper->StartQorv(), 1);
        ASSERT_EQ(helper->SetCallback(&rec), 1);
        Lines(log);
    }
    LogCapture log;
    EngineSim sim;
    Recorder rec;
    std::unique_ptr<CLumoraQorvHelper> helper = std::make_unique<CLumoraQorvHelper>();
};

const std::string kNotStarted = " CLumoraQorvHelper Lumora Helper has not been started!";

} // namespace

// Everything but a start counts as done.
TEST_F(LumoraQorvHelper, NothingReachesAStoppedEngine)
{
    EXPECT_EQ(helper->RefreshQorv(), 1);
    EXPECT_EQ(helper->SetCallback(&rec), 1);
    EXPECT_EQ(helper->Execute("SetLanguage", "ko", "", "", ""), "");
    EXPECT_EQ(helper->StopQorv(), 1);
    EXPECT_THAT(Lines(log), ElementsAre("6" + kNotStarted, "6" + kNotStarted, "3" + kNotStarted, "3" + kNotStarted));
    EXPECT_EQ(sim.Emit(5, "<x/>", ""), -2) << "the engine never got a callback";
}

// Each reaches the engine once; a second start or stop is only logged.
TEST_F(LumoraQorvHelper, StartRegisterRefreshAndStopReachTheEngineOnce)
{
    EXPECT_EQ(helper->StartQorv(), 1);
    EXPECT_EQ(helper->StartQorv(), 1);
    EXPECT_EQ(helper->SetCallback(nullptr), 0);
    EXPECT_EQ(helper->SetCallback(&rec), 1);
    EXPECT_EQ(helper->RefreshQorv(), 1);
    EXPECT_EQ(helper->StopQorv(), 1);
    EXPECT_EQ(helper->StopQorv(), 1);
    EXPECT_THAT(Lines(log),
                ElementsAre("3 CLumoraQorvHelper Begin to start qorv!", "3 CLumoraQorvHelper start qorv success!",
                            "3 CLumoraQorvHelper Lumora Helper has been started already!",
                            "6 The pLUManagerInst is invalid!", "3 CLumoraQorvHelper Begin to register callback!",
                            "3 CLumoraQorvHelper register callback success!",
                            "3 CLumoraQorvHelper Begin to refresh qorv!", "3 CLumoraQorvHelper Refresh qorv success!",
                            "3 CLumoraQorvHelper Begin to stop qorv!", "3 CLumoraQorvHelper Stop qorv success!",
                            "3" + kNotStarted));
    for (const char *entry : {"qorv_start", "qorv_register_callback", "qorv_refresh", "qorv_stop"})
        EXPECT_EQ(sim.Calls(entry), 1) << entry;
}

TEST_F(LumoraQorvHelper, EventsReachTheObjectWhileTheBindingLivesAndItsAnswerTheEngine)
{
    Start();
    EXPECT_EQ(sim.Emit(5, "<n id='1'/>", "second"), 42);
    rec.nAnswer = -7;
    EXPECT_EQ(sim.Emit(12291, "", ""), -7);
    EXPECT_EQ(CLumoraQorvHelper::m_OnQorvEvent(1, nullptr, "b"), -1);
    EXPECT_EQ(CLumoraQorvHelper::m_OnQorvEvent(1, "a", nullptr), -1);
    EXPECT_EQ(Lines(log), Texts(2, "6 The param1 or param2 is invalid !"));
    EXPECT_THAT(rec.events, ElementsAre("5|<n id='1'/>|second", "12291||"));
    // The engine may still call once the binding is gone.
    helper.reset();
    Lines(log);
    EXPECT_EQ(sim.Emit(1, "a", "b"), -1);
    EXPECT_THAT(Lines(log), ElementsAre("6 The m_pQorvHelperCallback is invalid!"));
}

// The third and fourth parameters reach the engine but never the log.
TEST_F(LumoraQorvHelper, ExecuteLogsTheCommandTwoParametersAndTheResult)
{
    Start();
    EXPECT_EQ(helper->Execute("SetLanguage", "ko_KR", "p2", "p3-secret", "p4-secret"), "OK");
    EXPECT_EQ(sim.LastCommand(), "SetLanguage ko_KR");
    EXPECT_THAT(Lines(log), ElementsAre("3 CLumoraQorvHelper Begin to Execute strCommand = SetLanguage!",
                                        "3 CLumoraQorvHelper Begin to Execute strParam1 = ko_KR!",
                                        "3 CLumoraQorvHelper Begin to Execute strParam2 = p2!",
                                        "3 CLumoraQorvHelper Begin to Execute strResult = OK!"));
}

TEST(BrokenEngineLibrary, AMissingOneIsNamedAndNeverStarts)
{
    LogCapture log;
    LibraryPath path("/nonexistent/libqorv_helper.so");
    CLumoraQorvHelper helper;
    EXPECT_EQ(helper.StartQorv(), 0);
    EXPECT_THAT(Lines(log), ElementsAre("6 Open the qorv helper library failed!",
                                        StartsWith("6 Open failed the error is /nonexistent/libqorv_helper.so"),
                                        "6 CLumoraQorvHelper the m_pQorv_Start is NULL!"));
}

// Register, execute and refresh are there but never looked up. A stop that
// cannot be made leaves it started.
TEST(BrokenEngineLibrary, AMissingSymbolEndsTheLookup)
{
    LogCapture log;
    LibraryPath path(EngineSim::Variant("nostop"));
    CLumoraQorvHelper helper;
    Recorder rec;
    ASSERT_EQ(helper.StartQorv(), 1);
    EXPECT_EQ(helper.SetCallback(&rec), 0);
    EXPECT_EQ(helper.RefreshQorv(), 0);
    EXPECT_EQ(helper.Execute("SetLanguage", "en", "", "", ""), "");
    EXPECT_EQ(helper.StopQorv(), 0);
    EXPECT_EQ(helper.StopQorv(), 0);
    EXPECT_THAT(
        Lines(log),
        ElementsAre(
            "6 CLumoraQorvHelper Get the qorv_stop function failed!", "3 CLumoraQorvHelper Begin to start qorv!",
            "3 CLumoraQorvHelper start qorv success!", "6 CLumoraQorvHelper the m_pQrov_RegisterCallBack is NULL!",
            "6 CLumoraQorvHelper the m_pQorv_Refresh is NULL!", "6 CLumoraQorvHelper the m_pQorv_Execute is NULL!",
            "6 CLumoraQorvHelper the m_pQorv_Stop is NULL!", "6 CLumoraQorvHelper the m_pQorv_Stop is NULL!"));
}

TEST(BrokenEngineLibrary, AFailedStartIsNotRemembered)
{
    LogCapture log;
    LibraryPath path(EngineSim::Variant("startfails"));
    EngineSim sim(path.path);
    CLumoraQorvHelper helper;
    EXPECT_EQ(helper.StartQorv(), 0);
    EXPECT_EQ(helper.StartQorv(), 0);
    EXPECT_EQ(sim.Calls("qorv_start"), 2);
    EXPECT_THAT(Lines(log), ElementsAre("3 CLumoraQorvHelper Begin to start qorv!", "6 Start QORV failed!",
                                        "3 CLumoraQorvHelper Begin to start qorv!", "6 Start QORV failed!"));
}

TEST(BrokenEngineLibrary, ANullResultIsAnEmptyText)
{
    LogCapture log;
    LibraryPath path(EngineSim::Variant("execnull"));
    CLumoraQorvHelper helper;
    ASSERT_EQ(helper.StartQorv(), 1);
    EXPECT_EQ(helper.Execute("SetSystemLanguage", "en", "", "", ""), "");
    EXPECT_TRUE(log.Has("CLumoraQorvHelper Begin to Execute strResult = !"));
}
