#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include <libxml/parser.h>
#include <libxml/tree.h>

#include "EngineSim.h"
#include "LumoraParameter.h"
#include "qorv_sim_client.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Event {
    std::thread::id thread;
    Clock::time_point when;
    int nEvent;
    std::string strParam1;
    std::string strParam2;
};

// The engine calls a plain function, as it calls the service's trampoline.
struct Recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events;
    std::vector<int> numbers;  // every event's number, also when not keeping texts
    bool bKeepTexts = true;
    std::atomic<int> nAnswer{0};

    void Clear(bool keepTexts = true)
    {
        std::lock_guard<std::mutex> lock(mutex);
        events.clear();
        numbers.clear();
        bKeepTexts = keepTexts;
    }
    bool WaitFor(size_t count, std::chrono::seconds timeout = 20s)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return numbers.size() >= count; });
    }
    std::vector<Event> Events()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return numbers.size();
    }
};
Recorder g_rec;

int OnEngineEvent(int nEvent, const char *pParam1, const char *pParam2)
{
    std::lock_guard<std::mutex> lock(g_rec.mutex);
    g_rec.numbers.push_back(nEvent);
    if (g_rec.bKeepTexts || g_rec.events.empty())
        g_rec.events.push_back(Event{std::this_thread::get_id(), Clock::now(), nEvent, pParam1 ? pParam1 : "(null)",
                                     pParam2 ? pParam2 : "(null)"});
    g_rec.changed.notify_all();
    return g_rec.nAnswer;
}

// The engine library opened and resolved the way the service does it.
class EngineLib {
public:
    EngineLib() : m_pHandle(dlopen(EngineSim::DefaultPath().c_str(), RTLD_LAZY))
    {
        if (!m_pHandle)
            throw std::runtime_error(dlerror());
        start = Get<int (*)()>("qorv_start");
        stop = Get<int (*)()>("qorv_stop");
        registerCallback = Get<int (*)(int (*)(int, const char *, const char *))>("qorv_register_callback");
        excute = Get<const char *(*)(const char *, const char *, const char *, const char *, const char *)>(
            "qorv_excute");
        refresh = Get<int (*)()>("qorv_refresh");
        Get<void (*)()>("qorv_sim_reset")();
        g_rec.Clear();
        g_rec.nAnswer = 0;
    }
    ~EngineLib() { Close(); }
    void Close()
    {
        if (m_pHandle) {
            stop();
            dlclose(m_pHandle);
            m_pHandle = nullptr;
        }
    }
    std::string Execute(const char *pCommand, const char *pArg)
    {
        const char *p = excute(pCommand, pArg, "", "", "");
        return p ? p : "(null)";
    }

    int (*start)();
    int (*stop)();
    int (*registerCallback)(int (*)(int, const char *, const char *));
    const char *(*excute)(const char *, const char *, const char *, const char *, const char *);
    int (*refresh)();

private:
    template <typename Fn>
    Fn Get(const char *pName)
    {
        void *p = dlsym(m_pHandle, pName);
        if (!p)
            throw std::runtime_error(pName);
        return reinterpret_cast<Fn>(p);
    }
    void *m_pHandle;
};

class TempDir {
public:
    TempDir()
    {
        char templ[] = "/tmp/engine-sim-test-XXXXXX";
        m_path = mkdtemp(templ);
    }
    ~TempDir() { (void)!system(("rm -rf '" + m_path + "'").c_str()); }
    std::string Write(const std::string &name, const std::string &text) const
    {
        std::string path = m_path + "/" + name;
        std::ofstream(path) << text;
        return path;
    }

private:
    std::string m_path;
};

// Sets an environment variable for one test.
class Env {
public:
    Env(const char *pName, const std::string &value) : m_name(pName)
    {
        const char *p = getenv(pName);
        m_bHad = p != nullptr;
        m_saved = p ? p : "";
        setenv(pName, value.c_str(), 1);
    }
    ~Env()
    {
        if (m_bHad)
            setenv(m_name.c_str(), m_saved.c_str(), 1);
        else
            unsetenv(m_name.c_str());
    }

private:
    std::string m_name;
    std::string m_saved;
    bool m_bHad;
};

