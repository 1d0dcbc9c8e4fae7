#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "EngineSim.h"
#include "LogCapture.h"
#include "LumoraQorvHelper.h"

class CLumoraQorvHelperTestPeer {
public:
    explicit CLumoraQorvHelperTestPeer(CLumoraQorvHelper &h) : h(h) {}
    bool Started() const { return h.m_bStarted; }
    bool Loaded() const { return h.m_pLibHandle != nullptr; }
    // Which of start, stop, register, execute, refresh were resolved.
    std::string Resolved() const
    {
        std::string s;
        s += h.m_pQorv_Start ? 'S' : '-';
        s += h.m_pQorv_Stop ? 'T' : '-';
        s += h.m_pQrov_RegisterCallBack ? 'C' : '-';
        s += h.m_pQorv_Execute ? 'E' : '-';
        s += h.m_pQorv_Refresh ? 'R' : '-';
        return s;
    }
    CLumoraQorvHelper &h;
};

namespace {

struct Recorder : IQorvHelperCallBack {
    int OnQorvEvent(int nEvent, std::string strParam1, std::string strParam2) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(std::to_string(nEvent) + "|" + strParam1 + "|" + strParam2);
        thread = std::this_thread::get_id();
        return nAnswer;
    }
    std::mutex mutex;
    std::vector<std::string> events;
    std::thread::id thread;
    int nAnswer = 42;
};

// Points the binding at a library for one test and back afterwards.
class LibraryPath {
public:
    explicit LibraryPath(const std::string &path) : m_saved(LIB_QORV_HELPER_PATH), m_path(path)
    {
        LIB_QORV_HELPER_PATH = m_path.c_str();
    }
    ~LibraryPath() { LIB_QORV_HELPER_PATH = m_saved; }

private:
    const char *m_saved;
    std::string m_path;
};

constexpr int kDebug = 3;
constexpr int kError = 6;

} // namespace

TEST(LumoraQorvHelper, MissingLibraryLeavesEveryEntryPointNull)
{
    LogCapture log;
    LibraryPath path("/nonexistent/libqorv_helper.so");
    CLumoraQorvHelper helper;
    CLumoraQorvHelperTestPeer peer(helper);

    EXPECT_FALSE(peer.Loaded());
    EXPECT_EQ(peer.Resolved(), "-----");
    EXPECT_EQ(log.PriorityOf("Open the qorv helper library failed!"), kError);
    auto lines = log.Messages();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].rfind("Open failed the error is /nonexistent/libqorv_helper.so", 0), 0u) << lines[1];

    log.Clear();
    // Stopped state first: these report success without touching the engine.
    EXPECT_EQ(helper.RefreshQorv(), 1);
    EXPECT_EQ(helper.SetCallback(nullptr), 1);
    EXPECT_EQ(helper.StopQorv(), 1);
    EXPECT_EQ(helper.Execute("SetLanguage", "en_US", "", "", ""), "");
    EXPECT_EQ(helper.StartQorv(), 0);
    EXPECT_EQ(log.PriorityOf("CLumoraQorvHelper the m_pQorv_Start is NULL!"), kError);
    EXPECT_FALSE(peer.Started());
}

