// lumora-tv as a newcomer uses it: each wrong use gets its message and exit
// status, pop-ups leave the screen when answered, one service per host TV,
// what --json prints parses, the service's log, and Ctrl-C on `run`.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <filesystem>
#include <map>
#include <optional>
#include <sstream>
#include <sys/wait.h>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/notifications.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;

namespace {

// A small JSON reader: every scalar as "path=value" ("a.b=1", "[0].item=2",
// strings unquoted), or nothing when the text is not one JSON value.
class Json {
public:
    static std::optional<std::map<std::string, std::string>> Flatten(const std::string &text)
    {
        Json j{text};
        if (!j.Value("") || (j.Blanks(), j.m_at != text.size()))
            return std::nullopt;
        return j.m_out;
    }

private:
    explicit Json(const std::string &text) : m_text(text) {}
    void Blanks()
    {
        while (m_at < m_text.size() && std::isspace(static_cast<unsigned char>(m_text[m_at])))
            ++m_at;
    }
    bool Take(char c) { return Blanks(), m_at < m_text.size() && m_text[m_at] == c ? (++m_at, true) : false; }
    bool String(std::string &out)
    {
        if (!Take('"'))
            return false;
        for (out.clear(); m_at < m_text.size() && m_text[m_at] != '"'; ++m_at) {
            const unsigned char c = static_cast<unsigned char>(m_text[m_at]);
            if (c < 0x20)
                return false;
            if (c == '\\' && ++m_at < m_text.size() && m_text[m_at] == 'u')
                m_at += 4, out += '?';
            else
                out += m_text[m_at];
        }
        return m_at < m_text.size() && m_text[m_at++] == '"';
    }
    bool Value(const std::string &path)
    {
        std::string s;
        if (Take('{')) {
            if (Take('}'))
                return true;
            do {
                if (!String(s) || !Take(':') || !Value(path.empty() ? s : path + "." + s))
                    return false;
            } while (Take(','));
            return Take('}');
        }
        if (Take('[')) {
            if (Take(']'))
                return true;
            int i = 0;
            do {
                if (!Value(path + "[" + std::to_string(i++) + "]"))
                    return false;
            } while (Take(','));
            return Take(']');
        }
        Blanks();
        if (m_at < m_text.size() && m_text[m_at] == '"')
            return String(s) && (m_out[path] = s, true);
        const size_t start = m_at;
        while (m_at < m_text.size() &&
               (std::isalnum(static_cast<unsigned char>(m_text[m_at])) || m_text[m_at] == '-' || m_text[m_at] == '.'))
            ++m_at;
        s = m_text.substr(start, m_at - start);
        const bool bNumber = !s.empty() && s.find_first_not_of("-0123456789.eE") == std::string::npos;
        return (bNumber || s == "true" || s == "false" || s == "null") && (m_out[path] = s, true);
    }

    const std::string &m_text;
    size_t m_at = 0;
    std::map<std::string, std::string> m_out;
};

struct Case {
    std::vector<std::string> args;
    int status;
    std::string part;       // in the output (stdout, else stderr) ...
    bool bOut = false;      // ... of stdout
    std::string input = ""; // standard input
    std::string json = "";  // "path=value" that the JSON output must hold
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
            const auto flat = Json::Flatten(r.out);
            ASSERT_TRUE(flat) << "not JSON\n" << desc;
            const std::string &pair = c.json;
            const auto it = flat->find(pair.substr(0, pair.find('=')));
            EXPECT_TRUE(it != flat->end() && it->first + "=" + it->second == pair) << pair << "\n" << desc;
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
        {{"get", "--json"}, 0, "", true, "", "db/menu_widget/language=x"},
        {{"status"}, 3, "service:   not running", true},
        {{"status", "--json"}, 3, "", true, "", "service.running=false"},
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
        {{"status", "--json"}, 0, "", true, "", "service.pid=" + pid},
        {{"event", "1", "new-devices"}, 0, "pop-up #1 shown: New home appliance detected [ Yes ] [ No ]", true},
        {{"event", "5", "alarm"}, 0, "pop-up #2 shown: Living room [ Close ] [ Go to Lumora ]", true},
        {{"event", "5", "-"}, 0, "no pop-up shown", true, "<DeviceNotification/>"},
        {{"event", "5", "-"},
         0,
         "warning: the standard input holds a NUL byte (at byte 4)",
         false,
         std::string("<a/>\0", 5)},
        {{"notifications", "--json"}, 0, "", true, "", "[1].buttons[1]=Go to Lumora"},
        {{"press", "1", "0"}, 0, "pressed [ Yes ] (button 0) of pop-up #1", true},
        {{"press", "1", "1"}, 1, "no pop-up #1 on screen (1 on screen: #2)"},
        {{"timeout", "2"}, 0, "pop-up #2 timed out", true},
        {{"timeout", "2"}, 1, "no pop-up #2 on screen (nothing is on screen)"},
        {{"power", "--json"}, 0, "", true, "", "off=false"},
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
