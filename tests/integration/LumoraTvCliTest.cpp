// lumora-tv as a newcomer uses it: each wrong use gets its message and exit
// status, pop-ups leave the screen when answered, one service per host TV,
// what --json prints parses, the service's log, and Ctrl-C on `run`.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/notifications.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;

namespace {

struct Case {
    std::vector<std::string> args;
    int status;
    std::string part;       // in the output (stdout, else stderr) ...
    bool bOut = false;      // ... of stdout
    std::string input = ""; // standard input
    std::string json = "";  // "JSON-pointer=value" that the JSON output must hold
};

void Check(const std::vector<Case> &cases)
{
    for (const Case &c : cases) {
        const LumoraTvResult r = LumoraTv(c.args, c.input);
        const std::string desc = Describe(c.args, r);
        EXPECT_EQ(r.status, c.status) << desc;
        EXPECT_NE((c.bOut ? r.out : r.err).find(c.part), std::string::npos) << "missing \"" << c.part << "\"\n" << desc;
        if (!c.bOut && c.status != 0) {
            EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line\n" << desc;
        }
        if (!c.json.empty()) {
            const nlohmann::json out = nlohmann::json::parse(r.out, nullptr, false);
            ASSERT_FALSE(out.is_discarded()) << "not JSON\n" << desc;
            const nlohmann::json::json_pointer at(c.json.substr(0, c.json.find('=')));
            const std::string want = c.json.substr(c.json.find('=') + 1);
            ASSERT_TRUE(out.contains(at)) << c.json << "\n" << desc;
            EXPECT_EQ(out[at].is_string() ? out[at].get<std::string>() : out[at].dump(), want) << desc;
        }
    }
}

class LumoraTvCli : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(LumoraTv({"reset"}).status, 0) << "a service runs on this host TV"; }
    void TearDown() override { LeaveHostTvFresh(); }
};

} // namespace

TEST_F(LumoraTvCli, WrongUsesAndAnswersWithoutAService)
{
    std::filesystem::remove(tvhost::Root() + "/opt/var/tvhost/service.log");
    Check({
        {{"logs"}, 1, "no log yet: it appears once `lumora-tv run` starts the service"},
        {{"logs", "--level", "loud"}, 2, "unknown level \"loud\" for --level; accepted: V D I W E F, or verbose"},
        {{"notificatons"}, 2, "unknown command \"notificatons\"; did you mean notifications?"},
        {{"xyzzy"}, 2, "unknown command \"xyzzy\"; see: lumora-tv help"},
        {{"press", "--help"}, 0, "usage: lumora-tv press ITEM BUTTON", true},
        {{"--version"}, 0, "lumora-tv ", true},
        {{"set", "db/menu_widget/language", "ko_KR"}, 1, "\"ko_KR\" is not a value of db/menu_widget/language"},
        {{"set", "db/menu_widget/language", "--help"}, 0, "usage: lumora-tv set", true},
        {{"set", "db/menu_widget/language", "x"}, 1, "lumora-tv set --force"},
        {{"set", "--force", "db/menu_widget/language", "x"}, 0, "db/menu_widget/language = x", true},
        {{"get", "db/menu_widget/language"}, 0, "x\n", true},
        {{"get", "--json"}, 0, "", true, "", "/db~1menu_widget~1language=x"},
        {{"status"}, 3, "service:   not running", true},
        {{"status", "--json"}, 3, "", true, "", "/service/running=false"},
        {{"event", "0x5", "alarm"}, 2, "bad event number \"0x5\""},
        {{"event", "5", "/"}, 1, "/ is a directory"},
        {{"event", "5", "alarm.txt"}, 1, "no such file, nor a shipped sample; the samples are: registered-devices (0)"},
        {{"event", "5", "alarm"}, 1, "the service is not running on this host TV"},
    });
}