TEST(LumoraQorvHelper, MissingSymbolStopsTheLookupOfEveryLaterOne)
{
    LogCapture log;
    EngineSim sim(EngineSim::Variant("nostop"));
    LibraryPath path(EngineSim::Variant("nostop"));
    CLumoraQorvHelper helper;
    CLumoraQorvHelperTestPeer peer(helper);

    EXPECT_TRUE(peer.Loaded()) << "the library stays open";
    EXPECT_EQ(peer.Resolved(), "S----") << "register, execute and refresh exist but are not looked up";
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"CLumoraQorvHelper Get the qorv_stop function failed!"});
    EXPECT_EQ(log.PriorityOf("CLumoraQorvHelper Get the qorv_stop function failed!"), kError);

    EXPECT_NE(helper.StartQorv(), 0);
    EXPECT_TRUE(peer.Started());
    Recorder rec;
    EXPECT_EQ(helper.SetCallback(&rec), 0);
    EXPECT_EQ(helper.RefreshQorv(), 0);
    EXPECT_EQ(helper.Execute("SetLanguage", "en", "", "", ""), "");
    EXPECT_EQ(helper.StopQorv(), 0);
    EXPECT_TRUE(peer.Started());
    EXPECT_TRUE(log.Has("CLumoraQorvHelper the m_pQrov_RegisterCallBack is NULL!"));
    EXPECT_TRUE(log.Has("CLumoraQorvHelper the m_pQorv_Refresh is NULL!"));
    EXPECT_TRUE(log.Has("CLumoraQorvHelper the m_pQorv_Execute is NULL!"));
    EXPECT_EQ(log.PriorityOf("CLumoraQorvHelper the m_pQorv_Stop is NULL!"), kError);
    EXPECT_EQ(sim.Calls("qorv_register_callback"), 0);
}

TEST(LumoraQorvHelper, StartStopRefreshAndExecuteFollowTheEngineState)
{
    LogCapture log;
    EngineSim sim;
    CLumoraQorvHelper helper;
    CLumoraQorvHelperTestPeer peer(helper);
    EXPECT_EQ(peer.Resolved(), "STCER");
    EXPECT_TRUE(log.Records().empty()) << "a complete library loads silently";

    // Stopped: no engine call at all.
    EXPECT_EQ(helper.RefreshQorv(), 1);
    EXPECT_EQ(log.PriorityOf("CLumoraQorvHelper Lumora Helper has not been started!"), kError);
    EXPECT_EQ(helper.Execute("SetLanguage", "ko", "", "", ""), "");
    EXPECT_EQ(helper.StopQorv(), 1);
    EXPECT_EQ(sim.Calls("qorv_refresh") + sim.Calls("qorv_excute") + sim.Calls("qorv_stop"), 0);

    log.Clear();
    EXPECT_EQ(helper.StartQorv(), 1);
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"CLumoraQorvHelper Begin to start qorv!",
                                                         "CLumoraQorvHelper start qorv success!"}));
    log.Clear();
    EXPECT_EQ(helper.StartQorv(), 1);
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"CLumoraQorvHelper Lumora Helper has been started already!"});
    EXPECT_EQ(log.PriorityOf("CLumoraQorvHelper Lumora Helper has been started already!"), kDebug);
    EXPECT_EQ(sim.Calls("qorv_start"), 1) << "a second start must not reach the engine";

    log.Clear();
    EXPECT_EQ(helper.Execute("SetLanguage", "ko_KR", "p2", "p3-secret", "p4-secret"), "OK");
    EXPECT_EQ(sim.LastCommand(), "SetLanguage ko_KR");
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{
                                  "CLumoraQorvHelper Begin to Execute strCommand = SetLanguage!",
                                  "CLumoraQorvHelper Begin to Execute strParam1 = ko_KR!",
                                  "CLumoraQorvHelper Begin to Execute strParam2 = p2!",
                                  "CLumoraQorvHelper Begin to Execute strResult = OK!"}));

    log.Clear();
    EXPECT_EQ(helper.RefreshQorv(), 1);
    EXPECT_EQ(sim.Calls("qorv_refresh"), 1);
    EXPECT_TRUE(log.Has("CLumoraQorvHelper Refresh qorv success!"));

    EXPECT_EQ(helper.StopQorv(), 1);
    EXPECT_FALSE(peer.Started());
    EXPECT_EQ(sim.Calls("qorv_stop"), 1);
    EXPECT_EQ(helper.StopQorv(), 1);
    EXPECT_EQ(sim.Calls("qorv_stop"), 1) << "stopping a stopped engine counts as success without a call";
}

