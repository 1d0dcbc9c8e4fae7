// The simulated engine as the service and the integration suites use it:
// scenarios played on the engine's own thread, events raised through its
// socket or in process, the language and refresh re-reports, a stop or an
// unload that really ends it, and the broken variants.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <unistd.h>

#include "EngineSim.h"
#include "LumoraParameter.h"
#include "qorv_sim_client.h"

namespace {

using namespace std::chrono_literals;

struct Event { std::thread::id thread; int nEvent; std::string strParam1, strParam2; };

// The engine calls a plain function, as it calls the service's trampoline.
std::mutex g_mutex;
std::condition_variable g_changed;
std::vector<Event> g_events;
std::atomic<int> g_nAnswer{0};

int OnEngineEvent(int nEvent, const char *pParam1, const char *pParam2)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_events.push_back(
        Event{std::this_thread::get_id(), nEvent, pParam1 ? pParam1 : "(null)", pParam2 ? pParam2 : "(null)"});
    g_changed.notify_all();
    return g_nAnswer;
}

// The events so far, once there are at least n of them or the wait gave up.
std::vector<Event> Events(size_t n = 0, std::chrono::seconds timeout = 20s)
{
    std::unique_lock<std::mutex> lock(g_mutex);
    g_changed.wait_for(lock, timeout, [&] { return g_events.size() >= n; });
    return g_events;
}

void ClearEvents()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_events.clear();
}

std::vector<int> Numbers(const std::vector<Event> &events)
{
    std::vector<int> numbers;
    for (const Event &e : events)
        numbers.push_back(e.nEvent);
    return numbers;
}

long ThreadCount()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// An engine library opened and resolved the way the service does it, reset to
// a fresh state; an entry point it lacks stays null. Going out of scope
// unloads it, which must end its thread.
struct Engine {
    explicit Engine(const std::string &path = EngineSim::DefaultPath()) : handle(dlopen(path.c_str(), RTLD_LAZY))
    {
        if (!handle)
            throw std::runtime_error(dlerror());
        reinterpret_cast<void (*)()>(dlsym(handle, "qorv_sim_reset"))();
        ClearEvents();
    }
    ~Engine() { dlclose(handle); }
    template <typename Fn> Fn Get(const char *pName) const { return reinterpret_cast<Fn>(dlsym(handle, pName)); }
    std::string Execute(const char *pCommand, const char *pArg) const
    {
        const char *p = excute(pCommand, pArg, "", "", "");
        return p ? p : "(null)";
    }

    using Entry = int (*)();
    using Callback = int (*)(int, const char *, const char *);
    using Command = const char *(*)(const char *, const char *, const char *, const char *, const char *);
    void *handle;
    Entry start = Get<Entry>("qorv_start"), stop = Get<Entry>("qorv_stop"), refresh = Get<Entry>("qorv_refresh");
    int (*registerCallback)(Callback) = Get<int (*)(Callback)>("qorv_register_callback");
    Command excute = Get<Command>("qorv_excute");
};

class SimulatedEngine : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("QORV_SIM_QUIET", "1", 1);
        unsetenv("QORV_SIM_SPEED");
        g_nAnswer = 0;
    }
    void TearDown() override { std::remove(m_strMode.c_str()); }

    // The engine's next start reads the test home and this scenario.
    void UseScenario(const std::string &scenario)
    {
        std::ofstream(m_strMode) << R"(<Mode name="test"><Home>
            <Device id="ac1" type="Air Conditioner" name="Living &amp; dining" status="Connected"/>
            <Device id="wm1" type="Washer" name="Laundry" status="Disconnected"/>
            <NewDevice id="rc1" type="Robot Cleaner" name="Hall"/>
            <NewDevice id="ac2" type="Air Conditioner" name="Study"/>
            <MasterKey id="k1" name="Power">KEY_POWER</MasterKey>
            <MasterKey id="k2">KEY_HOME</MasterKey>
          </Home><Scenario>)"
                                 << scenario << "</Scenario></Mode>";
        setenv("QORV_SIM_MODE", m_strMode.c_str(), 1);
    }

    const std::string m_strMode = "/tmp/engine-sim-test-" + std::to_string(getpid()) + ".xml";
};

} // namespace

