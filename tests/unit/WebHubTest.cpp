// The web view's parts that need no socket: which Host and Origin names reach
// the server, and what each page's stream is sent as the host TV changes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "web/address.h"
#include "web/hub.h"

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

struct HostCase {
    const char *listen;
    const char *hostPort;
    bool bAllowed;
};

class WebHostAllowed : public ::testing::TestWithParam<HostCase> {};

// The stream's log messages as JSON: "event: log\ndata: {...}\n\n".
nlohmann::json LogData(const std::string &message)
{
    const size_t at = message.find("event: log\ndata: ");
    if (at == std::string::npos)
        return nullptr;
    const size_t begin = at + 17;
    return nlohmann::json::parse(message.substr(begin, message.find("\n\n", begin) - begin));
}

std::vector<hosttv::LogLine> Lines(int first, int count)
{
    std::vector<hosttv::LogLine> lines;
    for (int i = first; i < first + count; ++i)
        lines.push_back({"11-25 10:00:00.000", 'D', 1, 1, "LUMORA", "line " + std::to_string(i)});
    return lines;
}

constexpr std::chrono::milliseconds kNow{0};

} // namespace

TEST_P(WebHostAllowed, OnlyNamesOfTheListeningAddressReachTheServer)
{
    const HostCase &c = GetParam();
    EXPECT_EQ(hostweb::HostAllowed(c.listen, 8080, c.hostPort, "tv-desk"), c.bAllowed)
        << "listening on " << c.listen << ", Host " << c.hostPort;
}

INSTANTIATE_TEST_SUITE_P(
    Names, WebHostAllowed,
    ::testing::Values(HostCase{"127.0.0.1", "127.0.0.1:8080", true}, HostCase{"127.0.0.1", "localhost:8080", true},
                      HostCase{"127.0.0.1", "127.0.0.1:8081", false}, HostCase{"127.0.0.1", "127.0.0.1", false},
                      HostCase{"127.0.0.1", "attacker.example:8080", false}, HostCase{"127.0.0.1", "", false},
                      HostCase{"127.0.0.1", "tv-desk:8080", false}, HostCase{"::1", "[::1]:8080", true},
                      HostCase{"::1", "::1:8080", false}, HostCase{"::1", "localhost:8080", true},
                      HostCase{"192.168.1.5", "192.168.1.5:8080", true},
                      HostCase{"192.168.1.5", "localhost:8080", false}, HostCase{"0.0.0.0", "192.168.1.5:8080", true},
                      HostCase{"0.0.0.0", "[fe80::1]:8080", true}, HostCase{"0.0.0.0", "tv-desk:8080", true},
                      HostCase{"0.0.0.0", "localhost:8080", true}, HostCase{"0.0.0.0", "other-host:8080", false},
                      HostCase{"0.0.0.0", "192.168.1.5:9090", false}, HostCase{"0.0.0.0", ":8080", false},
                      HostCase{"::", "[::1]:8080", true}, HostCase{"::", "attacker.example:8080", false}));

TEST(WebHub, APageIsSentOnlyWhatChangedSinceItsLastMessage)
{
    hostweb::Hub hub;
    hub.SetTv({{"power", "on"}}, {});
    hub.AddLog(Lines(1, 3), false);

    hostweb::Hub::Cursor page;
    const std::string first = *hub.Next(page, kNow);
    EXPECT_THAT(first, StartsWith("event: state\ndata: {\"status\":{\"power\":\"on\"},\"popups\":[],\"activity\":[]}\n\n"));
    nlohmann::json log = LogData(first);
    EXPECT_EQ(log["restarted"], true);
    ASSERT_EQ(log["lines"].size(), 3u);
    EXPECT_EQ(log["lines"][2]["text"], "line 3");

    EXPECT_EQ(*hub.Next(page, kNow), ": still here\n\n") << "nothing changed";
    hub.SetTv({{"power", "on"}}, {});
    EXPECT_EQ(*hub.Next(page, kNow), ": still here\n\n") << "the same TV again is no change";

    hub.AddLog(Lines(4, 2), false);
    const std::string next = *hub.Next(page, kNow);
    EXPECT_THAT(next, Not(HasSubstr("event: state")));
    log = LogData(next);
    EXPECT_EQ(log["restarted"], false);
    ASSERT_EQ(log["lines"].size(), 2u);
    EXPECT_EQ(log["lines"][0]["text"], "line 4");
}

TEST(WebHub, ANewRunOfTheLogStartsEveryPageOver)
{
    hostweb::Hub hub;
    hub.AddLog(Lines(1, 5), false);
    hostweb::Hub::Cursor page;
    hub.Next(page, kNow);

    hub.AddLog(Lines(100, 1), true);
    const nlohmann::json log = LogData(*hub.Next(page, kNow));
    EXPECT_EQ(log["restarted"], true);
    ASSERT_EQ(log["lines"].size(), 1u);
    EXPECT_EQ(log["lines"][0]["text"], "line 100");
}

