// Files from outside through lumora-tv, each run under an address-space
// limit: refused with a message that says why, within a guard against a
// hang; a device's name with terminal controls printed escaped by every
// command that shows it. And the shipped files: every XML file is
// well-formed, every sample log replays as logged.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <libxml/parser.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include "LumoraTv.h"
#include "Supervisor.h"

namespace fs = std::filesystem;

namespace {

// A tenth of what the unbounded reads reached (2.7 GB for an entity
// declaration, 7.9 GB for event's /dev/zero). A sanitizer reserves
// terabytes of address space for its shadow: there the refusal is
// checked without the limit, which the plain build checks.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr const char *kLimit = "";
#else
constexpr const char *kLimit = "prlimit --as=536870912 ";
#endif

// How lumora-tv is started: under the limit, or through LUMORA_EXEC_WRAPPER
// when it is set (the ARM run's emulator). qemu-user reserves the whole 32-bit
// address space of its program for itself and does not pass a program's
// address-space limit on, so there, as under a sanitizer, the refusal is
// checked without the limit.
std::string Limit()
{
    const char *pWrapper = std::getenv("LUMORA_EXEC_WRAPPER");
    if (pWrapper && *pWrapper)
        return std::string(pWrapper) + " ";
    return kLimit;
}

// This process's own folder for the files it makes (large ones among them).
std::string Dir()
{
    static const std::string dir = [] {
        const fs::path d = fs::temp_directory_path() / ("lumora-hostile-files-" + std::to_string(getpid()));
        fs::create_directories(d);
        return d.string() + "/";
    }();
    return dir;
}

struct LimitedRun {
    int status = -1;
    std::string out;
};

// lumora-tv under the limit, standard input from input (a path), a guard of 600 s.
LimitedRun LumoraTvLimited(const std::string &args, const std::string &input = "/dev/null")
{
    const std::string out = Dir() + "lumora-tv-hostile.out";
    const std::string command =
        "timeout 600 " + Limit() + LumoraTvBinary() + " " + args + " < " + input + " > " + out + " 2>&1";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out)};
}

std::string Write(const std::string &name, const std::string &text)
{
    const std::string path = Dir() + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

std::string Replay(const std::string &prolog, const std::string &rawAttributes)
{
    return prolog + "<Mode name=\"replay\"><Scenario><At ms=\"0\"><Raw" + rawAttributes +
           ">&lt;x/&gt;</Raw></At></Scenario><Tv timed=\"no\" pid=\"1\"><Start/></Tv></Mode>";
}

struct HostileFile {
    const char *name;
    std::function<std::string()> args; // makes its files, gives the arguments
    std::string input;                 // standard input's path
    int status;
    const char *says;
};

void PrintTo(const HostileFile &f, std::ostream *os)
{
    *os << f.name;
}

std::string Laughs()
{
    std::string dtd = "<!DOCTYPE Mode [<!ENTITY a0 \"lol\">";
    for (int i = 1; i < 10; ++i)
        dtd += "<!ENTITY a" + std::to_string(i) + " \"" + std::string(10, '&') + "\">";
    for (int i = 1; i < 10; ++i) {
        std::string refs;
        for (int k = 0; k < 10; ++k)
            refs += "&a" + std::to_string(i - 1) + ";";
        dtd.replace(dtd.find(std::string(10, '&')), 10, refs);
    }
    return dtd + "]>";
}

std::string EmptyLinesGz()
{
    const std::string path = Dir() + "empty-lines.log.gz";
    gzFile f = gzopen(path.c_str(), "wb9");
    const std::string lines(1 << 20, '\n');
    for (int i = 0; i < 512; ++i)
        gzwrite(f, lines.data(), static_cast<unsigned>(lines.size()));
    gzclose(f);
    return path;
}

// The sample log with the date of every line from its power-off on made
// `date` (an empty date: only the power-off's line, with an impossible time).
std::string SampleWithClock(const std::string &name, const std::string &date)
{
    std::string log = ReadFile(LUMORA_SOURCE_DIR "/tools/tvlog/samples/demo-threadtime.log");
    const size_t from = log.rfind('\n', log.find("event type is 12291")) + 1;
    if (date.empty())
        log.replace(from, 18, "13-45 25:61:00.000");
    for (size_t at = from; !date.empty() && at < log.size(); at = log.find('\n', at) + 1) {
        log.replace(at, 5, date);
        if (log.find('\n', at) == std::string::npos)
            break;
    }
    return "scenario --out /dev/null --from-log " + Write(name, log);
}

const HostileFile kFiles[] = {
    {"LogWithAnImpossibleTime", [] { return SampleWithClock("impossible.log", ""); }, "/dev/null", 0,
     "a time no clock shows; kept"},
    {"LogWithAGapOf20Days", [] { return SampleWithClock("gap.log", "12-15"); }, "/dev/null", 0,
     "jumps 20 d ahead; the replay waits 60 s there instead"},
    {"LogWithTheClockSetBack", [] { return SampleWithClock("back.log", "11-24"); }, "/dev/null", 0,
     "the log's clock goes back"},
    {"ReplayFileWithNestedEntities",
     [] { return "scenario --from-log " + Write("laughs.xml", Replay(Laughs(), " event=\"5\"><y>&a9;</y")); },
     "/dev/null", 1, "a document type or entity declaration"},
    {"ReplayFileWithCrowdedTag",
     [] {
         std::string attributes;
         for (int i = 0; i < 200000; ++i)
             attributes += " a" + std::to_string(i) + "=\"\"";
         return "scenario --from-log " + Write("crowded.xml", Replay("", " event=\"5\"" + attributes));
     },
     "/dev/null", 1, "more than 256 attributes"},
    {"ReplayFileWithDamagedNumber",
     [] { return "scenario --from-log " + Write("damaged.xml", Replay("", " event=\"5x\"")); }, "/dev/null", 1,
     "line 1: event=\"5x\" is not a whole number"},
    {"CompressedEmptyLines", [] { return "scenario --from-log " + EmptyLinesGz(); }, "/dev/null", 1,
     "no line of the service (tag LUMORA) in its first 64 MiB"},
    {"EventFromADevice", [] { return std::string("event 5 /dev/zero"); }, "/dev/null", 1,
     "/dev/zero is not a file nor a pipe"},
    {"EventOf65MiBOnStandardInput", [] { return std::string("event 5 -"); }, "", 1, "holds more than 64 MiB"},
    {"LogOnStandardInput", [] { return std::string("scenario --from-log - --out /dev/null"); },
     LUMORA_SOURCE_DIR "/tools/tvlog/samples/demo-threadtime.log", 0, "reading the standard input"},
};

class LumoraHostileFiles : public ::testing::TestWithParam<HostileFile> {
protected:
    static void TearDownTestSuite() { fs::remove_all(Dir()); }
};

} // namespace

