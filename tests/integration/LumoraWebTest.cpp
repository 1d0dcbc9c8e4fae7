// `lumora-tv web` without a browser: what it refuses, and open pages kept in
// step over their event streams, beside a service a supervisor runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "LumoraTv.h"
#include "Supervisor.h"

using namespace std::chrono_literals;
using Json = nlohmann::json;

namespace {

// `lumora-tv web` on a free port of the loopback: the port it chose.
int StartWeb(Supervisor &web, const std::vector<std::string> &env = {})
{
    web.Spawn({LumoraTvBinary(), "web", "--listen", "127.0.0.1:0"}, env);
    const std::string open = "open http://127.0.0.1:";
    if (!web.WaitForLog(open, kHangGuard))
        throw std::runtime_error("lumora-tv web said: " + web.Log());
    return std::atoi(web.Log().c_str() + web.Log().find(open) + open.size());
}

// Ctrl-C of the server alone: its exit status.
int Interrupt(Supervisor &web)
{
    kill(web.RunPid(), SIGINT);
    const int status = web.Wait(kHangGuard);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// One open page's event stream on a plain socket; read only when waited on,
// the kernel keeps what the server sends meanwhile.
class Stream {
public:
    explicit Stream(int port, const std::string &origin = "") : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        struct sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const std::string request = "GET /api/events HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                                    "\r\nConnection: close\r\n" + (origin.empty() ? "" : "Origin: " + origin + "\r\n") +
                                    "\r\n";
        if (connect(m_fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0 ||
            write(m_fd, request.data(), request.size()) != static_cast<ssize_t>(request.size()))
            throw std::runtime_error("cannot open an event stream");
    }
    ~Stream() { close(m_fd); }
    // Reads on until the text holds part; false after 20 s without data or at the end.
    bool WaitFor(const std::string &part)
    {
        char buf[65536];
        for (struct pollfd pfd = {m_fd, POLLIN, 0}; text.find(part) == std::string::npos;) {
            const ssize_t n = poll(&pfd, 1, 20000) == 1 ? read(m_fd, buf, sizeof buf) : -1;
            if (n <= 0)
                return false;
            text.append(buf, static_cast<size_t>(n));
        }
        return true;
    }
    // The HTTP status of the answer.
    int Status() { return WaitFor("\r\n") ? std::atoi(text.c_str() + 9) : 0; }
    std::string text;

private:
    int m_fd;
};

using LumoraWeb = HostTvTest;

} // namespace

TEST_F(LumoraWeb, RefusesForeignPagesLargeBodiesAndBadJsonWithAText)
{
    Supervisor web;
    const int port = StartWeb(web);
    httplib::Client client("127.0.0.1", port);
    const std::string own = "http://127.0.0.1:" + std::to_string(port);
    struct Case {
        const char *what;
        httplib::Headers headers;
        std::string body;
        int status;
        std::string error; // part of the JSON error text
        const char *path = "/api/timeout";
    };
    const std::vector<Case> cases = {
        {"foreign Host", {{"Host", "attacker.example:" + std::to_string(port)}}, "{\"item\":1}", 403, "Host"},
        {"foreign Origin", {{"Origin", "http://attacker.example"}}, "{\"item\":1}", 403, "attacker.example"},
        {"Origin of another port", {{"Origin", "http://127.0.0.1:1"}}, "{\"item\":1}", 403, "may not drive"},
        {"body over the limit", {{"Origin", own}}, std::string(300 * 1024, ' '), 413, "limit"},
        {"malformed JSON", {{"Origin", own}}, "{\"item\":", 400, "malformed JSON"},
        {"not an object", {}, "[1]", 400, "JSON object"},
        {"own page, no service", {{"Origin", own}}, "{\"item\":1}", 409, "not running"},
        {"unknown scenario", {}, "{\"scenario\":\"nope\"}", 400, "unknown scenario \"nope\"", "/api/start"},
    };
    for (const Case &c : cases) {
        const auto res = client.Post(c.path, c.headers, c.body, "application/json");
        ASSERT_TRUE(res) << c.what;
        EXPECT_EQ(res->status, c.status) << c.what << ": " << res->body;
        const Json answer = Json::parse(res->body, nullptr, false);
        ASSERT_TRUE(answer.is_object() && answer["error"].is_string()) << c.what << ": " << res->body;
        EXPECT_THAT(answer["error"].get<std::string>(), ::testing::HasSubstr(c.error)) << c.what << ": " << res->body;
    }
    // Reading is guarded too: another site's page must not see the TV either.
    const auto res = client.Get("/api/state", {{"Host", "attacker.example"}});
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 403);

