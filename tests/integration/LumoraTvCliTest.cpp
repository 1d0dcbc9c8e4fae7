// lumora-tv as a newcomer uses it: the shared host TV state it writes for the
// service to see, each wrong use with its message and exit status, pop-ups
// leave the screen when answered, one service per host TV, what --json prints
// parses, the service's log, and Ctrl-C on `run`.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <device/power.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <thread>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/apps.h"
#include "tvhost/network.h"
#include "tvhost/power.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;

namespace {

const char kWidget[] = "PzKmRvTqXa.Lumora";
const char kNotRunning[] = "lumora-tv: the service is not running on this host TV; start it with: lumora-tv run";

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
        EXPECT_THAT((c.bOut ? r.out : r.err), ::testing::HasSubstr(c.part)) << "missing \"" << c.part << "\"\n" << desc;
        EXPECT_TRUE(c.bOut || c.status == 0 || r.err.find('\n') == r.err.size() - 1) << "one line\n" << desc;
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

using LumoraTvCli = HostTvTest;

} // namespace

TEST_F(LumoraTvCli, ResetLeavesTheFreshHostTvAfterAnotherProcesssPowerOff)
{
    ASSERT_EQ(device_power_request_poweroff(3), 0) << "no main loop here: only the record is written";
    EXPECT_EQ(LumoraTv({"power"}).out, "off: the TV was switched off (power-off request of kind 3)\n");
    EXPECT_EQ(tvhost::power::Recorded(), std::vector<int>{3});
    EXPECT_THAT(LumoraTv({"status"}).out, ::testing::HasSubstr("power:     off"));
    ASSERT_EQ(LumoraTv({"set", "db/menu_widget/language", "ko_KR.UTF-8"}).status, 0);
    std::filesystem::create_directories(tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data");

    const LumoraTvResult r = LumoraTv({"reset"});
    ASSERT_EQ(r.status, 0) << Describe({"reset"}, r);
    std::string language;
    EXPECT_TRUE(tvhost::settings::GetString("db/menu_widget/language", language));
    EXPECT_EQ(language, "en_US.UTF-8");
    EXPECT_TRUE(tvhost::apps::IsInstalled(kWidget));
    EXPECT_FALSE(tvhost::apps::IsRunning(kWidget));
    EXPECT_EQ(tvhost::network::CurrentType(), 3);
    EXPECT_FALSE(std::filesystem::exists(tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data"));
    EXPECT_TRUE(tvhost::power::Recorded().empty());
    EXPECT_EQ(LumoraTv({"power"}).out.rfind("on:", 0), 0u);
}

// Then the state as this process reads it.
namespace {

// Commands whose answer depends on nothing done before them on the fresh
// host TV: each says what it did, or why not, with its exit status.
struct Answer {
    const char *name;
    Case c;
};

void PrintTo(const Answer &a, std::ostream *os)
{
    *os << a.name;
}

const Answer kAnswers[] = {
    {"LogsBeforeAnyRun", {{"logs"}, 1, "no log yet: it appears once `lumora-tv run` starts the service"}},
    {"UnknownLevel",
     {{"logs", "--level", "loud"}, 2, "unknown level \"loud\" for --level; accepted: V D I W E F, or verbose"}},
    {"MisspeltCommand", {{"notificatons"}, 2, "unknown command \"notificatons\"; did you mean notifications?"}},
    {"UnknownCommand", {{"xyzzy"}, 2, "unknown command \"xyzzy\"; see: lumora-tv help"}},
    {"CommandHelp", {{"press", "--help"}, 0, "usage: lumora-tv press ITEM BUTTON", true}},
    {"Version", {{"--version"}, 0, "lumora-tv ", true}},
    {"ValueNotOfTheKey",
     {{"set", "db/menu_widget/language", "ko_KR"}, 1, "\"ko_KR\" is not a value of db/menu_widget/language"}},
    {"HelpAfterAKey", {{"set", "db/menu_widget/language", "--help"}, 0, "usage: lumora-tv set", true}},
    {"ForceOffered", {{"set", "db/menu_widget/language", "x"}, 1, "lumora-tv set --force"}},
    {"StatusWithoutService", {{"status"}, 3, "service:   not running (start it with: lumora-tv run)", true}},
    {"StatusJsonWithoutService", {{"status", "--json"}, 3, "", true, "", "/service/running=false"}},
    {"HexEventNumber", {{"event", "0x5", "alarm"}, 2, "bad event number \"0x5\""}},
    {"EventFromAFolder", {{"event", "5", "/"}, 1, "/ is a directory"}},
    {"EventFromNoFile",
     {{"event", "5", "alarm.txt"}, 1, "no such file, nor a shipped sample; the samples are: registered-devices (0)"}},
    {"EventWithoutService", {{"event", "5", "alarm"}, 1, kNotRunning}},
    {"EventFromInputWithoutService", {{"event", "5", "-"}, 1, kNotRunning, false, "<x/>"}},
    {"NotificationsWithoutService", {{"notifications"}, 1, kNotRunning}},
    {"PressWithoutService", {{"press", "1", "1"}, 1, kNotRunning}},
    {"TimeoutWithoutService", {{"timeout", "1"}, 1, kNotRunning}},
};

class LumoraTvAnswer : public HostTvTestWithParam<Answer> {};

} // namespace

TEST_P(LumoraTvAnswer, SaysWhatItDidOrWhyNotWithItsStatus)
{
    std::filesystem::remove(tvhost::Root() + "/opt/var/tvhost/service.log");
    Check({GetParam().c});
}

INSTANTIATE_TEST_SUITE_P(WithoutAService, LumoraTvAnswer, ::testing::ValuesIn(kAnswers),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(LumoraTvCli, SettingsWidgetAndNetworkCommandsChangeTheHostTv)
{
    Check({
        {{"set", "--force", "db/menu_widget/language", "x"}, 0, "db/menu_widget/language = x", true},
        {{"get", "db/menu_widget/language"}, 0, "x\n", true},
        {{"get", "--json"}, 0, "", true, "", "/db~1menu_widget~1language=x"},
        {{"set", "db/menu_widget/language", "ko_KR.UTF-8"}, 0, "db/menu_widget/language = ko_KR.UTF-8\n", true},
        {{"set", "memory/was/app_change", "-5"}, 0, "memory/was/app_change = -5\n", true},
        {{"get"}, 0, "db/menu_widget/language = ko_KR.UTF-8\nmemory/was/app_change = -5\n", true},
        // As the TV does, installing and removing bump the app-change key.
        {{"widget", "uninstall"}, 0, "PzKmRvTqXa.Lumora is not installed (memory/was/app_change is now -4)\n", true},
        {{"widget", "launch"}, 1, "install it first: lumora-tv widget install"},
        {{"widget", "install"},
         0,
         "PzKmRvTqXa.Lumora is installed, not running (memory/was/app_change is now -3)\n",
         true},
        {{"widget", "install"}, 0, "PzKmRvTqXa.Lumora is installed, not running (nothing changed)\n", true},
        {{"widget", "launch"}, 0, "PzKmRvTqXa.Lumora is installed, running\n", true},
        {{"network", "none"}, 0, "network: none\n", true},
        {{"network", "wifi"}, 0, "network: wifi\n", true},
    });
    std::string language;
    EXPECT_TRUE(tvhost::settings::GetString("db/menu_widget/language", language));
    EXPECT_EQ(language, "ko_KR.UTF-8");
    int nAppChange = 0;
    EXPECT_TRUE(tvhost::settings::GetInt("memory/was/app_change", nAppChange));
    EXPECT_EQ(nAppChange, -3);
    EXPECT_TRUE(tvhost::apps::IsRunning(kWidget));
    EXPECT_EQ(tvhost::network::CurrentType(), 1);
    EXPECT_EQ(LumoraTv({"widget", "close"}).status, 0);
    EXPECT_FALSE(tvhost::apps::IsRunning(kWidget));
    const LumoraTvResult r = LumoraTv({"network", "auto"}); // before the type is read
    EXPECT_EQ(r.out, std::string("network: ") + tvhost::network::TypeName(tvhost::network::CurrentType()) +
                         " (following this machine's default route)\n");
}

TEST_F(LumoraTvCli, OneServiceItsPopupsLeaveTheScreenWhenAnsweredAndItsStateAsJson)
{
    Supervisor tv;
    tv.Start({});
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", kHangGuard)) << tv.Log();
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
    ExpectSupervised(tv.Ended(kHangGuard));
}

TEST_F(LumoraTvCli, LogsShowWhatTheServiceWroteAndCtrlCOnRunStopsIt)
{
    Supervisor tv;
    tv.Start({});
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", kHangGuard)) << tv.Log();
    ASSERT_NE(tv.Pid(), tv.RunPid()) << "run waits for the service as its child";

    // A D record of the service's start, with its time, in every filter that keeps D.
    const std::regex enter(R"((^|\n)\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} D LUMORA: main\.cpp:main\(\d+\)>#{12} Enter )"
                           R"(LumoraApp Main #{12}\n)");
    for (const std::vector<std::string> &args :
         std::vector<std::vector<std::string>>{{"logs"}, {"logs", "--level=debug"}, {"logs", "--level", "E"}}) {
        const LumoraTvResult r = LumoraTv(args);
        EXPECT_EQ(r.status, 0) << Describe(args, r);
        EXPECT_EQ(std::regex_search(r.out, enter), args.size() < 3) << Describe(args, r);
    }
    const std::string last = LumoraTv({"logs", "-n", "2"}).out;
    const std::regex record(R"((^|\n)[^ \n])"); // further lines of a record are indented
    EXPECT_EQ(std::distance(std::sregex_iterator(last.begin(), last.end(), record), std::sregex_iterator()), 2) << last;

    // Ctrl-C in a terminal signals the whole foreground group.
    ASSERT_EQ(kill(-tv.RunPid(), SIGINT), 0);
    const int status = tv.Wait(kHangGuard);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << status << "\n" << tv.Log();
    EXPECT_EQ(tv.CountInLog("stopping: the watchdog timer may take up to 6 s\n"), 1) << tv.Log();
    EXPECT_EQ(tv.CountInLog("############ Out LumoraApp Main, ret is 0 ############"), 1);
    EXPECT_NE(kill(tv.Pid(), 0), 0) << "the service is gone";
}

namespace {

// A process whose pid is gone, or only a zombie its parent has not reaped.
bool Gone(pid_t pid)
{
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t at = stat.rfind(')');
    return stat.empty() || (at + 2 < stat.size() && stat[at + 2] == 'Z');
}

} // namespace

TEST_F(LumoraTvCli, FailedStartLeavesNoLockAndTheNextStartWorks)
{
    const LumoraTvResult failed = LumoraTv({"run"}, "", {"LUMORA_EXEC_WRAPPER=/nonexistent/wrapper"});
    EXPECT_EQ(failed.status, 1) << Describe({"run"}, failed);
    EXPECT_THAT(failed.err, testing::HasSubstr("lumora-tv: cannot start /nonexistent/wrapper: No such file"));
    const LumoraTvResult status = LumoraTv({"status"});
    EXPECT_EQ(status.status, 3) << Describe({"status"}, status);
    EXPECT_THAT(status.out, testing::HasSubstr("service:   not running"));

    Supervisor tv;
    tv.Start({});
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", kHangGuard)) << tv.Log();
    ExpectSupervised(tv.Terminate(kHangGuard));
}

TEST_F(LumoraTvCli, StopNeverLeavesTheServiceRunningAfterSayingItEnded)
{
    // Stop asked at once, while run is still starting the service.
    for (int cycle = 0; cycle < 4; ++cycle) {
        SCOPED_TRACE(cycle);
        Supervisor tv;
        tv.Spawn({LumoraTvBinary(), "run"});
        LumoraTvResult stop;
        for (int i = 0; i < 3000 && tv.Running(); ++i) {
            stop = LumoraTv({"stop"});
            if (stop.status == 0)
                break;
            EXPECT_THAT(stop.err,
                        testing::AnyOf(testing::HasSubstr("is not running"), testing::HasSubstr("is being started")))
                << Describe({"stop"}, stop);
        }
        ASSERT_EQ(stop.status, 0) << Describe({"stop"}, stop) << tv.Log();
        const std::smatch ended = [&] {
            std::smatch m;
            std::regex_search(stop.out, m, std::regex(R"(the service \(pid (\d+)\) ended\n)"));
            return m;
        }();
        ASSERT_FALSE(ended.empty()) << stop.out;
        EXPECT_TRUE(Gone(std::stoi(ended[1]))) << "stop said it ended, yet it runs";
        // A SIGTERM before the service's main loop runs ends it at once.
        const int status = tv.Wait(kHangGuard);
        EXPECT_TRUE(status == 0 || (WIFEXITED(status) && WEXITSTATUS(status) == 128 + SIGTERM)) << status << "\n"
                                                                                                << tv.Log();
    }
}

namespace {
using LumoraTvReplayStop = HostTvTestWithParam<int>;
} // namespace

TEST_P(LumoraTvReplayStop, StopSignalToReplayEndsItsService)
{
    Supervisor replay;
    replay.Spawn({LumoraTvBinary(), "replay", LUMORA_SOURCE_DIR "/tools/tvlog/samples/demo-threadtime.log"});
    ASSERT_TRUE(replay.WaitForLog("replaying ", kHangGuard)) << replay.Log();
    LumoraTvResult status;
    for (int i = 0; i < 3000 && (status = LumoraTv({"status"})).status != 0; ++i)
        std::this_thread::sleep_for(100ms);
    ASSERT_EQ(status.status, 0) << Describe({"status"}, status) << replay.Log();
    ASSERT_EQ(kill(replay.RunPid(), GetParam()), 0);
    const int ended = replay.Wait(kHangGuard);
    EXPECT_TRUE(WIFEXITED(ended) && WEXITSTATUS(ended) == 128 + GetParam()) << ended << "\n" << replay.Log();
    EXPECT_EQ(LumoraTv({"status"}).status, 3) << "a service is left behind";
}

INSTANTIATE_TEST_SUITE_P(Signals, LumoraTvReplayStop, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

namespace {

// A folder of the TV root's state replaced by a file while it lives, so that
// writing there fails (as it does for a root of another user, which the
// suites, run as root in CI, cannot make).
class Unwritable {
public:
    explicit Unwritable(const std::string &folder) : m_path(tvhost::Root() + "/opt/var/tvhost/" + folder)
    {
        std::filesystem::rename(m_path, m_path + ".aside");
        std::ofstream(m_path) << "not a folder\n";
    }
    ~Unwritable()
    {
        std::filesystem::remove(m_path);
        std::filesystem::rename(m_path + ".aside", m_path);
    }

private:
    std::string m_path;
};

} // namespace

TEST_F(LumoraTvCli, ChangesThatCannotBeWrittenFailWithTheReason)
{
    const struct {
        const char *folder;
        std::vector<std::string> args;
        std::string error;
    } cases[] = {
        {"vconf",
         {"set", "db/menu_widget/language", "ko_KR.UTF-8"},
         "cannot write the settings key db/menu_widget/language"},
        {"network", {"network", "wifi"}, "cannot write the network type"},
        {"apps/installed", {"widget", "install"}, "cannot write the widget's state"},
        {"apps/running", {"widget", "launch"}, "cannot write the widget's state"},
    };
    for (const auto &c : cases) {
        Unwritable blocked(c.folder);
        const LumoraTvResult r = LumoraTv(c.args);
        EXPECT_EQ(r.status, 1) << Describe(c.args, r);
        EXPECT_THAT(r.err, testing::HasSubstr(c.error + " in the TV root " + tvhost::Root() + ": Not a directory"))
            << Describe(c.args, r);
    }
}