TEST_P(LumoraHostileFiles, RefusedWithWhyUnderAnAddressSpaceLimit)
{
    const HostileFile &f = GetParam();
    std::string input = f.input;
    if (input.empty()) {
        input = Dir() + "65MiB.txt";
        std::ofstream(input, std::ios::binary) << std::string(65 << 20, 'a');
    }
    const auto started = std::chrono::steady_clock::now();
    const LimitedRun r = LumoraTvLimited(f.args(), input);
    EXPECT_EQ(r.status, f.status) << r.out;
    EXPECT_THAT(r.out, ::testing::HasSubstr(f.says)) << r.out;
    // A log's changed clock drops no record: the sample's five outcomes, its power-off among them.
    if (f.status == 0) {
        EXPECT_THAT(r.out, ::testing::HasSubstr(" 5 outcomes")) << r.out;
    }
    std::printf(
        "%s: %lld ms\n", f.name,
        static_cast<long long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count()));
}

INSTANTIATE_TEST_SUITE_P(Files, LumoraHostileFiles, ::testing::ValuesIn(kFiles),
                         [](const auto &info) { return std::string(info.param.name); });

using LumoraHostileOutput = HostTvTest;

TEST_F(LumoraHostileOutput, ADevicesControlsReachNoTerminalThroughACommand)
{
    Supervisor tv;
    tv.Start({"--scenario", "quiet"});
    ASSERT_TRUE(tv.WaitForLog("LumoraManager::Construct SetSystemLanguage strReturn = OK", kHangGuard)) << tv.Log();
    // A CSI (U+009B; XML takes no ESC) and a right-to-left override in the name.
    const std::string name = "Living\xc2\x9b"
                             "2J\xe2\x80\xae"
                             "room";
    const std::string text = "<DeviceNotification id=\"n\" type=\"Alarm\"><Device id=\"ac-living\" "
                             "type=\"Air Conditioner\">" +
                             name +
                             "</Device><Notification>t</Notification><Action type=\"Widget\">Open</Action>"
                             "<DisplayOption flag=\"On\" condition=\"Always\"/></DeviceNotification>";
    const LumoraTvResult event = LumoraTv({"event", "5", "-"}, text);
    const LumoraTvResult brief = LumoraTv({"notifications", "--brief"});
    const LumoraTvResult press = LumoraTv({"press", "1", "0"});
    for (const LumoraTvResult *r : {&event, &brief, &press}) {
        EXPECT_EQ(r->status, 0) << r->out << r->err;
        for (const char *raw : {"\xc2\x9b", "\xe2\x80\xae"})
            EXPECT_THAT(r->out, ::testing::Not(::testing::HasSubstr(raw))) << r->out;
    }
    EXPECT_THAT(event.out, ::testing::HasSubstr("Living\\u009b2J\\u202eroom")) << event.out;
    tv.Terminate();
}

TEST(LumoraShippedFiles, EveryXmlFileIsWellFormed)
{
    size_t n = 0;
    for (const char *dir : {"tvroot", "tools"})
        for (const auto &entry : fs::recursive_directory_iterator(fs::path(LUMORA_SOURCE_DIR) / dir)) {
            if (entry.path().extension() != ".xml")
                continue;
            ++n;
            xmlDocPtr doc = xmlReadFile(entry.path().c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR);
            EXPECT_NE(doc, nullptr) << entry.path();
            xmlFreeDoc(doc);
        }
    EXPECT_GE(n, 9u);
}

using LumoraShippedLogs = HostTvTest;

TEST_F(LumoraShippedLogs, EverySampleLogReplaysAsLogged)
{
    size_t n = 0;
    for (const auto &entry : fs::directory_iterator(fs::path(LUMORA_SOURCE_DIR) / "tools/tvlog/samples")) {
        ++n;
        const std::vector<std::string> args{"replay", entry.path().string(), "--speed", "4"};
        const LumoraTvResult r = LumoraTv(args);
        EXPECT_EQ(r.status, 0) << Describe(args, r);
    }
    EXPECT_GE(n, 1u);
}
