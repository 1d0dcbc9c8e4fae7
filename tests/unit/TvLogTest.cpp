// The platform log reader and the replay plan made from what the service logged.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <zlib.h>

#include "hosttv/hosttv.h"
#include "tvlog/tvlog.h"

namespace {

std::string TempPath(const std::string &name)
{
    return testing::TempDir() + "/tvlog_" + name;
}

std::string Write(const std::string &name, const std::string &text)
{
    std::string path = TempPath(name);
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

std::vector<tvlog::Record> ReadAll(const std::string &path)
{
    tvlog::Reader reader(path);
    std::vector<tvlog::Record> out;
    tvlog::Record r;
    while (reader.Next(r))
        out.push_back(r);
    return out;
}

// A line of the service as the host TV writes it (brief).
std::string L(const std::string &prefix, const std::string &message, int pid = 100)
{
    char head[32];
    std::snprintf(head, sizeof head, "D/LUMORA(%5d): ", pid);
    return head + prefix + ">" + message + "\n";
}

std::string Event(int number, const std::string &param1, int pid)
{
    return L("LumoraManager.cpp:OnQorvEvent(274)",
             "Enter LumoraManager::OnQorvEvent, event type is " + std::to_string(number) + ", strParam1 = " + param1 +
                 ", strParam2 = ",
             pid);
}

const char kNotice[] = "<DeviceNotification id=\"n1\"><Device id=\"ac-1\" type=\"AC\">Living</Device>"
                       "<Notification>Hot</Notification><Action/><DisplayOption condition=\"Always\" "
                       "flag=\"On\"/></DeviceNotification>";

const char kWidgetInstalled[] = "=== The widget PzKmRvTqXa.Lumora is installed! ===";

// One run of the service: widget found, engine started, a new-device pop-up,
// a device pop-up pressed to launch the widget, Korean, Wi-Fi, a pop-up not
// shown with the widget running, a cut event, the power-off.
std::string SessionLog(int pid)
{
    const std::string w = "LumoraWidgetHelper.cpp:IsWidgetInstalled(38)";
    const std::string n = "LumoraNotification.cpp:m_AddDeviceNotification(90)";
    return L("LumoraApp.cpp:main(107)", "############ Enter LumoraApp Main ############", pid) +
           L(w, kWidgetInstalled, pid) +
           L("LumoraManager.cpp:m_WidgetCheckerPipeCB(99)", "Success to start qorv!", pid) +
           L("LumoraManager.cpp:m_WidgetCheckerPipeCB(99)", "Current Language is en_US.UTF-8", pid) +
           Event(1, "<NewDeviceList/>", pid) +
           L("LumoraNotification.cpp:Add(60)", "LumoraNotification::m_AddNewDeviceFound", pid) +
           Event(5, kNotice, pid) + L(n, "LumoraNotification::m_AddDeviceNotification", pid) +
           L(w, kWidgetInstalled, pid) +
           L("LumoraWidgetHelper.cpp:IsWidgetLaunched(59)",
             "=====The widget PzKmRvTqXa.Lumora has not been launched !=====\n", pid) +
           L(n, "LumoraNotification::m_AddDeviceNotification show the notification", pid) +
           L("LumoraNotification.cpp:m_OnNotificationButtonCallback(200)",
             "m_OnNotificationButtonCallback: nItemId = 2, nButtonIdex = ", pid) +
           L("LumoraWidgetHelper.cpp:LaunchWidget(91)", "=== Succeeded to launch a WebApp =====", pid) +
           L("LumoraManager.cpp:m_CbSystemLanguageChanged(120)", "Current Language is ko_KR.UTF-8", pid) +
           L("LumoraManager.cpp:m_ConnectionTypeChangedCB(130)", "m_ConnectionTypeChangedCB() is called. type : 1",
             pid) +
           Event(5, "<DeviceNotification id=\"n2\"><Device id=\"wm\">Laundry", pid) +
           L(n, "LumoraNotification::m_AddDeviceNotification", pid) +
           L(n, "LumoraNotification::m_AddDeviceNotification this is notification is no need to show", pid) +
           Event(12291, "", pid) +
           L("LumoraTvControl.cpp:PowerOff(30)", "CLumoraTvControl success to power off the TV!", pid);
}

} // namespace

TEST(TvLogReader, ReadsEachFormAndRefusesWhatIsNoRecord)
{
    struct Case {
        const char *line;
        tvlog::Form form;
        char level;
        const char *tag;
        int pid, tid;
        int64_t ms; // -1: no time
        const char *text;
    };
    const int64_t kMar1 = (60 * 86400 + 3600) * int64_t{1000} + 2003;
    const Case records[] = {
        {"D/LUMORA( 1234): A.cpp:f(1)>text", tvlog::Form::kBrief, 'D', "LUMORA", 1234, 0, -1, "A.cpp:f(1)>text"},
        {"E/ActivityManager  (   7): x: y", tvlog::Form::kBrief, 'E', "ActivityManager", 7, 0, -1, "x: y"},
        {"03-01 01:00:02.003 I/LUMORA(99): t", tvlog::Form::kTime, 'I', "LUMORA", 99, 0, kMar1, "t"},
        {"03-01 01:00:02.003  1234  1240 W LUMORA  : a : b", tvlog::Form::kThreadTime, 'W', "LUMORA", 1234, 1240, kMar1,
         "a : b"},
    };
    for (const Case &c : records) {
        tvlog::Record r;
        ASSERT_TRUE(tvlog::ParseLine(c.line, r)) << c.line;
        EXPECT_EQ(r.form, c.form) << c.line;
        EXPECT_EQ(r.level, c.level) << c.line;
        EXPECT_EQ(r.tag, c.tag) << c.line;
        EXPECT_EQ(r.pid, c.pid) << c.line;
        EXPECT_EQ(r.tid, c.tid) << c.line;
        EXPECT_EQ(r.ms.value_or(-1), c.ms) << c.line;
        EXPECT_EQ(r.text, c.text) << c.line;
    }
    for (const char *line : {"X/LUMORA( 1): bad level", "D/LUMORA(pid): no number",
                             "03-01 01:00:02.003  1234 D LUMORA: no tid", "<Device id=\"a\">continued</Device>", ""}) {
        tvlog::Record r;
        EXPECT_FALSE(tvlog::ParseLine(line, r)) << line;
    }
    // A time no clock shows still starts a record: marked, not taken for a continuation.
    tvlog::Record bad;
    ASSERT_TRUE(tvlog::ParseLine("13-01 01:00:02.003 D/LUMORA(1): month 13", bad));
    EXPECT_TRUE(bad.bBadTime);
    EXPECT_EQ(bad.text, "month 13");
}

TEST(TvLogReader, JoinsContinuationLinesRollsOverTheYearAndReadsGzip)
{
    const std::string text = "--------- beginning of main\n"
                             "12-31 23:59:59.500 D/LUMORA( 5): first\n"
                             "<a>\n"
                             "    | </a>\r\n" // as the host TV's terminal marks a further line
                             "12-31 23:59:59.900 I/Other( 6): other\n"
                             "01-01 00:00:00.250 D/LUMORA( 5): last";
    const std::string plain = Write("roll.log", text);
    const std::string gz = TempPath("roll.log.gz");
    gzFile f = gzopen(gz.c_str(), "wb");
    gzwrite(f, text.data(), static_cast<unsigned>(text.size()));
    gzclose(f);
    for (const std::string &path : {plain, gz}) {
        std::vector<tvlog::Record> records = ReadAll(path);
        ASSERT_EQ(records.size(), 3u) << path;
        EXPECT_EQ(records[0].text, "first\n<a>\n</a>");
        EXPECT_EQ(records[0].line, 2u);
        EXPECT_EQ(records[1].tag, "Other");
        EXPECT_EQ(records[2].line, 6u);
        EXPECT_EQ(*records[2].ms - *records[0].ms, 750) << "the new year follows December 31";
    }
}

// The kept log of a running service, read while it grows and when a new run begins it afresh.
TEST(TvLogReader, TheKeptLogGivesWholeRecordsOnly)
{
    const std::string path = hosttv::LogPath();
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::remove(path);
    EXPECT_EQ(hosttv::ReadLog(0).lines.size(), 0u);
    EXPECT_EQ(hosttv::ReadLog(0).next, 0u);

    const std::string first = "11-02 10:00:00.001   7   8 D LUMORA  : one\n    | <a/>\n";
    const std::string second = "11-02 10:00:00.002   7   9 E LUMORA  : two\n";
    std::ofstream(path, std::ios::binary) << first << second.substr(0, 20);
    hosttv::LogChunk chunk = hosttv::ReadLog(0);
    ASSERT_EQ(chunk.lines.size(), 1u);
    EXPECT_EQ(chunk.lines[0].stamp, "11-02 10:00:00.001");
    EXPECT_EQ(chunk.lines[0].text, "one\n<a/>");
    EXPECT_EQ(chunk.lines[0].tid, 8);
    EXPECT_EQ(chunk.next, first.size()) << "the half-written record is left for later";

    std::ofstream(path, std::ios::binary | std::ios::app) << second.substr(20) << first;
    chunk = hosttv::ReadLog(first.size(), 1);
    ASSERT_EQ(chunk.lines.size(), 1u);
    EXPECT_EQ(chunk.lines[0].level, 'E');
    EXPECT_EQ(chunk.lines[0].text, "two");
    EXPECT_EQ(chunk.next, first.size() + second.size()) << "max: the next record starts there";

    std::ofstream(path, std::ios::binary | std::ios::trunc) << second;
    chunk = hosttv::ReadLog(first.size() + second.size());
    EXPECT_TRUE(chunk.bRestarted);
    ASSERT_EQ(chunk.lines.size(), 1u);
    EXPECT_EQ(chunk.lines[0].text, "two");
    std::filesystem::remove(path);

    EXPECT_TRUE(hosttv::LevelAtLeast('E', 'W'));
    EXPECT_TRUE(hosttv::LevelAtLeast('W', 'W'));
    EXPECT_FALSE(hosttv::LevelAtLeast('D', 'I'));
    EXPECT_FALSE(hosttv::LevelAtLeast('?', 'V'));
}

TEST(TvLogReader, BadInputGetsAClearMessage)
{
    const std::string gz = TempPath("cut.log.gz");
    {
        std::string text;
        for (int i = 0; i < 2000; ++i)
            text += L("A.cpp:f(1)", "line " + std::to_string(i * 7919));
        gzFile f = gzopen(gz.c_str(), "wb");
        gzwrite(f, text.data(), static_cast<unsigned>(text.size()));
        gzclose(f);
        std::ifstream in(gz, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        Write("cut.log.gz", bytes.substr(0, bytes.size() / 2));
    }
    const std::string session = SessionLog(100);
    const struct {
        std::string path;
        std::optional<size_t> session;
        const char *message;
    } cases[] = {
        {TempPath("missing.log"), {}, "cannot read"},
        {gz, {}, "damaged or cut short"},
        {Write("binary.log", std::string("D/LUMORA( 1): a\n\x7f"
                                         "ELF\0\0\x01",
                                         23)),
         {},
         "binary data"},
        {Write("prose.txt", "Dear support,\nthe TV shows nothing.\n"), {}, "is not a platform log"},
        {Write("others.log", "D/Other( 1): x\nI/Wifi( 2): y\n"), {}, "holds no line of the service"},
        {Write("utf8.log", L("A.cpp:f(1)", "caf\xc3")), {}, "not valid UTF-8"},
        {Write("huge.log", std::string(tvlog::kMaxLine + 10, 'x')), {}, "longer than 16 MiB"},
        {Write("one.log", session), size_t{2}, "there is no session 2"},
    };
    for (const auto &c : cases) {
        try {
            tvlog::PlanFromLog(c.path, {c.session, 1000});
            ADD_FAILURE() << c.path << " was taken";
        } catch (const tvlog::Error &e) {
            EXPECT_THAT(std::string(e.what()), ::testing::HasSubstr(c.message)) << e.what();
        }
    }
}

TEST(TvLogPlan, TakesTheChosenRunOfInterleavedProcessesAndTags)
{
    // Two runs of the service, their lines mixed with another process's.
    const std::string a = SessionLog(100), b = SessionLog(200);
    const size_t half = a.find('\n', a.size() / 2) + 1;
    std::string mixed = "I/Wifi(  9): scan\n" + a.substr(0, half);
    mixed += b.substr(0, b.find('\n') + 1) + "I/Wifi(  9): done\n" + a.substr(half) + b.substr(b.find('\n') + 1);
    const std::string path = Write("two.log", mixed);
    std::vector<tvlog::SessionInfo> sessions = tvlog::ListSessions(path);
    ASSERT_EQ(sessions.size(), 2u);
    EXPECT_EQ(sessions[0].pid, 100);
    EXPECT_EQ(sessions[1].nEvents, 4u);
    EXPECT_EQ(tvlog::PlanFromLog(path, {}).pid, 200);
    tvlog::Plan first = tvlog::PlanFromLog(path, {size_t{1}, 1000});
    EXPECT_EQ(first.pid, 100);
    EXPECT_EQ(first.outcomes.size(), 5u);
}

TEST(TvLogPlan, RebuildsTheTvSideAndTheOutcomesAndSurvivesTheReplayFile)
{
    tvlog::Plan plan = tvlog::PlanFromLog(Write("session.log", SessionLog(100)), {{}, 500});
    EXPECT_FALSE(plan.bTimed);
    EXPECT_TRUE(plan.start.widget.bInstalled);
    EXPECT_FALSE(plan.start.widget.bRunning);
    EXPECT_EQ(plan.start.language, "en_US.UTF-8");

    std::vector<std::string> steps;
    for (const tvlog::Step &s : plan.steps)
        steps.push_back(
            std::string(tvlog::StepName(s.kind)) + " " + std::to_string(s.ms) +
            (s.kind == tvlog::StepKind::kEvent ? " " + std::to_string(s.event) : "") +
            (s.kind == tvlog::StepKind::kPress ? " " + std::to_string(s.item) + "/" + std::to_string(s.button) : "") +
            (s.value.empty() ? "" : " " + s.value) + (s.bWellFormed ? "" : " cut"));
    EXPECT_EQ(steps,
              (std::vector<std::string>{"Event 500 1", "Event 1000 5", "Press 1500 2/1", "Language 2000 ko_KR.UTF-8",
                                        "Network 2500 wifi", "Event 3000 5 cut", "Event 3500 12291"}))
        << "the launch left the widget running: no step of its own";
    std::vector<std::string> outcomes;
    for (const tvlog::Outcome &o : plan.outcomes)
        outcomes.push_back(tvlog::Describe(o));
    EXPECT_EQ(outcomes,
              (std::vector<std::string>{"pop-up #1 shown: new device", "pop-up #2 shown: device (device ac-1)",
                                        "widget launched from pop-up #2 with deviceID=ac-1",
                                        "device pop-up not shown (device wm)", "TV switched off"}));

    const std::string file = Write("session.xml", tvlog::WriteReplayFile(plan, "session.log"));
    ASSERT_TRUE(tvlog::IsReplayFile(file));
    tvlog::Plan back = tvlog::ReadReplayFile(file);
    ASSERT_EQ(back.steps.size(), plan.steps.size());
    for (size_t i = 0; i < plan.steps.size(); ++i) {
        EXPECT_EQ(back.steps[i].kind, plan.steps[i].kind) << i;
        EXPECT_EQ(back.steps[i].param1, plan.steps[i].param1) << i;
        EXPECT_EQ(back.steps[i].button, plan.steps[i].button) << i;
        EXPECT_EQ(back.steps[i].bWellFormed, plan.steps[i].bWellFormed) << i;
    }
    EXPECT_EQ(back.outcomes, plan.outcomes);
    EXPECT_EQ(back.start.language, plan.start.language);
}

TEST(TvLogPlan, CompareNamesEachDifferenceWithBothSides)
{
    using K = tvlog::Outcome::Kind;
    const std::vector<tvlog::Outcome> logged = {{K::kShown, "device", 1, "a", true, 10},
                                                {K::kLaunch, "", 1, "a", true, 12},
                                                {K::kPowerOff, "", 0, "", true, 20}};
    std::vector<tvlog::Outcome> replayed = logged;
    EXPECT_TRUE(tvlog::Compare(logged, replayed).empty());
    replayed[1].device = "b";
    replayed.pop_back();
    std::vector<tvlog::Difference> d = tvlog::Compare(logged, replayed);
    ASSERT_EQ(d.size(), 2u);
    EXPECT_EQ(d[0].logged->line, 12u);
    EXPECT_EQ(d[0].replayed->device, "b");
    EXPECT_EQ(d[1].logged->kind, K::kPowerOff);
    EXPECT_FALSE(d[1].replayed);
}