TEST_F(LumoraTvCli, OneServiceItsPopupsLeaveTheScreenWhenAnsweredAndItsStateAsJson)
{
    Supervisor tv;
    tv.Start({});
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", 20s)) << tv.Log();
    EXPECT_EQ(tv.CountInLog("lumora-tv: the engine plays scenario \"quiet\" (the default"), 1) << tv.Log();
    const std::string pid = std::to_string(tv.Pid());
    Check({
        {{"run", "--scenario", "demo"}, 1, "the service already runs on this host TV (pid " + pid + ")"},
        {{"reset"}, 1, "the service runs (pid " + pid + ")"},
        {{"status", "--json"}, 0, "", true, "", "/service/pid=" + pid},
        {{"event", "1", "new-devices"}, 0, "pop-up #1 shown: New home appliance detected [ Yes ] [ No ]", true},
        {{"event", "5", "alarm"}, 0, "pop-up #2 shown: Living room [ Close ] [ Go to Lumora ]", true},
        {{"event", "5", "-"}, 0, "no pop-up shown", true, "<DeviceNotification/>"},
        {{"event", "5", "-"},
         0,
         "warning: the standard input holds a NUL byte (at byte 4)",
         false,
         std::string("<a/>\0", 5)},
        {{"notifications", "--json"}, 0, "", true, "", "/1/buttons/1=Go to Lumora"},
        {{"press", "1", "0"}, 0, "pressed [ Yes ] (button 0) of pop-up #1", true},
        {{"press", "1", "1"}, 1, "no pop-up #1 on screen (1 on screen: #2)"},
        {{"timeout", "2"}, 0, "pop-up #2 timed out", true},
        {{"timeout", "2"}, 1, "no pop-up #2 on screen (nothing is on screen)"},
        {{"power", "--json"}, 0, "", true, "", "/off=false"},
        {{"event", "12291", "power-off"}, 0, "the TV was switched off (power-off request of kind 3)", true},
        {{"power"}, 3, "off: the TV was switched off", true},
    });
    ExpectSupervised(tv.Ended(30s));
}

TEST_F(LumoraTvCli, LogsShowWhatTheServiceWroteAndCtrlCOnRunStopsIt)
{
    Supervisor tv;
    tv.Start({});
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", 20s)) << tv.Log();
    ASSERT_NE(tv.Pid(), tv.RunPid()) << "run waits for the service as its child";

    // A D record of the service's start, with its time, in every filter that keeps D.
    const std::string enter = " D LUMORA: main.cpp:main(107)>############ Enter LumoraApp Main ############";
    for (const std::vector<std::string> &args :
         std::vector<std::vector<std::string>>{{"logs"}, {"logs", "--level=debug"}, {"logs", "--level", "E"}}) {
        const LumoraTvResult r = LumoraTv(args);
        SCOPED_TRACE(Describe(args, r));
        EXPECT_EQ(r.status, 0);
        std::istringstream lines(r.out);
        bool bFound = false;
        for (std::string line; std::getline(lines, line);)
            bFound = bFound || (line.size() == 18 + enter.size() && line.compare(18, enter.size(), enter) == 0 &&
                                line[2] == '-' && line[5] == ' ' && line[14] == '.');
        EXPECT_EQ(bFound, args.size() < 3) << "MM-DD hh:mm:ss.mmm" << enter;
    }
    const LumoraTvResult last = LumoraTv({"logs", "-n", "2"});
    std::istringstream lines(last.out);
    int nRecords = 0;
    for (std::string line; std::getline(lines, line);)
        nRecords += !line.empty() && line[0] != ' '; // further lines of a record are indented
    EXPECT_EQ(nRecords, 2) << last.out;

    // Ctrl-C in a terminal signals the whole foreground group.
    ASSERT_EQ(kill(-tv.RunPid(), SIGINT), 0);
    const int status = tv.Wait(30s);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << status << "\n" << tv.Log();
    EXPECT_EQ(tv.CountInLog("stopping: the watchdog timer may take up to 6 s\n"), 1) << tv.Log();
    EXPECT_EQ(tv.CountInLog("############ Out LumoraApp Main, ret is 0 ############"), 1);
    EXPECT_NE(kill(tv.Pid(), 0), 0) << "the service is gone";
}