TEST(LumoraQorvHelper, EventsReachTheCallbackObjectFromTheEngineThread)
{
    LogCapture log;
    EngineSim sim;
    CLumoraQorvHelper helper;
    Recorder rec;

    // Before the start the registration is skipped but reported as success.
    EXPECT_EQ(helper.SetCallback(&rec), 1);
    EXPECT_EQ(sim.Calls("qorv_register_callback"), 0);
    EXPECT_EQ(sim.Emit(5, "<x/>", ""), -2) << "the engine never got a callback";

    ASSERT_EQ(helper.StartQorv(), 1);
    log.Clear();
    EXPECT_EQ(helper.SetCallback(nullptr), 0);
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"The pLUManagerInst is invalid!"});
    EXPECT_EQ(log.PriorityOf("The pLUManagerInst is invalid!"), kError);

    EXPECT_EQ(helper.SetCallback(&rec), 1);
    EXPECT_TRUE(log.Has("CLumoraQorvHelper register callback success!"));
    EXPECT_EQ(sim.Emit(5, "<n id='1'/>", "second"), 42) << "the object's answer goes back to the engine";
    rec.nAnswer = -7;
    EXPECT_EQ(sim.Emit(12291, "", ""), -7);
    {
        std::lock_guard<std::mutex> lock(rec.mutex);
        EXPECT_EQ(rec.events, (std::vector<std::string>{"5|<n id='1'/>|second", "12291||"}));
        EXPECT_NE(rec.thread, std::this_thread::get_id());
    }
}

TEST(LumoraQorvHelper, TrampolineRejectsNullTextsAndAMissingCallbackObject)
{
    LogCapture log;
    Recorder rec;
    {
        EngineSim sim(EngineSim::Variant("nulltext"));
        LibraryPath path(EngineSim::Variant("nulltext"));
        CLumoraQorvHelper helper;
        ASSERT_EQ(helper.StartQorv(), 1);
        ASSERT_EQ(helper.SetCallback(&rec), 1);
        EXPECT_EQ(sim.Emit(5, "<x/>", ""), -1);
        EXPECT_EQ(log.PriorityOf("The param1 or param2 is invalid !"), kError);
    }
    EXPECT_TRUE(rec.events.empty());

    // Destroying the binding forgets the object; the engine may still call.
    EngineSim sim;
    {
        CLumoraQorvHelper helper;
        ASSERT_EQ(helper.StartQorv(), 1);
        ASSERT_EQ(helper.SetCallback(&rec), 1);
    }
    log.Clear();
    EXPECT_EQ(sim.Emit(1, "a", "b"), -1);
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"The m_pQorvHelperCallback is invalid!"});
    EXPECT_TRUE(rec.events.empty());
    EXPECT_EQ(CLumoraQorvHelper::m_OnQorvEvent(1, "a", nullptr), -1);
}

TEST(LumoraQorvHelper, EngineFailuresAreReportedAndChangeNoState)
{
    LogCapture log;
    {
        EngineSim sim(EngineSim::Variant("startfails"));
        LibraryPath path(EngineSim::Variant("startfails"));
        CLumoraQorvHelper helper;
        CLumoraQorvHelperTestPeer peer(helper);
        EXPECT_EQ(helper.StartQorv(), 0);
        EXPECT_FALSE(peer.Started());
        EXPECT_EQ(log.PriorityOf("Start QORV failed!"), kError);
        EXPECT_EQ(sim.Calls("qorv_start"), 1);
        EXPECT_EQ(helper.StartQorv(), 0);
        EXPECT_EQ(sim.Calls("qorv_start"), 2) << "a failed start is not remembered";
    }
    log.Clear();
    {
        EngineSim sim(EngineSim::Variant("execnull"));
        LibraryPath path(EngineSim::Variant("execnull"));
        CLumoraQorvHelper helper;
        ASSERT_EQ(helper.StartQorv(), 1);
        EXPECT_EQ(helper.Execute("SetSystemLanguage", "en", "", "", ""), "");
        EXPECT_EQ(sim.Calls("qorv_excute"), 1);
        EXPECT_TRUE(log.Has("CLumoraQorvHelper Begin to Execute strResult = !"));
    }
}