// What the engine writes to stderr while it lives.
class StderrCapture {
public:
    StderrCapture()
    {
        fflush(stderr);
        m_saved = dup(2);
        FILE *f = tmpfile();
        m_fd = dup(fileno(f));
        fclose(f);
        dup2(m_fd, 2);
    }
    ~StderrCapture() { Restore(); }
    std::string Text()
    {
        std::string out;
        char buffer[4096];
        ssize_t n;
        for (off_t off = 0; (n = pread(m_fd, buffer, sizeof buffer, off)) > 0; off += n)
            out.append(buffer, static_cast<size_t>(n));
        return out;
    }
    void Restore()
    {
        if (m_saved >= 0) {
            fflush(stderr);
            dup2(m_saved, 2);
            close(m_saved);
            m_saved = -1;
            fputs(Text().c_str(), stderr);  // still shown with the test's output
        }
    }

private:
    int m_saved = -1;
    int m_fd = -1;
};

int ThreadCount()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("Threads:", 0) == 0)
            return std::stoi(line.substr(8));
    return -1;
}

std::vector<int> Numbers(const std::vector<Event> &events)
{
    std::vector<int> numbers;
    for (const Event &e : events)
        numbers.push_back(e.nEvent);
    return numbers;
}

const char kHome[] = R"(
  <Home>
    <Device id="ac1" type="Air Conditioner" name="Living &amp; dining" status="Connected"/>
    <Device id="wm1" type="Washer" name="Laundry" status="Disconnected"/>
    <NewDevice id="rc1" type="Robot Cleaner" name="Hall"/>
    <NewDevice id="ac2" type="Air Conditioner" name="Study"/>
    <MasterKey id="k1" name="Power">KEY_POWER</MasterKey>
    <MasterKey id="k2">KEY_HOME</MasterKey>
  </Home>)";

std::string ModeFile(const std::string &scenario)
{
    return std::string("<?xml version=\"1.0\"?>\n<Mode name=\"test\">") + kHome + "\n<Scenario>" + scenario +
           "</Scenario>\n</Mode>\n";
}

} // namespace

