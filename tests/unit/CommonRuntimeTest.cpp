// The common runtime: log, XML node helpers, lock, threads, timer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <libxml/parser.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "ExtLog.h"
#include "ExtThread.h"
#include "ExtXml.h"
#include "LogCapture.h"
#include "NotifySocket.h"
#include "Timer.h"
#include "lock.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// Set by another thread the second time round; a test blocks on it (the
// timeout only keeps a broken build from hanging).
struct Second {
    std::atomic<size_t> n{0};
    std::promise<void> reached;
    void Count()
    {
        if (++n == 2)
            reached.set_value();
    }
    bool Wait() { return reached.get_future().wait_for(30s) == std::future_status::ready; }
};

} // namespace

// Unknown levels never reach the platform log, and a switched-off log formats
// nothing: its arguments are missing, harmless only if nothing is formatted.
TEST(ExtLog, LevelsMapOntoPrioritiesAndTheMacroPrefixesPlaceAndKeepsTextAnArgument)
{
    LogCapture log;
    for (int level : {-1, 0, 1, 2, 3, 4, 5, 100})
        ext_log_base_print(level, "LUMORA", "level %d", level);
    const int nLine = __LINE__ + 1;
    LUMORA_LOG(EXT_LOG_ERROR, "name [%s]\n", "%s%n%s");
    tvhost::log::SetEnabled(false);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    ext_log_base_print(0, "LUMORA", "%s %s %s %n");
#pragma GCC diagnostic pop
    tvhost::log::SetEnabled(true);
    std::vector<std::string> records;
    for (const auto &r : log.Records())
        records.push_back(std::to_string(r.priority) + " " + r.tag + " " + r.text);
    EXPECT_EQ(records,
              (std::vector<std::string>{
                  "3 LUMORA level 0", "4 LUMORA level 1", "5 LUMORA level 2", "6 LUMORA level 3", "7 LUMORA level 4",
                  "6 LUMORA CommonRuntimeTest.cpp:TestBody(" + std::to_string(nLine) + ")>name [%s%n%s]\n"}));
    EXPECT_EQ(tvhost::log::PrintCount(), 6u);
}

TEST(ExtXml, FindsDirectChildrenOfOneExactNameOfAnyNodeType)
{
    const char *text = "<r><a id='1'/>text<b/><a id='2'><a id='nested'/></a><!--c--><A id='upper'/><a id='3'/>"
                       "hello<text/></r>";
    auto X = [](const char *s) { return reinterpret_cast<const xmlChar *>(s); };
    xmlDocPtr doc = xmlParseDoc(X(text));
    xmlNodePtr root = xmlDocGetRootElement(doc);
    ASSERT_NE(root, nullptr);

    // Grandchildren and names that differ only in case are never found; the
    // last one has no next (bounded, so a helper returning its input fails).
    std::vector<std::string> ids;
    for (xmlNodePtr n = xmlGetFirstChildNode(root, X("a")); n && ids.size() < 10; n = xmlGetNextSiblingNode(n, X("a")))
        ids.push_back(reinterpret_cast<const char *>(n->properties->children->content));
    EXPECT_EQ(ids, (std::vector<std::string>{"1", "2", "3"}));

    EXPECT_EQ(xmlGetFirstChildNode(nullptr, X("a")), nullptr);
    EXPECT_EQ(xmlGetNextSiblingNode(nullptr, X("a")), nullptr);
    EXPECT_EQ(xmlGetFirstChildNode(root, X("missing")), nullptr);
    EXPECT_EQ(xmlGetFirstChildNode(xmlGetFirstChildNode(root, X("b")), X("a")), nullptr) << "childless";

    // The node type is not checked: libxml2 names text nodes "text".
    xmlNodePtr n = xmlGetFirstChildNode(root, X("text"));
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->type, XML_TEXT_NODE);
    n = xmlGetNextSiblingNode(xmlGetNextSiblingNode(n, X("text")), X("text"));
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->type, XML_ELEMENT_NODE);
    xmlFreeDoc(doc);
}

