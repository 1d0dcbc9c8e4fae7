// The simulated engine as the service and the integration suites use it:
// scenarios played on the engine's own thread as the documents the service
// parses, events raised through its socket or in process, the language and
// refresh re-reports, and a stop or an unload that really ends it.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

#include "EngineSim.h"
#include "qorv_sim_client.h"

namespace {

using namespace std::chrono_literals;

struct Event {
    std::thread::id thread;
    int nEvent;
    std::string strParam1, strParam2;
};

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

// Each event as "number|param1|param2", to compare a whole run at once.
std::vector<std::string> Lines(const std::vector<Event> &events)
{
    std::vector<std::string> lines;
    for (const Event &e : events)
        lines.push_back(std::to_string(e.nEvent) + "|" + e.strParam1 + "|" + e.strParam2);
    return lines;
}

// Event 0 as the engine reports the registered devices of its home.
std::string HomeReport(const std::vector<std::array<const char *, 4>> &devices)
{
    std::string line = "0|<RegisteredDeviceList>";
    for (const auto &d : devices)
        line += std::string("<RegisteredDevice id=\"") + d[0] + "\" status=\"" + d[1] + "\"><Type>" + d[2] +
                "</Type><Name>" + d[3] + "</Name></RegisteredDevice>";
    return line + "</RegisteredDeviceList>|";
}
const std::array<const char *, 4> kLiving = {"ac1", "Connected", "Air Conditioner", "Living &amp; dining"},
                                  kLaundry = {"wm1", "Disconnected", "Washer", "Laundry"},
                                  kStudy = {"ac2", "Connected", "Air Conditioner", "Study"};

bool OnOneEngineThread(const std::vector<Event> &events)
{
    for (const Event &e : events)
        if (e.thread != events[0].thread || e.thread == std::this_thread::get_id())
            return false;
    return true;
}

long ThreadCount()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// The engine library opened and resolved the way the service does it, reset to
// a fresh state. Going out of scope unloads it, which must end its thread.
struct Engine {
    Engine() : handle(dlopen(EngineSim::DefaultPath().c_str(), RTLD_LAZY))
    {
        if (!handle)
            throw std::runtime_error(dlerror());
        reinterpret_cast<void (*)()>(dlsym(handle, "qorv_sim_reset"))();
        ClearEvents();
    }
    ~Engine() { dlclose(handle); }
    template <typename Fn>
    Fn Get(const char *pName) const
    {
        return reinterpret_cast<Fn>(dlsym(handle, pName));
    }

    void *handle;
    int (*start)() = Get<decltype(start)>("qorv_start"), (*stop)() = Get<decltype(stop)>("qorv_stop");
    int (*refresh)() = Get<decltype(refresh)>("qorv_refresh");
    int (*registerCallback)(int (*)(int, const char *,
                                    const char *)) = Get<decltype(registerCallback)>("qorv_register_callback");
    const char *(*excute)(const char *, const char *, const char *, const char *,
                          const char *) = Get<decltype(excute)>("qorv_excute");
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
          </Home><Scenario>)" << scenario
                                 << "</Scenario></Mode>";
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
    std::this_thread::sleep_for(400ms); // every step falls due before there is a callback to take it
    ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
    std::vector<Event> ev = Events(8);
    EXPECT_TRUE(OnOneEngineThread(ev));
    // Bad steps are skipped alone; a registered discovery and a lost device show in the next reports.
    auto lost = kLiving;
    lost[1] = "Disconnected";
    EXPECT_EQ(Lines(ev),
              (std::vector<std::string>{
                  HomeReport({kLiving, kLaundry}),
                  "1|<NewDeviceList><NewDevice id=\"ac2\"><Type>Air Conditioner</Type></NewDevice></NewDeviceList>|",
                  "5|<DeviceNotification id=\"n7\" type=\"Alarm\"><Device id=\"ac1\" type=\"Air Conditioner\">"
                  "Living &amp; dining</Device><Notification>Cool</Notification><Action type=\"Widget\">Open</Action>"
                  "<DisplayOption flag=\"On\" condition=\"Always\"/></DeviceNotification>|",
                  HomeReport({kLiving, kLaundry, kStudy}), HomeReport({lost, kLaundry, kStudy}), "4|<x a=\"1\"/>|two",
                  "12290|<MasterKeyList><MasterKey id=\"k1\" name=\"Power\">KEY_POWER</MasterKey>"
                  "<MasterKey id=\"k2\" name=\"\">KEY_HOME</MasterKey></MasterKeyList>|",
                  "12291||"}));
}