TEST(EngineSim, ScenarioPlaysInTimeOrderFromOneEngineThreadOnceACallbackIsThere)
{
    TempDir dir;
    Env mode("QORV_SIM_MODE", dir.Write("mode.xml", ModeFile(R"(
      <At ms="300"><MasterKeys/><PowerOff/></At>
      <At ms="0"><RegisteredDevices/><NewDevices ids="ac2"/></At>
      <At ms="100"><Notify device="ac1" id="n7" type="Alarm" condition="Always" flag="On" text="Cool"/></At>
      <At ms="200"><Register ids="ac2"/><Disconnect device="ac1"/><Raw event="4" param2="two"><x a="1"/></Raw></At>
    )")));
    EngineLib lib;
    Clock::time_point start = Clock::now();
    ASSERT_EQ(lib.start(), 1);
    std::this_thread::sleep_for(150ms);  // the steps due by now wait for the callback
    EXPECT_EQ(g_rec.Count(), 0u);
    ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
    ASSERT_TRUE(g_rec.WaitFor(8));
    std::vector<Event> ev = g_rec.Events();
    ASSERT_EQ(Numbers(ev), (std::vector<int>{0, 1, 5, 0, 0, 4, 12290, 12291}));
    for (const Event &e : ev) {
        EXPECT_EQ(e.thread, ev[0].thread);
        EXPECT_NE(e.thread, std::this_thread::get_id());
    }
    EXPECT_GE(ev[6].when - start, 300ms);

    // The documents are the ones the service's parsers read.
    CRegisteredDeviceList registered;
    ASSERT_TRUE(registered.Parse(ev[0].strParam1.c_str(), ev[0].strParam2.c_str()));
    ASSERT_EQ(registered.m_vecDevice.size(), 1u) << "the service keeps air conditioners only";
    EXPECT_EQ(registered.m_vecDevice[0].strID, "ac1");
    EXPECT_EQ(registered.m_vecDevice[0].strCtrlName, "Living & dining");
    EXPECT_TRUE(registered.m_vecDevice[0].bConnected);
    EXPECT_NE(ev[0].strParam1.find("<RegisteredDevice id=\"wm1\" status=\"Disconnected\"><Type>Washer</Type>"),
              std::string::npos);

    CNewDeviceList discovered;
    ASSERT_TRUE(discovered.Parse(ev[1].strParam1.c_str(), ""));
    ASSERT_EQ(discovered.m_vecDevice.size(), 1u) << ev[1].strParam1;
    EXPECT_EQ(discovered.m_vecDevice[0].strID, "ac2");
    EXPECT_EQ(discovered.GetSummary(), "Air Conditioner 1");

    CDeviceNotification noti;
    ASSERT_TRUE(noti.Parse(ev[2].strParam1.c_str(), ""));
    EXPECT_EQ(noti.m_Data.strNotiID, "n7");
    EXPECT_EQ(noti.m_Data.strNotiType, "Alarm");
    EXPECT_EQ(noti.m_Data.strID, "ac1");
    EXPECT_EQ(noti.m_Data.strType, "Air Conditioner");
    EXPECT_EQ(noti.m_Data.strCtrlName, "Living & dining");
    EXPECT_EQ(noti.m_Data.strNotiText, "Cool");
    EXPECT_EQ(noti.m_Data.strDisplayCondition, "Always");
    EXPECT_TRUE(noti.m_Data.bDisplayFlag);

    // Registering a discovered device and losing one show in the next reports.
    ASSERT_TRUE(registered.Parse(ev[3].strParam1.c_str(), ""));
    ASSERT_EQ(registered.m_vecDevice.size(), 2u);
    EXPECT_EQ(registered.m_vecDevice[1].strID, "ac2");
    ASSERT_TRUE(registered.Parse(ev[4].strParam1.c_str(), ""));
    EXPECT_EQ(registered.m_vecDevice[0].status, "Disconnected");

    EXPECT_EQ(ev[5].strParam1, "<x a=\"1\"/>");
    EXPECT_EQ(ev[5].strParam2, "two");
    EXPECT_EQ(ev[6].strParam1, "<MasterKeyList><MasterKey id=\"k1\" name=\"Power\">KEY_POWER</MasterKey>"
                               "<MasterKey id=\"k2\" name=\"\">KEY_HOME</MasterKey></MasterKeyList>");
    EXPECT_EQ(ev[7].strParam1 + "|" + ev[7].strParam2, "|");
}

TEST(EngineSim, RefreshReportsTheHomeAndNotificationsFollowTheLanguage)
{
    TempDir dir;
    Env mode("QORV_SIM_MODE", dir.Write("mode.xml", ModeFile(R"(
      <At ms="0"><Notify device="wm1">
        <Text lang="ko">세탁 완료</Text><Text lang="en">Washing done</Text><Text lang="en_GB">Washing's done</Text>
      </Notify></At>)")));
    EngineLib lib;
    EXPECT_EQ(lib.refresh(), 0) << "no refresh before the start";

    auto playWith = [&](const char *pCommand, const char *pLanguage) {
        lib.stop();
        g_rec.Clear();
        lib.registerCallback(nullptr);
        EXPECT_EQ(lib.start(), 1);
        EXPECT_EQ(lib.Execute(pCommand, pLanguage), "OK");
        lib.registerCallback(OnEngineEvent);  // the steps waited for it, so the language is set in time
        EXPECT_TRUE(g_rec.WaitFor(1));
        CDeviceNotification noti;
        std::vector<Event> ev = g_rec.Events();
        EXPECT_TRUE(!ev.empty() && noti.Parse(ev[0].strParam1.c_str(), ""));
        return noti.m_Data.strNotiText;
    };
    EXPECT_EQ(playWith("SetLanguage", "ko_KR"), "세탁 완료");
    EXPECT_EQ(playWith("SetSystemLanguage", "en_GB"), "Washing's done") << "the exact language first";
    EXPECT_EQ(playWith("SetLanguage", "en_US"), "Washing done");
    EXPECT_EQ(playWith("SetLanguage", "fr_FR"), "Washing done") << "English when the language has no text";
    EXPECT_EQ(lib.Execute("Dance", "now").rfind("ERROR", 0), 0u);
    EXPECT_EQ(lib.Execute("SetLanguage", "").rfind("ERROR", 0), 0u);

    g_rec.Clear();
    g_rec.nAnswer = 3;
    ASSERT_EQ(lib.refresh(), 1);
    ASSERT_TRUE(g_rec.WaitFor(1));
    Event e = g_rec.Events()[0];
    EXPECT_EQ(e.nEvent, 0);
    EXPECT_NE(e.thread, std::this_thread::get_id());
    EXPECT_EQ(e.strParam1, "<RegisteredDeviceList>"
                           "<RegisteredDevice id=\"ac1\" status=\"Connected\"><Type>Air Conditioner</Type>"
                           "<Name>Living &amp; dining</Name></RegisteredDevice>"
                           "<RegisteredDevice id=\"wm1\" status=\"Disconnected\"><Type>Washer</Type>"
                           "<Name>Laundry</Name></RegisteredDevice></RegisteredDeviceList>");
    EXPECT_EQ(e.strParam2, "");
}

TEST(EngineSim, EventsInjectedThroughTheSocketComeFromTheEngineThread)
{
    TempDir dir;
    Env mode("QORV_SIM_MODE", dir.Write("mode.xml", ModeFile("")));
    const std::string path = qorvsim::DefaultSocketPath();
    EngineLib lib;
    ASSERT_EQ(lib.start(), 1);
    int nResult = 0;
    std::string error;
    for (int i = 0; i < 200 && !qorvsim::InjectEvent(path, 5, "x", "", nResult, error); ++i)
        std::this_thread::sleep_for(10ms);  // the engine thread opens the socket after the start
    EXPECT_EQ(nResult, -2) << "no callback yet: " << error;

    g_rec.nAnswer = 7;
    ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
    ASSERT_EQ(lib.refresh(), 1);
    ASSERT_TRUE(g_rec.WaitFor(1));
    ASSERT_TRUE(qorvsim::InjectEvent(path, 12290, "<MasterKeyList>\n<MasterKey id=\"a\"/>\n</MasterKeyList>",
                                     "second text", nResult, error))
        << error;
    EXPECT_EQ(nResult, 7) << "the service's answer goes back to the injecting process";

    // Two requests in one write, and one whose texts arrive later.
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    timeval timeout{20, 0};  // a missing answer fails the test instead of hanging it
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    std::string two = "EVENT 1 3 0\nabcEVENT 0x3003 0 0\nEVENT 2 5 1\nhel";
    ASSERT_EQ(write(fd, two.data(), two.size()), static_cast<ssize_t>(two.size()));
    std::this_thread::sleep_for(50ms);
    ASSERT_EQ(write(fd, "loZ", 3), 3);
    auto readLine = [](int fd) {
        std::string line;
        char c;
        while (read(fd, &c, 1) == 1 && c != '\n')
            line += c;
        return line;
    };
    EXPECT_EQ(readLine(fd), "RESULT 7");
    EXPECT_EQ(readLine(fd), "RESULT 7");
    EXPECT_EQ(readLine(fd), "RESULT 7");
    ASSERT_EQ(write(fd, "HELLO\n", 6), 6);
    EXPECT_EQ(readLine(fd).rfind("ERROR ", 0), 0u);
    close(fd);

    std::vector<Event> ev = g_rec.Events();
    ASSERT_EQ(Numbers(ev), (std::vector<int>{0, 12290, 1, 12291, 2}));
    EXPECT_EQ(ev[1].strParam1, "<MasterKeyList>\n<MasterKey id=\"a\"/>\n</MasterKeyList>");
    EXPECT_EQ(ev[1].strParam2, "second text");
    EXPECT_EQ(ev[2].strParam1, "abc");
    EXPECT_EQ(ev[4].strParam1 + "|" + ev[4].strParam2, "hello|Z");
    for (const Event &e : ev)
        EXPECT_EQ(e.thread, ev[0].thread) << "refresh answers and injected events share the engine thread";
    EXPECT_NE(ev[0].thread, std::this_thread::get_id());

    lib.stop();
    EXPECT_FALSE(qorvsim::InjectEvent(path, 5, "x", "", nResult, error)) << "a stopped engine takes no events";
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "the socket file goes with the engine";
}

TEST(EngineSim, BadModeFileIsReportedByLineAndTheGoodStepsStillPlay)
{
    TempDir dir;
    const std::string file = dir.Write("bad.xml", "<?xml version=\"1.0\"?>\n"       // 1
                                                  "<Mode name=\"bad\">\n"            // 2
                                                  "  <Home>\n"                       // 3
                                                  "    <Device id=\"ac1\" type=\"Air Conditioner\" name=\"A\"/>\n"  // 4
                                                  "    <Device type=\"Washer\"/>\n"  // 5
                                                  "  </Home>\n"                      // 6
                                                  "  <Scenario>\n"                   // 7
                                                  "    <At ms=\"0\"><RegisteredDevices/></At>\n"                    // 8
                                                  "    <At ms=\"10\"><Dance/></At>\n"                               // 9
                                                  "    <At ms=\"20\"><Notify device=\"ghost\" text=\"x\"/><MasterKeys/></At>\n"  // 10
                                                  "    <At ms=\"soon\"><PowerOff/></At>\n"                          // 11
                                                  "    <At ms=\"30\"><Raw>no event</Raw><Raw event=\"3\">ok</Raw></At>\n"  // 12
                                                  "  </Scenario>\n"                  // 13
                                                  "  <Oops>\n"                       // 14
                                                  "</Mode>\n");                      // 15
    Env mode("QORV_SIM_MODE", file);
    Env loud("QORV_SIM_QUIET", "0");
    StderrCapture err;
    EngineLib lib;
    ASSERT_EQ(lib.start(), 1);
    ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
    ASSERT_TRUE(g_rec.WaitFor(3));
    std::vector<Event> ev = g_rec.Events();
    EXPECT_EQ(Numbers(ev), (std::vector<int>{0, 12290, 3}));
    EXPECT_EQ(ev[2].strParam1, "ok");

    std::string text = err.Text();
    EXPECT_NE(text.find(file + ":5: <Device> without id"), std::string::npos) << text;
    EXPECT_NE(text.find(file + ":9: unknown step <Dance>"), std::string::npos) << text;
    EXPECT_NE(text.find(file + ":10: <Notify> names the unknown device \"ghost\""), std::string::npos) << text;
    EXPECT_NE(text.find(file + ":11: <At> needs ms="), std::string::npos) << text;
    EXPECT_NE(text.find(file + ":12: <Raw> needs event="), std::string::npos) << text;
    EXPECT_NE(text.find(file + ":15: XML error"), std::string::npos) << text;
    for (const char *p : {":4:", ":8:", ":13:"})
        EXPECT_EQ(text.find(file + p), std::string::npos) << "good lines are not reported: " << p;

    // A file that cannot be read: an empty home, and the engine still answers.
    lib.stop();
    g_rec.Clear();
    Env missing("QORV_SIM_MODE", dir.Write("x", "") + "/none.xml");
    ASSERT_EQ(lib.start(), 1);
    ASSERT_EQ(lib.refresh(), 1);
    ASSERT_TRUE(g_rec.WaitFor(1));
    EXPECT_EQ(g_rec.Events()[0].strParam1, "<RegisteredDeviceList></RegisteredDeviceList>");
    EXPECT_NE(err.Text().find("none.xml: cannot read"), std::string::npos);

    // QORV_SIM_QUIET silences the trace.
    lib.stop();
    Env quiet("QORV_SIM_QUIET", "1");
    size_t before = err.Text().size();
    ASSERT_EQ(lib.start(), 1);
    ASSERT_EQ(lib.refresh(), 1);
    ASSERT_TRUE(g_rec.WaitFor(2));
    lib.stop();
    EXPECT_EQ(err.Text().size(), before);
}

TEST(EngineSim, StopAndUnloadJoinTheEngineThreadMidStorm)
{
    TempDir dir;
    Env mode("QORV_SIM_MODE", dir.Write("mode.xml", ModeFile(R"(<At ms="0" repeat="10000000"><Raw event="2"/></At>)")));
    Env quiet("QORV_SIM_QUIET", "1");
    const int nThreads = ThreadCount();
    {
        EngineLib lib;
        g_rec.Clear(false);
        ASSERT_EQ(lib.start(), 1);
        ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
        ASSERT_TRUE(g_rec.WaitFor(1000));
        ASSERT_EQ(lib.stop(), 1);
        EXPECT_EQ(ThreadCount(), nThreads) << "the engine thread is gone when stop returns";
        size_t nAtStop = g_rec.Count();
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(g_rec.Count(), nAtStop) << "no event after the stop";
        EXPECT_LT(nAtStop, 10000000u);

        // Started again and the library closed while the storm runs.
        ASSERT_EQ(lib.start(), 1);
        ASSERT_TRUE(g_rec.WaitFor(nAtStop + 1000));
        EXPECT_EQ(ThreadCount(), nThreads + 1);
        lib.stop = [] { return 1; };  // leave the stopping to the unload
        lib.Close();
    }
    EXPECT_EQ(ThreadCount(), nThreads) << "unloading the library joins its thread";
    size_t nAtUnload = g_rec.Count();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(g_rec.Count(), nAtUnload);
}

TEST(EngineSim, InProcessEventsKeepTheirMeaning)
{
    // Through the test support, as the binding's tests use it.
    TempDir dir;
    Env mode("QORV_SIM_MODE", dir.Write("mode.xml", ModeFile("")));
    EngineLib lib;
    EngineSim sim;
    EXPECT_EQ(sim.Emit(5, "<x/>", ""), -2) << "no callback";
    ASSERT_EQ(lib.start(), 1);
    ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
    g_rec.nAnswer = 11;
    ASSERT_EQ(lib.refresh(), 1);
    EXPECT_EQ(sim.Emit(12291, "", "b"), 11);
    EXPECT_EQ(sim.Emit(9, nullptr, "c"), 11);
    std::vector<Event> ev = g_rec.Events();
    ASSERT_EQ(Numbers(ev), (std::vector<int>{0, 12291, 9})) << "in order with the refresh answer";
    EXPECT_EQ(ev[1].thread, ev[0].thread);
    EXPECT_EQ(ev[2].strParam1 + "|" + ev[2].strParam2, "(null)|c");
    EXPECT_EQ(sim.Calls("qorv_refresh"), 1);
    lib.Execute("SetSystemLanguage", "ko_KR");
    EXPECT_EQ(sim.LastCommand(), "SetSystemLanguage ko_KR");
}

TEST(EngineSim, ShippedScenariosLoadCleanlyAndKeepTheirShape)
{
    const std::string bin = LUMORA_SOURCE_DIR "/tvroot/usr/apps/org.kelvar.lumora/bin/";
    auto read = [](const std::string &path) {
        std::stringstream s;
        s << std::ifstream(path).rdbuf();
        return s.str();
    };
    EXPECT_EQ(read(bin + "mode.xml"), read(bin + "scenarios/quiet.xml")) << "the TV ships the quiet mode";

    Env fast("QORV_SIM_SPEED", "50");
    Env loud("QORV_SIM_QUIET", "0");
    for (const char *name : {"quiet", "demo", "storm"}) {
        SCOPED_TRACE(name);
        const std::string file = bin + "scenarios/" + name + ".xml";
        Env mode("QORV_SIM_MODE", file);
        StderrCapture err;
        EngineLib lib;
        g_rec.Clear(std::string(name) != "storm");
        ASSERT_EQ(lib.start(), 1);
        ASSERT_EQ(lib.registerCallback(OnEngineEvent), 1);
        std::vector<int> numbers;
        if (std::string(name) == "quiet") {
            ASSERT_EQ(lib.refresh(), 1);
            ASSERT_TRUE(g_rec.WaitFor(1));
            std::this_thread::sleep_for(300ms);  // 15 s of scenario time
            EXPECT_EQ(g_rec.Count(), 1u) << "quiet only answers";
        } else if (std::string(name) == "demo") {
            ASSERT_TRUE(g_rec.WaitFor(6, 60s));
            std::vector<Event> ev = g_rec.Events();
            EXPECT_EQ(Numbers(ev), (std::vector<int>{0, 1, 5, 12290, 5, 12291}));
            CDeviceNotification noti;
            ASSERT_TRUE(noti.Parse(ev[2].strParam1.c_str(), ""));
            EXPECT_EQ(noti.m_Data.strType, "Air Conditioner");
            EXPECT_EQ(noti.m_Data.strDisplayCondition, "Always");
            EXPECT_TRUE(noti.m_Data.bDisplayFlag);
            CNewDeviceList discovered;
            EXPECT_TRUE(discovered.Parse(ev[1].strParam1.c_str(), ""));
        } else {
            ASSERT_TRUE(g_rec.WaitFor(80000, 300s));
            std::this_thread::sleep_for(100ms);
            std::lock_guard<std::mutex> lock(g_rec.mutex);
            ASSERT_EQ(g_rec.numbers.size(), 80000u) << "and nothing more, no power-off";
            const int pattern[] = {0, 1, 5, 12290};
            size_t nWrong = 0;
            for (size_t i = 0; i < g_rec.numbers.size(); ++i)
                nWrong += g_rec.numbers[i] != pattern[i % 4];
            EXPECT_EQ(nWrong, 0u);
        }
        lib.Close();
        EXPECT_EQ(err.Text().find(file + ":"), std::string::npos) << err.Text();
    }

    // The demo driver acts between the steps: they keep seconds apart, and
    // the power-off ends the tour within 25 s.
    xmlDoc *doc = xmlReadFile((bin + "scenarios/demo.xml").c_str(), nullptr, 0);
    ASSERT_NE(doc, nullptr);
    std::vector<long> times;
    std::string last;
    for (xmlNode *n = xmlDocGetRootElement(doc)->children; n; n = n->next) {
        if (n->type != XML_ELEMENT_NODE || xmlStrcmp(n->name, BAD_CAST "Scenario") != 0)
            continue;
        for (xmlNode *at = n->children; at; at = at->next) {
            if (at->type != XML_ELEMENT_NODE)
                continue;
            xmlChar *ms = xmlGetProp(at, BAD_CAST "ms");
            times.push_back(atol(reinterpret_cast<char *>(ms)));
            xmlFree(ms);
            for (xmlNode *s = at->children; s; s = s->next)
                if (s->type == XML_ELEMENT_NODE)
                    last = reinterpret_cast<const char *>(s->name);
        }
    }
    xmlFreeDoc(doc);
    ASSERT_GE(times.size(), 5u);
    for (size_t i = 1; i < times.size(); ++i)
        EXPECT_GE(times[i] - times[i - 1], 2000) << "step " << i;
    EXPECT_LE(times.back(), 25000);
    EXPECT_GE(times.back(), 18000);
    EXPECT_EQ(last, "PowerOff");
}