    // The page starts a service, once; Ctrl-C of the server ends it too.
    const auto started = client.Post("/api/start", "{\"scenario\":\"quiet\"}", "application/json");
    ASSERT_TRUE(started && started->status == 200) << (started ? started->body : "no answer");
    const int pid = Json::parse(started->body)["pid"];
    const auto again = client.Post("/api/start", "{}", "application/json");
    ASSERT_TRUE(again);
    EXPECT_EQ(again->status, 409) << again->body;
    EXPECT_THAT(again->body, ::testing::HasSubstr("already runs")) << again->body;
    EXPECT_EQ(Interrupt(web), 130);
    EXPECT_NE(kill(pid, 0), 0) << "the page's service outlived its server";
}

TEST_F(LumoraWeb, FailedStartIsShownAndLeavesNoLock)
{
    Supervisor web;
    const int port = StartWeb(web, {"LUMORA_EXEC_WRAPPER=/nonexistent/wrapper"});
    httplib::Client client("127.0.0.1", port);
    const auto started = client.Post("/api/start", "{}", "application/json");
    ASSERT_TRUE(started);
    EXPECT_EQ(started->status, 409) << started->body;
    const Json answer = Json::parse(started->body, nullptr, false);
    ASSERT_TRUE(answer.is_object() && answer["error"].is_string()) << started->body;
    EXPECT_EQ(answer["error"].get<std::string>().find("cannot start /nonexistent/wrapper"), 0u) << started->body;
    const LumoraTvResult status = LumoraTv({"status"});
    EXPECT_EQ(status.status, 3) << Describe({"status"}, status);
    EXPECT_EQ(Interrupt(web), 130);
}

TEST_F(LumoraWeb, OpenPagesStayInStepAndAClosedOneFreesItsPlace)
{
    Supervisor tv, web;
    tv.Start({});
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", kHangGuard)) << tv.Log();
    const int port = StartWeb(web);
    httplib::Client client("127.0.0.1", port);

    auto first = std::make_unique<Stream>(port);
    Stream second(port, "http://localhost:" + std::to_string(port));
    ASSERT_EQ(first->Status(), 200);
    ASSERT_EQ(second.Status(), 200);
    const auto raised = client.Post("/api/event", "{\"number\":5,\"sample\":\"alarm\"}", "application/json");
    ASSERT_TRUE(raised && raised->status == 200) << (raised ? raised->body : "no answer");
    for (Stream *s : {first.get(), &second})
        EXPECT_TRUE(s->WaitFor("\"title\":\"Living room\"")) << s->text;

    // "Go to Lumora": the press goes through the service, and every page sees what it launched.
    const auto pressed = client.Post("/api/press", "{\"item\":1,\"button\":1}", "application/json");
    ASSERT_TRUE(pressed && pressed->status == 200) << (pressed ? pressed->body : "no answer");
    const Json press = Json::parse(pressed->body);
    ASSERT_EQ(press["launches"].size(), 1u) << pressed->body;
    EXPECT_EQ(press["launches"][0]["app"], "PzKmRvTqXa.Lumora");
    EXPECT_EQ(press["launches"][0]["extraData"]["deviceID"], "ac-living") << pressed->body;
    for (Stream *s : {first.get(), &second})
        EXPECT_TRUE(s->WaitFor("\"kind\":\"press\"")) << s->text;

    // Eight pages at once; a ninth is told to close one; a closed page makes room.
    std::vector<std::unique_ptr<Stream>> more;
    for (int i = 0; i < 6; ++i) {
        more.push_back(std::make_unique<Stream>(port));
        ASSERT_EQ(more.back()->Status(), 200);
    }
    EXPECT_EQ(Stream(port).Status(), 503);
    first.reset();
    bool bAdmitted = false;
    for (int i = 0; i < 50 && !bAdmitted; ++i) {
        bAdmitted = Stream(port).Status() == 200;
        if (!bAdmitted)
            std::this_thread::sleep_for(200ms);
    }
    EXPECT_TRUE(bAdmitted) << "a closed page still holds its place";
    more.clear();
    EXPECT_EQ(Interrupt(web), 130);
    tv.Terminate();
}