TEST_F(SimulatedEngine, ScenarioStepsWaitForACallbackThenPlayInTimeOrderOnTheEngineThread)
{
    UseScenario(R"(
      <At ms="300"><MasterKeys/><PowerOff/></At>
      <At ms="0"><RegisteredDevices/><NewDevices ids="ac2"/></At>
      <At ms="100"><Notify device="ac1" id="n7" type="Alarm" condition="Always" flag="On" text="Cool"/></At>
      <At ms="200"><Register ids="ac2"/><Dance/><Notify device="ghost" text="x"/><Disconnect device="ac1"/>
        <Raw event="4" param2="two"><x a="1"/></Raw></At>)");
    Engine lib;
    ASSERT_EQ(lib.start(), 1);
    std::this_thread::sleep_for(400ms);  // every step falls due before there is a callback to take it
    ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
    std::vector<Event> ev = Events(8);
    ASSERT_EQ(Numbers(ev), (std::vector<int>{0, 1, 5, 0, 0, 4, 12290, 12291})) << "bad steps are skipped alone";
    for (const Event &e : ev)
        EXPECT_TRUE(e.thread == ev[0].thread && e.thread != std::this_thread::get_id());

    // The documents are the ones the service's parsers read.
    CRegisteredDeviceList registered;
    ASSERT_TRUE(registered.Parse(ev[0].strParam1.c_str(), ""));
    ASSERT_EQ(registered.m_vecDevice.size(), 1u) << "the service keeps air conditioners only";
    EXPECT_EQ(registered.m_vecDevice[0].strCtrlName + "|" + registered.m_vecDevice[0].status,
              "Living & dining|Connected");
    CNewDeviceList discovered;
    ASSERT_TRUE(discovered.Parse(ev[1].strParam1.c_str(), ""));
    EXPECT_EQ(discovered.GetSummary(), "Air Conditioner 1");
    CDeviceNotification noti;
    ASSERT_TRUE(noti.Parse(ev[2].strParam1.c_str(), ""));
    const auto &d = noti.m_Data;
    EXPECT_EQ(d.strNotiID + "|" + d.strNotiType + "|" + d.strID + "|" + d.strType + "|" + d.strCtrlName + "|" +
                  d.strNotiText + "|" + d.strDisplayCondition + "|" + (d.bDisplayFlag ? "On" : "Off"),
              "n7|Alarm|ac1|Air Conditioner|Living & dining|Cool|Always|On");
    // Registering a discovered device and losing one show in the next reports.
    ASSERT_TRUE(registered.Parse(ev[3].strParam1.c_str(), ""));
    ASSERT_EQ(registered.m_vecDevice.size(), 2u);
    EXPECT_EQ(registered.m_vecDevice[1].strID, "ac2");
    ASSERT_TRUE(registered.Parse(ev[4].strParam1.c_str(), ""));
    EXPECT_EQ(registered.m_vecDevice[0].status, "Disconnected");
    EXPECT_EQ(ev[5].strParam1 + "|" + ev[5].strParam2, "<x a=\"1\"/>|two");
    EXPECT_EQ(ev[6].strParam1, "<MasterKeyList><MasterKey id=\"k1\" name=\"Power\">KEY_POWER</MasterKey>"
                               "<MasterKey id=\"k2\" name=\"\">KEY_HOME</MasterKey></MasterKeyList>");
    EXPECT_EQ(ev[7].strParam1 + "|" + ev[7].strParam2, "|");
}

