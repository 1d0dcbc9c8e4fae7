// `lumora-tv web` without a browser: what it refuses, and open pages kept in
// step over their event streams, beside a service a supervisor runs.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <httplib.h>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "LumoraTv.h"
#include "Supervisor.h"

using namespace std::chrono_literals;
using Json = nlohmann::json;

namespace {

// `lumora-tv web` on a free port of the loopback; ended with Ctrl-C.
class WebServer {
public:
    WebServer()
    {
        int out[2];
        if (pipe(out) != 0)
            throw std::runtime_error("pipe failed");
        const std::string binary = LumoraTvBinary();
        const char *argv[] = {binary.c_str(), "web", "--listen", "127.0.0.1:0", nullptr};
        m_pid = fork();
        if (m_pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            execv(argv[0], const_cast<char **>(argv));
            _exit(127);
        }
        close(out[1]);
        // "lumora-tv: the host TV in a browser: open http://127.0.0.1:PORT/"
        std::string line;
        char c = 0;
        while (read(out[0], &c, 1) == 1 && c != '\n')
            line += c;
        close(out[0]);
        const size_t at = line.find("http://127.0.0.1:");
        if (at == std::string::npos)
            throw std::runtime_error("lumora-tv web said: " + line);
        port = std::stoi(line.substr(at + 17));
    }
    ~WebServer()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    // Ctrl-C: its exit status.
    int Interrupt()
    {
        kill(m_pid, SIGINT);
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int port = 0;

private:
    pid_t m_pid = -1;
};

// One open page's event stream, read on a thread of its own.
class Stream {
public:
    Stream(int port, const std::string &origin = "")
    {
        m_thread = std::thread([this, port, origin] {
            httplib::Client client("127.0.0.1", port);
            client.set_read_timeout(30, 0);
            httplib::Headers headers;
            if (!origin.empty())
                headers.emplace("Origin", origin);
            auto res = client.Get(
                "/api/events", headers,
                [this](const httplib::Response &r) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_status = r.status;
                    m_seen.notify_all();
                    return r.status == 200;
                },
                [this](const char *data, size_t n) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_text.append(data, n);
                    m_seen.notify_all();
                    return !m_bClosing;
                });
            std::lock_guard<std::mutex> lock(m_mutex);
            if (res && m_status == 0)
                m_status = res->status;
            m_bEnded = true;
            m_seen.notify_all();
        });
    }
    ~Stream()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_bClosing = true;
        }
        m_thread.join();
    }
    // The HTTP status once the answer began.
    int Status()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_seen.wait_for(lock, 20s, [&] { return m_status != 0 || m_bEnded; });
        return m_status;
    }
    bool WaitFor(const std::string &part)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_seen.wait_for(lock, 20s, [&] { return m_text.find(part) != std::string::npos; });
    }
    std::string Text()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_text;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_seen;
    std::string m_text;
    int m_status = 0;
    bool m_bClosing = false;
    bool m_bEnded = false;
    std::thread m_thread;
};

class LumoraWeb : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(LumoraTv({"reset"}).status, 0) << "a service runs on this host TV"; }
    void TearDown() override { LeaveHostTvFresh(); }
};

} // namespace

