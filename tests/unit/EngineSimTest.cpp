// What the service's own suites cannot show of the simulated engine: when
// scenario steps play, how the injection socket frames its requests, and that
// a stop or an unload really ends the engine thread.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "EngineSim.h"
#include "mode.h"
#include "qorv_sim_client.h"

namespace {

using namespace std::chrono_literals;

struct Event {
    std::thread::id thread;
    int nEvent;
    std::string line; // "number|param1|param2"
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
        Event{std::this_thread::get_id(), nEvent,
              std::to_string(nEvent) + "|" + (pParam1 ? pParam1 : "(null)") + "|" + (pParam2 ? pParam2 : "(null)")});
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

// Sends bytes, ends the sending side and reads until the engine closes.
std::string Exchange(const std::string &path, const std::string &request)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    std::string answer;
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
        shutdown(fd, SHUT_WR);
        char buffer[256];
        for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;)
            answer.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return answer;
}

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

// The count once the threads just joined are gone. Under qemu-user (the
// ARM run, which sets LUMORA_EXEC_WRAPPER) the joiner wakes before the
// emulator ends the joined thread's own task, so that task can still be
// listed for a moment; only there is the count given that moment.
long ThreadCountAfterJoin(long nExpected)
{
    const char *pWrapper = std::getenv("LUMORA_EXEC_WRAPPER");
    if (!pWrapper || !*pWrapper)
        return ThreadCount();
    for (int i = 0; i < 200 && ThreadCount() > nExpected; ++i)
        std::this_thread::sleep_for(5ms);
    return ThreadCount();
}

// The engine library opened and resolved the way the service does it, reset to
// a fresh state. Going out of scope unloads it, which must end its thread.
struct Engine {
    Engine() : handle(dlopen(EngineSim::DefaultPath().c_str(), RTLD_LAZY))
    {
        if (!handle)
            throw std::runtime_error(dlerror());
        reinterpret_cast<void (*)()>(dlsym(handle, "qorv_sim_reset"))();
        std::lock_guard<std::mutex> lock(g_mutex);
        g_events.clear();
    }
    ~Engine() { dlclose(handle); }
    template <typename Fn>
    Fn Get(const char *pName) const
    {
        return reinterpret_cast<Fn>(dlsym(handle, pName));
    }

    void *handle;
    int (*start)() = Get<decltype(start)>("qorv_start"), (*stop)() = Get<decltype(stop)>("qorv_stop");
    int (*registerCallback)(int (*)(int, const char *,
                                    const char *)) = Get<decltype(registerCallback)>("qorv_register_callback");
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
            <Device id="ac1" type="Air Conditioner" name="Living" status="Connected"/>
            <NewDevice id="ac2" type="Air Conditioner" name="Study"/>
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
      <At ms="100"><Notify device="ac1" text="Cool"/></At>
      <At ms="200"><Register ids="ac2"/><Dance/><Notify device="ghost" text="x"/><Disconnect device="ac1"/>
        <Raw event="4" param2="two"><x a="1"/></Raw></At>)");
    Engine lib;
    ASSERT_EQ(lib.start(), 1);
    std::this_thread::sleep_for(400ms); // every step falls due before there is a callback to take it
    ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
    const std::vector<Event> ev = Events(8);
    EXPECT_TRUE(OnOneEngineThread(ev));
    std::vector<int> numbers;
    for (const Event &e : ev)
        numbers.push_back(e.nEvent);
    // Bad steps are skipped alone; a registered discovery and a lost device show in the next reports.
    ASSERT_EQ(numbers, (std::vector<int>{0, 1, 5, 0, 0, 4, 12290, 12291}));
    EXPECT_THAT(ev[0].line, ::testing::Not(::testing::HasSubstr("ac2")));
    EXPECT_THAT(ev[3].line, ::testing::HasSubstr("<RegisteredDevice id=\"ac2\" status=\"Connected\">"));
    EXPECT_THAT(ev[4].line, ::testing::HasSubstr("<RegisteredDevice id=\"ac1\" status=\"Disconnected\">"));
    EXPECT_EQ(ev[5].line, "4|<x a=\"1\"/>|two");
}