TEST_F(SimulatedEngine, NotificationsFollowTheLanguageAndARefreshReportsTheHome)
{
    UseScenario(R"(<At ms="0"><Notify device="wm1">
        <Text lang="ko">세탁 완료</Text><Text lang="en">Washing done</Text><Text lang="en_GB">Washing's done</Text>
      </Notify></At>)");
    Engine lib;
    EXPECT_EQ(lib.refresh(), 0) << "no refresh before the start";
    struct Case { const char *command, *language, *text; } cases[] = {
        {"SetLanguage", "ko_KR", "세탁 완료"},
        {"SetSystemLanguage", "en_GB", "Washing's done"},  // the exact language first
        {"SetLanguage", "en_US", "Washing done"},
        {"SetLanguage", "fr_FR", "Washing done"},  // English when the language has no text
    };
    for (const auto &c : cases) {
        lib.stop();
        lib.registerCallback(nullptr);
        ClearEvents();
        ASSERT_EQ(lib.start(), 1);
        EXPECT_EQ(lib.Execute(c.command, c.language), "OK");
        lib.registerCallback(OnEngineEvent);  // the step waited for it, so the language is set in time
        std::vector<Event> ev = Events(1);
        CDeviceNotification noti;
        ASSERT_TRUE(!ev.empty() && noti.Parse(ev[0].strParam1.c_str(), "")) << c.language;
        EXPECT_EQ(noti.m_Data.strNotiText, c.text) << c.language;
    }
    EXPECT_EQ(lib.Execute("Dance", "now"), "ERROR unknown command");
    EXPECT_EQ(lib.Execute("SetLanguage", ""), "ERROR no language");

    ClearEvents();
    ASSERT_EQ(lib.refresh(), 1);
    std::vector<Event> ev = Events(1);
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_NE(ev[0].thread, std::this_thread::get_id());
    EXPECT_EQ(std::to_string(ev[0].nEvent) + "|" + ev[0].strParam1 + "|" + ev[0].strParam2,
              "0|<RegisteredDeviceList><RegisteredDevice id=\"ac1\" status=\"Connected\"><Type>Air Conditioner</Type>"
              "<Name>Living &amp; dining</Name></RegisteredDevice><RegisteredDevice id=\"wm1\" status=\"Disconnected\">"
              "<Type>Washer</Type><Name>Laundry</Name></RegisteredDevice></RegisteredDeviceList>|");
}

TEST_F(SimulatedEngine, RaisedEventsComeInOrderFromTheEngineThreadAndCarryTheAnswerBack)
{
    UseScenario("");
    const std::string path = qorvsim::DefaultSocketPath();
    Engine lib;
    EngineSim sim;  // the in-process way, as the binding's tests raise events
    EXPECT_EQ(sim.Emit(5, "<x/>", ""), -2) << "no callback";
    ASSERT_EQ(lib.start(), 1);
    int nResult = 0;
    std::string error;
    for (int i = 0; i < 2000 && !qorvsim::InjectEvent(path, 5, "x", "", nResult, error); ++i)
        std::this_thread::sleep_for(10ms);  // the engine thread opens the socket after the start
    EXPECT_EQ(nResult, -2) << "no callback yet: " << error;

    g_nAnswer = 7;
    ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
    ASSERT_EQ(lib.refresh(), 1);
    ASSERT_EQ(Events(1).size(), 1u);
    // Texts of any bytes, new lines included; a large one arrives in many reads.
    const std::string large(3u << 20, 'L');
    for (const auto &texts : {std::make_pair(std::string("<a>\n<b/>\n</a>"), std::string("second")),
                              std::make_pair(large, std::string("Z"))}) {
        ASSERT_TRUE(qorvsim::InjectEvent(path, 12290, texts.first, texts.second, nResult, error)) << error;
        EXPECT_EQ(nResult, 7) << "the service's answer goes back to the injecting process";
    }
    EXPECT_EQ(sim.Emit(9, nullptr, "c"), 7);
    std::vector<Event> ev = Events(4);
    ASSERT_EQ(Numbers(ev), (std::vector<int>{0, 12290, 12290, 9})) << "in order with the refresh report";
    EXPECT_EQ(ev[1].strParam1 + "|" + ev[1].strParam2, "<a>\n<b/>\n</a>|second");
    EXPECT_TRUE(ev[2].strParam1 == large && ev[2].strParam2 == "Z") << ev[2].strParam1.size();
    EXPECT_EQ(ev[3].strParam1 + "|" + ev[3].strParam2, "(null)|c");
    for (const Event &e : ev)
        EXPECT_TRUE(e.thread == ev[0].thread && e.thread != std::this_thread::get_id());
    EXPECT_EQ(sim.Calls("qorv_refresh"), 1);
    lib.Execute("SetSystemLanguage", "ko_KR");
    EXPECT_EQ(sim.LastCommand(), "SetSystemLanguage ko_KR");

    lib.stop();
    EXPECT_FALSE(qorvsim::InjectEvent(path, 5, "x", "", nResult, error)) << "a stopped engine takes no events";
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "the socket file goes with the engine";
}