TEST_F(LumoraWeb, RefusesForeignPagesLargeBodiesAndBadJsonWithAText)
{
    WebServer web;
    httplib::Client client("127.0.0.1", web.port);
    const std::string own = "http://127.0.0.1:" + std::to_string(web.port);
    struct Case {
        const char *what;
        httplib::Headers headers;
        std::string body;
        int status;
        std::string error; // part of the JSON error text
    };
    const std::vector<Case> cases = {
        {"foreign Host", {{"Host", "attacker.example:" + std::to_string(web.port)}}, "{\"item\":1}", 403, "Host"},
        {"foreign Origin", {{"Origin", "http://attacker.example"}}, "{\"item\":1}", 403, "attacker.example"},
        {"Origin of another port", {{"Origin", "http://127.0.0.1:1"}}, "{\"item\":1}", 403, "may not drive"},
        {"body over the limit", {{"Origin", own}}, std::string(300 * 1024, ' '), 413, "limit"},
        {"malformed JSON", {{"Origin", own}}, "{\"item\":", 400, "malformed JSON"},
        {"not an object", {}, "[1]", 400, "JSON object"},
        {"own page, no service", {{"Origin", own}}, "{\"item\":1}", 409, "not running"},
    };
    for (const Case &c : cases) {
        const auto res = client.Post("/api/timeout", c.headers, c.body, "application/json");
        ASSERT_TRUE(res) << c.what;
        EXPECT_EQ(res->status, c.status) << c.what << ": " << res->body;
        const Json answer = Json::parse(res->body, nullptr, false);
        ASSERT_TRUE(answer.is_object() && answer["error"].is_string()) << c.what << ": " << res->body;
        EXPECT_NE(answer["error"].get<std::string>().find(c.error), std::string::npos) << c.what << ": " << res->body;
    }
    // Reading is guarded too: another site's page must not see the TV either.
    const auto res = client.Get("/api/state", {{"Host", "attacker.example"}});
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 403);

    // The page starts a service, once; Ctrl-C of the server ends it too.
    const auto unknown = client.Post("/api/start", "{\"scenario\":\"nope\"}", "application/json");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->status, 400) << unknown->body;
    const auto started = client.Post("/api/start", "{\"scenario\":\"quiet\"}", "application/json");
    ASSERT_TRUE(started && started->status == 200) << (started ? started->body : "no answer");
    const int pid = Json::parse(started->body)["pid"];
    const auto again = client.Post("/api/start", "{}", "application/json");
    ASSERT_TRUE(again);
    EXPECT_EQ(again->status, 409) << again->body;
    EXPECT_NE(again->body.find("already runs"), std::string::npos) << again->body;
    EXPECT_EQ(web.Interrupt(), 130);
    EXPECT_NE(kill(pid, 0), 0) << "the page's service outlived its server";
}

TEST_F(LumoraWeb, OpenPagesStayInStepAndAClosedOneFreesItsPlace)
{
    Supervisor tv;
    tv.Start({});
    ASSERT_TRUE(tv.WaitForLog(">Success to start qorv!", 20s)) << tv.Log();
    WebServer web;
    httplib::Client client("127.0.0.1", web.port);

    auto first = std::make_unique<Stream>(web.port);
    Stream second(web.port, "http://localhost:" + std::to_string(web.port));
    ASSERT_EQ(first->Status(), 200);
    ASSERT_EQ(second.Status(), 200);
    const auto raised = client.Post("/api/event", "{\"number\":5,\"sample\":\"alarm\"}", "application/json");
    ASSERT_TRUE(raised && raised->status == 200) << (raised ? raised->body : "no answer");
    for (Stream *s : {first.get(), &second})
        EXPECT_TRUE(s->WaitFor("\"title\":\"Living room\"")) << s->Text();

    // "Go to Lumora": the press goes through the service, and every page sees what it launched.
    const auto pressed = client.Post("/api/press", "{\"item\":1,\"button\":1}", "application/json");
    ASSERT_TRUE(pressed && pressed->status == 200) << (pressed ? pressed->body : "no answer");
    const Json press = Json::parse(pressed->body);
    ASSERT_EQ(press["launches"].size(), 1u) << pressed->body;
    EXPECT_EQ(press["launches"][0]["app"], "PzKmRvTqXa.Lumora");
    EXPECT_EQ(press["launches"][0]["extraData"]["deviceID"], "ac-living") << pressed->body;
    for (Stream *s : {first.get(), &second})
        EXPECT_TRUE(s->WaitFor("\"kind\":\"press\"")) << s->Text();

    // Eight pages at once; a ninth is told to close one; a closed page makes room.
    std::vector<std::unique_ptr<Stream>> more;
    for (int i = 0; i < 6; ++i) {
        more.push_back(std::make_unique<Stream>(web.port));
        ASSERT_EQ(more.back()->Status(), 200);
    }
    {
        Stream refused(web.port);
        EXPECT_EQ(refused.Status(), 503);
    }
    first.reset();
    bool bAdmitted = false;
    for (int i = 0; i < 50 && !bAdmitted; ++i) {
        Stream again(web.port);
        bAdmitted = again.Status() == 200;
        if (!bAdmitted)
            std::this_thread::sleep_for(200ms);
    }
    EXPECT_TRUE(bAdmitted) << "a closed page still holds its place";
    more.clear();
    EXPECT_EQ(web.Interrupt(), 130);
    tv.Terminate();
}