// The injection socket's framing: byte-counted texts of any bytes, several
// requests on one connection, and each malformed request answered and closed.
TEST_F(SimulatedEngine, InjectedRequestsAreFramedByTheirByteCounts)
{
    UseScenario("");
    const std::string path = qorvsim::DefaultSocketPath();
    Engine lib;
    ASSERT_EQ(lib.start(), 1);
    for (int i = 0; i < 3000 && !tvhost::localsocket::SomeoneListens(path); ++i)
        std::this_thread::sleep_for(10ms); // the engine thread opens the socket after the start
    EXPECT_EQ(Exchange(path, "EVENT 5 0 0\n"), "RESULT -2\n") << "no callback yet";
    g_nAnswer = 7;
    ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
    const struct {
        std::string sent, answered;
    } cases[] = {
        {"EVENT 12290 8 6\n<a>\n<b/>secondEVENT 16 0 0\n", "RESULT 7\nRESULT 7\n"},
        {"EVENT 5 0 0\nEVENT 6 1", "RESULT 7\n"}, // the second one is cut short
        {"HELLO 1 2 3\n", "ERROR expected: EVENT <number> <bytes of text 1> <bytes of text 2>\n"},
        {"EVENT 5 0 0 0\n", "ERROR expected: EVENT <number> <bytes of text 1> <bytes of text 2>\n"},
        {"EVENT five 0 0\n", "ERROR bad event number\n"},
        {"EVENT 0x10 0 0\n", "ERROR bad event number\n"},
        {"EVENT 5  0 0\n", "ERROR expected: EVENT <number> <bytes of text 1> <bytes of text 2>\n"},
        {"EVENT 99999999999 0 0\n", "ERROR bad event number\n"},
        {"EVENT 5 -1 0\n", "ERROR bad text size\n"},
        {"EVENT 5 0 +1\n", "ERROR bad text size\n"},
        {"EVENT 5 0 99999999999\n", "ERROR bad text size\n"},
        {std::string(200, 'E'), "ERROR request line too long\n"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Exchange(path, c.sent), c.answered) << c.sent.substr(0, 30);
    const std::vector<Event> ev = Events(3);
    EXPECT_TRUE(OnOneEngineThread(ev));
    std::vector<std::string> lines;
    for (const Event &e : ev)
        lines.push_back(e.line);
    EXPECT_EQ(lines, (std::vector<std::string>{"12290|<a>\n<b/>|second", "16||", "5||"}));

    lib.stop();
    EXPECT_FALSE(tvhost::localsocket::SomeoneListens(path)) << "a stopped engine takes no events";
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "the socket file goes with the engine";
}

// Once the engine thread is gone no event can follow, so counting threads is enough.
TEST_F(SimulatedEngine, AStopOrAnUnloadMidStormEndsTheEngineThread)
{
    setenv("QORV_SIM_MODE", LUMORA_SOURCE_DIR "/tvroot/usr/apps/org.kelvar.lumora/bin/scenarios/storm.xml", 1);
    setenv("QORV_SIM_SPEED", "50", 1);
    const long nThreads = ThreadCount();
    {
        Engine lib;
        ASSERT_EQ(lib.start(), 1);
        ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
        ASSERT_GE(Events(1000).size(), 1000u);
        ASSERT_EQ(lib.stop(), 1);
        EXPECT_EQ(ThreadCountAfterJoin(nThreads), nThreads) << "the engine thread is gone when stop returns";
        const size_t nEvents = Events().size();
        ASSERT_EQ(lib.start(), 1);
        ASSERT_GE(Events(nEvents + 1000).size(), nEvents + 1000);
        EXPECT_EQ(ThreadCount(), nThreads + 2) << "the engine thread and its socket's, no more";
    }
    EXPECT_EQ(ThreadCountAfterJoin(nThreads), nThreads) << "unloading the library joins its thread";
}

// The mode file's place may hold anything; the engine's start must not wait
// on it, and what is no file gives the empty home with the reason.
TEST(SimulatedEngineModeFile, WhatIsNoRegularFileIsRefusedWithoutWaiting)
{
    const std::string fifo = "/tmp/engine-sim-fifo-" + std::to_string(getpid());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // The FIFO last: code that would wait on it fails on the others first.
    for (const std::string &path : {std::string("/dev/null"), std::string("/tmp"), fifo}) {
        std::vector<std::string> reports;
        const qorvsim::Mode mode = qorvsim::LoadMode(path, [&](const std::string &text) { reports.push_back(text); });
        ASSERT_THAT(reports, ::testing::ElementsAre(path + ": not a regular file; empty home, no scenario"));
        EXPECT_TRUE(mode.strName.empty() && mode.vctScenario.empty()) << path;
    }
    std::remove(fifo.c_str());
    std::vector<std::string> reports;
    qorvsim::LoadMode(fifo, [&](const std::string &text) { reports.push_back(text); });
    EXPECT_THAT(reports, ::testing::ElementsAre(fifo + ": cannot read (No such file or directory); empty home, no "
                                                       "scenario"));
}