TEST_F(SimulatedEngine, NotificationsFollowTheLanguage)
{
    UseScenario(R"(<At ms="0"><Notify device="wm1">
        <Text lang="ko">세탁 완료</Text><Text lang="en">Washing done</Text><Text lang="en_GB">Washing's done</Text>
      </Notify></At>)");
    Engine lib;
    const std::string notification =
        "5|<DeviceNotification id=\"n1\" type=\"Notice\"><Device id=\"wm1\" type=\"Washer\">Laundry</Device>"
        "<Notification>@</Notification><Action type=\"Widget\">Open</Action><DisplayOption flag=\"On\" "
        "condition=\"Always\"/></DeviceNotification>|";
    struct Case {
        const char *command, *language, *text;
    } cases[] = {
        {"SetLanguage", "ko_KR", "세탁 완료"},
        {"SetSystemLanguage", "en_GB", "Washing&apos;s done"}, // the exact language first
        {"SetLanguage", "fr_FR", "Washing done"},              // English when the language has no text
    };
    for (const auto &c : cases) {
        lib.stop();
        lib.registerCallback(nullptr);
        ClearEvents();
        ASSERT_EQ(lib.start(), 1);
        EXPECT_STREQ(lib.excute(c.command, c.language, "", "", ""), "OK");
        lib.registerCallback(OnEngineEvent); // the step waited for it, so the language is set in time
        std::string expected = notification;
        expected.replace(expected.find('@'), 1, c.text);
        EXPECT_EQ(Lines(Events(1)), std::vector<std::string>{expected}) << c.language;
    }
}

TEST_F(SimulatedEngine, ARefreshReportsTheHomeAndRaisedEventsComeFromTheEngineThreadWithTheAnswerBack)
{
    UseScenario("");
    const std::string path = qorvsim::DefaultSocketPath();
    Engine lib;
    EngineSim sim; // the in-process way, as the binding's tests raise events
    ASSERT_EQ(lib.start(), 1);
    int nResult = 0;
    std::string error;
    for (int i = 0; i < 2000 && !qorvsim::InjectEvent(path, 5, "x", "", nResult, error); ++i)
        std::this_thread::sleep_for(10ms); // the engine thread opens the socket after the start
    EXPECT_EQ(nResult, -2) << "no callback yet: " << error;

    g_nAnswer = 7;
    ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
    ASSERT_EQ(lib.refresh(), 1);
    ASSERT_EQ(Lines(Events(1)), std::vector<std::string>{HomeReport({kLiving, kLaundry})});
    ClearEvents();
    // Texts of any bytes, new lines included.
    ASSERT_TRUE(qorvsim::InjectEvent(path, 12290, "<a>\n<b/>\n</a>", "second", nResult, error)) << error;
    EXPECT_EQ(nResult, 7) << "the service's answer goes back to the injecting process";
    EXPECT_EQ(sim.Emit(9, nullptr, "c"), 7);
    const std::vector<Event> ev = Events(2);
    EXPECT_TRUE(OnOneEngineThread(ev));
    EXPECT_EQ(Lines(ev), (std::vector<std::string>{"12290|<a>\n<b/>\n</a>|second", "9|(null)|c"}));

    lib.stop();
    EXPECT_FALSE(qorvsim::InjectEvent(path, 5, "x", "", nResult, error)) << "a stopped engine takes no events";
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "the socket file goes with the engine";
}

TEST_F(SimulatedEngine, AStopOrAnUnloadMidStormEndsTheEngineThread)
{
    setenv("QORV_SIM_MODE", LUMORA_SOURCE_DIR "/tvroot/usr/apps/org.kelvar.lumora/bin/scenarios/storm.xml", 1);
    setenv("QORV_SIM_SPEED", "50", 1);
    const long nThreads = ThreadCount();
    size_t nEvents = 0;
    {
        Engine lib;
        ASSERT_EQ(lib.start(), 1);
        ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
        ASSERT_GE(Events(1000).size(), 1000u);
        ASSERT_EQ(lib.stop(), 1);
        EXPECT_EQ(ThreadCount(), nThreads) << "the engine thread is gone when stop returns";
        nEvents = Events().size();
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(Events().size(), nEvents) << "no event after the stop";

        ASSERT_EQ(lib.start(), 1);
        ASSERT_GE(Events(nEvents + 1000).size(), nEvents + 1000);
        EXPECT_EQ(ThreadCount(), nThreads + 2) << "the engine thread and its socket's, no more";
    }
    EXPECT_EQ(ThreadCount(), nThreads) << "unloading the library joins its thread";
    nEvents = Events().size();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(Events().size(), nEvents);
}