TEST_F(SimulatedEngine, TheShippedStormPlaysWholeAndAStopOrAnUnloadMidStormEndsTheEngineThread)
{
    setenv("QORV_SIM_MODE", LUMORA_SOURCE_DIR "/tvroot/usr/apps/org.kelvar.lumora/bin/scenarios/storm.xml", 1);
    setenv("QORV_SIM_SPEED", "50", 1);
    const long nThreads = ThreadCount();
    {
        Engine lib;
        ASSERT_EQ(lib.start(), 1);
        ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
        Events(80000, 300s);
        std::this_thread::sleep_for(300ms);  // 15 s of scenario time for anything more to come
        const std::vector<int> numbers = Numbers(Events());
        ASSERT_EQ(numbers.size(), 80000u) << "and no power-off";
        const int pattern[] = {0, 1, 5, 12290};
        size_t nWrong = 0;
        for (size_t i = 0; i < numbers.size(); ++i)
            nWrong += numbers[i] != pattern[i % 4];
        EXPECT_EQ(nWrong, 0u);

        // Played again and stopped mid-storm.
        lib.stop();
        ClearEvents();
        ASSERT_EQ(lib.start(), 1);
        ASSERT_GE(Events(1000).size(), 1000u);
        ASSERT_EQ(lib.stop(), 1);
        EXPECT_EQ(ThreadCount(), nThreads) << "the engine thread is gone when stop returns";
        const size_t nAtStop = Events().size();
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(Events().size(), nAtStop) << "no event after the stop";

        // And once more, unloaded mid-storm.
        ASSERT_EQ(lib.start(), 1);
        ASSERT_GE(Events(nAtStop + 1000).size(), nAtStop + 1000);
        EXPECT_EQ(ThreadCount(), nThreads + 1);
    }
    EXPECT_EQ(ThreadCount(), nThreads) << "unloading the library joins its thread";
    const size_t nAtUnload = Events().size();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(Events().size(), nAtUnload);
}

TEST_F(SimulatedEngine, EachBrokenVariantFailsOnlyItsOwnEntryPoint)
{
    UseScenario("");
    g_nAnswer = 7;
    // Each entry point's result ("-": the library lacks it), the command's answer,
    // and what an event raised in the engine returns and delivers.
    struct Case { const char *name, *outcome; } cases[] = {
        {"nostop", "start=1 register=1 refresh=1 excute=OK emit=7:x|y stop=-"},
        {"startfails", "start=0 register=1 refresh=0 excute=OK emit=7:x|y stop=1"},
        {"execnull", "start=1 register=1 refresh=1 excute=(null) emit=7:x|y stop=1"},
        {"nulltext", "start=1 register=1 refresh=1 excute=OK emit=7:(null)|y stop=1"},
        {"noregister", "start=1 register=- refresh=1 excute=OK emit=-2: stop=1"},
        {"registerfails", "start=1 register=0 refresh=1 excute=OK emit=-2: stop=1"},
        {"refreshfails", "start=1 register=1 refresh=0 excute=OK emit=7:x|y stop=1"},
    };
    const auto call = [](auto pfn, auto... args) { return pfn ? std::to_string(pfn(args...)) : std::string("-"); };
    for (const auto &c : cases) {
        Engine lib(EngineSim::Variant(c.name));
        EngineSim sim(EngineSim::Variant(c.name));
        // One call after the other: the operands of one + chain have no order.
        std::string outcome = "start=" + call(lib.start);
        outcome += " register=" + call(lib.registerCallback, OnEngineEvent);
        outcome += " refresh=" + call(lib.refresh);
        outcome += " excute=" + lib.Execute("SetLanguage", "ko_KR");
        outcome += " emit=" + std::to_string(sim.Emit(5, "x", "y")) + ":";
        std::vector<Event> ev = Events();  // a refresh report comes before the raised event
        if (!ev.empty() && ev.back().nEvent == 5)
            outcome += ev.back().strParam1 + "|" + ev.back().strParam2;
        EXPECT_EQ(outcome + " stop=" + call(lib.stop), c.outcome) << c.name;
    }
}