TEST(WebHub, ALongLogReachesAPageInBoundedMessagesWithNothingLost)
{
    hostweb::Hub hub;
    const int total = static_cast<int>(hostweb::Hub::kMaxLogPerMessage) + 20;
    hub.AddLog(Lines(1, total), false);
    hostweb::Hub::Cursor page;
    std::vector<std::string> seen;
    for (int i = 0; i < 3; ++i) {
        const std::string message = *hub.Next(page, kNow);
        if (message == ": still here\n\n")
            break;
        const nlohmann::json log = LogData(message);
        ASSERT_LE(log["lines"].size(), hostweb::Hub::kMaxLogPerMessage);
        for (const auto &line : log["lines"])
            seen.push_back(line["text"]);
    }
    ASSERT_EQ(seen.size(), static_cast<size_t>(total));
    EXPECT_EQ(seen.front(), "line 1");
    EXPECT_EQ(seen.back(), "line " + std::to_string(total));
}

TEST(WebHub, ALogTextReachesThePageEscaped)
{
    hostweb::Hub hub;
    std::vector<hosttv::LogLine> lines = Lines(1, 1);
    lines[0].text = "bell\x07 and \xe2\x80\xae turned";
    hub.AddLog(lines, false);
    hostweb::Hub::Cursor page;
    const std::string text = LogData(*hub.Next(page, kNow))["lines"][0]["text"];
    EXPECT_EQ(text, hosttv::ForTerminal(lines[0].text));
    EXPECT_THAT(text, Not(HasSubstr("\x07")));
    EXPECT_THAT(text, Not(HasSubstr("\xe2\x80\xae")));
}

TEST(WebHub, ALongLogTextIsCutBeforeACharacterThatDoesNotFit)
{
    hostweb::Hub hub;
    std::vector<hosttv::LogLine> lines = Lines(1, 1);
    // A three-byte character across the cut must not be split.
    lines[0].text = std::string(hostweb::Hub::kMaxLogText - 1, 'a') + "\xea\xb0\x80" + std::string(100, 'b');
    hub.AddLog(lines, false);
    hostweb::Hub::Cursor page;
    const std::string text = LogData(*hub.Next(page, kNow))["lines"][0]["text"];
    EXPECT_EQ(text, std::string(hostweb::Hub::kMaxLogText - 1, 'a') + "\u2026 (" +
                        std::to_string(lines[0].text.size()) + " bytes in all)");
}

TEST(WebHub, ActivityKeepsTheLatestEntriesInOrder)
{
    hostweb::Hub hub;
    const int total = static_cast<int>(hostweb::Hub::kMaxActivity) + 5;
    for (int i = 0; i < total; ++i)
        hub.AddActivity({{"kind", "press"}, {"item", i}});
    const nlohmann::json activity = nlohmann::json::parse(hub.State())["activity"];
    ASSERT_EQ(activity.size(), hostweb::Hub::kMaxActivity);
    EXPECT_EQ(activity.front()["item"], 5);
    EXPECT_EQ(activity.back()["item"], total - 1);
    EXPECT_TRUE(activity.back().contains("time"));
}

TEST(WebHub, StopEndsEveryWait)
{
    hostweb::Hub hub;
    hostweb::Hub::Cursor page;
    hub.Next(page, kNow);
    std::optional<std::string> ended = std::string("not yet");
    std::thread stream([&] { ended = hub.Next(page, std::chrono::hours(1)); });
    std::thread watcher([&] { hub.Sleep(std::chrono::hours(1)); });
    hub.Stop();
    stream.join();
    watcher.join();
    EXPECT_EQ(ended, std::nullopt);
    EXPECT_TRUE(hub.Stopping());
}

// What `--json` prints and what a page's stream carries: an engine text's
// C1 and bidirectional controls would steer a terminal that shows it.
TEST(HostTvJson, ATerminalShowingItObeysNoControlAndItReadsTheSame)
{
    const std::string text = "\x1b[2J \xc2\x9b"
                             "2J \x7f \xe2\x80\xae \xe2\x81\xa6 \xd8\x9c \xea\xb0\x80 \xc2\xa0 \xe2\x80\x94";
    const std::string dumped = hosttv::Dump({{"name", text}});
    for (size_t i = 0; i < dumped.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(dumped[i]);
        ASSERT_FALSE(c < 0x20 || c == 0x7F) << "byte " << int(c) << " at " << i;
        ASSERT_FALSE(c == 0xC2 && static_cast<unsigned char>(dumped[i + 1]) <= 0x9F) << "a C1 control at " << i;
    }
    EXPECT_THAT(dumped, Not(HasSubstr("\xe2\x80\xae")));
    EXPECT_THAT(dumped, Not(HasSubstr("\xe2\x81\xa6")));
    EXPECT_THAT(dumped, Not(HasSubstr("\xd8\x9c")));
    EXPECT_THAT(dumped, HasSubstr("\xea\xb0\x80 \xc2\xa0 \xe2\x80\x94")) << "other characters stay as they are";
    EXPECT_EQ(nlohmann::json::parse(dumped)["name"], text);
}