TEST(Lock, TheRecursiveMutexIsReleasedOnlyWhenTheLastGuardOfItsOwnerEnds)
{
    CMutex mutex;
    std::atomic<bool> bTaken{false};
    std::thread other;
    {
        CAutoLock outer(mutex);
        {
            CAutoLock inner(mutex); // must not deadlock
        }
        other = std::thread([&] {
            CAutoLock guard(mutex);
            bTaken = true;
        });
        std::this_thread::sleep_for(100ms);
        EXPECT_FALSE(bTaken) << "one unlock of two must not release the mutex";
    }
    other.join();
    EXPECT_TRUE(bTaken);
}

namespace {

struct Worker : CThread {
    std::atomic<int> nRuns{0};
    std::atomic<bool> bRelease{false}, bFinished{false};
    void t_Main() override
    {
        ++nRuns;
        while (!bRelease)
            CThread::Sleep(5);
        bFinished = true;
    }
};

struct Looper : CLoop {
    Second loops;
    bool StopFlag() const { return m_bStop; }
    void t_Loop() override { loops.Count(), CThread::Sleep(5); }
};

} // namespace

// Destroy does not ask a body to end: it waits for it. A loop is stopped by
// Destroy only, not by a refused Create.
TEST(ExtThread, CreateRefusesASecondThreadAndDestroyWaitsForTheBodyOrStopsALoop)
{
    Worker w;
    ASSERT_TRUE(w.Create());
    EXPECT_TRUE(w.FlagCreate());
    EXPECT_FALSE(w.Create());
    std::thread releaser([&] {
        std::this_thread::sleep_for(100ms);
        w.bRelease = true;
    });
    w.Destroy();
    EXPECT_TRUE(w.bFinished);
    releaser.join();
    EXPECT_FALSE(w.FlagCreate());
    ASSERT_TRUE(w.Create()) << "a joined object runs again";
    w.Destroy();
    EXPECT_EQ(w.nRuns, 2);

    Looper l;
    ASSERT_TRUE(l.Create());
    EXPECT_FALSE(l.Create());
    EXPECT_FALSE(l.StopFlag());
    ASSERT_TRUE(l.loops.Wait());
    l.Destroy();
    EXPECT_TRUE(l.StopFlag());
    const size_t nAfterStop = l.loops.n;
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(l.loops.n, nAfterStop);
}

namespace {

// when is written by the timer thread only; read by the test after a join.
struct Ticks {
    Second n;
    Clock::time_point when[16];
    static void Callback(void *pArg)
    {
        auto *self = static_cast<Ticks *>(pArg);
        if (self->n.n < 16)
            self->when[self->n.n] = Clock::now();
        self->n.Count();
    }
};

} // namespace

// Time is only ever bounded from below here: each wait lasts at least its period.
TEST(Timer, ReadinessMessageOnceTicksEveryPeriodAndOnceMoreAfterStop)
{
    NotifySocket sock;
    Ticks ticks;
    CTimer timer;
    timer.SetTimer(1, Ticks::Callback, &ticks, true);
    auto t0 = Clock::now();
    ASSERT_EQ(timer.StartTimer(), 0);
    ASSERT_TRUE(sock.WaitFor(1, 30s));
    EXPECT_EQ(sock.Messages()[0].text, "READY=1\nsd_notify READY Proc : RAApp(" + std::to_string(getpid()) + ")");
    ASSERT_TRUE(ticks.n.Wait());
    // Away from the tick just seen, into the next wait; the stop is seen only
    // after that wait and its callback.
    std::this_thread::sleep_for(300ms);
    const size_t nBeforeStop = ticks.n.n;
    EXPECT_EQ(timer.StopTimer(), 0);
    EXPECT_EQ(ticks.n.n, nBeforeStop + 1);
    for (size_t i = 0; i < ticks.n.n && i < 16; ++i)
        EXPECT_GE(ticks.when[i] - t0, std::chrono::seconds(i + 1)) << "tick " << i << " came early";
    EXPECT_EQ(sock.Messages().size(), 1u) << "one readiness message per timer thread";
}
