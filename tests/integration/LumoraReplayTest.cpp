// A TV reproduced from its log: the demo run with the viewer's actions, its
// log written in each form, replayed by lumora-tv on a fresh host TV.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "LumoraTv.h"
#include "Supervisor.h"

using namespace std::chrono_literals;

namespace {

class LumoraReplay : public HostTvTest {
protected:
    // The demo tour, twice as fast, with the log in form; the log's path.
    std::string RunDemo(const std::string &form)
    {
        EXPECT_EQ(LumoraTv({"reset"}).status, 0);
        Supervisor tv;
        tv.Start({"--scenario", "demo"}, {"TVHOST_LOG_FORMAT=" + form, "TVHOST_DRAW=0", "QORV_SIM_SPEED=2"});
        EXPECT_TRUE(tv.WaitForLog(">LumoraNotification::m_AddDeviceNotification show the notification", kHangGuard))
            << tv.Log();
        EXPECT_EQ(LumoraTv({"set", "db/menu_widget/language", "ko_KR.UTF-8"}).status, 0);
        EXPECT_EQ(LumoraTv({"press", "1", "0"}).status, 0);
        EXPECT_EQ(LumoraTv({"press", "2", "1"}).status, 0);
        EXPECT_EQ(LumoraTv({"network", "wifi"}).status, 0);
        ExpectSupervised(tv.Ended(kHangGuard), 3);
        const std::string path = testing::TempDir() + "/replay_demo_" + form + ".log";
        std::ofstream(path) << tv.Log();
        return path;
    }
};

size_t Find(const std::string &text, const std::string &part, size_t from = 0)
{
    size_t at = text.find(part, from);
    EXPECT_NE(at, std::string::npos) << "no \"" << part << "\" after " << from << " in\n" << text;
    return at == std::string::npos ? text.size() : at;
}

} // namespace

TEST_F(LumoraReplay, TheDemoReplaysAsLoggedFromEachLogFormAndAnEditedLogDiffers)
{
    for (const std::string form : {"brief", "time", "threadtime"}) {
        SCOPED_TRACE(form);
        const std::string log = RunDemo(form);
        const std::vector<std::string> args = {"replay", log, "--speed", "4"};
        LumoraTvResult r = LumoraTv(args);
        EXPECT_EQ(r.status, 0) << Describe(args, r);
        // The pop-ups as the viewer saw them, in order, and the table.
        size_t at = Find(r.out, "New home appliance detected");
        at = Find(r.out, "The living room has reached 24 °C.", at);
        at = Find(r.out, "세탁이 완료되었습니다.", at);
        at = Find(r.out, "\n5               2         2\n", at);
        Find(r.out, "the host TV did what the TV logged: 5 of 5 outcomes", at);
        if (form != "brief")
            continue;

        // The TV refused the power-off: one line of the log changed.
        std::string edited = ReadFile(log);
        const std::string ok = "CLumoraTvControl success to power off the TV!";
        ASSERT_THAT(edited, ::testing::HasSubstr(ok));
        edited.replace(edited.find(ok), ok.size(), "CLumoraTvControl failed to power off the TV!");
        const std::string path = testing::TempDir() + "/replay_edited.log";
        std::ofstream(path) << edited;
        r = LumoraTv({"replay", path, "--speed", "4"});
        EXPECT_EQ(r.status, 1) << r.out << r.err;
        EXPECT_THAT(r.out, ::testing::HasSubstr(": power-off refused | TV switched off\n")) << r.out;
    }
}

TEST_F(LumoraReplay, BadInputChangesNothingOnTheHostTv)
{
    ASSERT_EQ(LumoraTv({"reset"}).status, 0);
    ASSERT_EQ(LumoraTv({"set", "db/menu_widget/language", "fr_FR.UTF-8"}).status, 0);
    const std::string dir = testing::TempDir();
    std::ofstream(dir + "/replay_prose.txt") << "the TV shows nothing\n";
    std::ofstream(dir + "/replay_one.log") << "D/LUMORA(  7): A.cpp:f(1)>x\n";
    const struct {
        std::vector<std::string> args;
        int status;
        const char *message;
    } cases[] = {
        {{"replay", dir + "/replay_missing.log"}, 1, "cannot read"},
        {{"replay", dir + "/replay_prose.txt"}, 1, "is not a platform log"},
        {{"replay", dir + "/replay_one.log"}, 1, "has nothing to replay"},
        {{"replay", dir + "/replay_one.log", "--session", "2"}, 2, "there is no session 2"},
        {{"replay", dir + "/replay_one.log", "--speed", "0"}, 2, "--speed takes a factor"},
        {{"scenario", "--out", "x"}, 2, "usage: lumora-tv scenario"},
    };
    for (const auto &c : cases) {
        LumoraTvResult r = LumoraTv(c.args);
        EXPECT_EQ(r.status, c.status) << Describe(c.args, r);
        EXPECT_THAT(r.err, ::testing::HasSubstr(c.message)) << Describe(c.args, r);
    }
    EXPECT_EQ(LumoraTv({"get", "db/menu_widget/language"}).out, "fr_FR.UTF-8\n");
}
