// The host TV's Unix-socket server and client, with a small line protocol of
// the test's own: "<word>\n" is answered "echo <word>\n"; "bye" closes.
// Framing, refusals and several requests on one connection are the engine
// simulator's injection suite's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "tvhost/local_socket.h"

using namespace std::chrono_literals;
namespace ls = tvhost::localsocket;

namespace {

ls::Frame Line(std::string_view input, bool bNoMore)
{
    const size_t nl = input.find('\n');
    if (nl != std::string_view::npos)
        return ls::Frame::Whole(nl + 1);
    return bNoMore ? ls::Frame::Refused("") : ls::Frame::Incomplete();
}

ls::Answer Echo(const std::string &request)
{
    const std::string word = request.substr(0, request.size() - 1);
    return {"echo " + word + "\n", word == "bye"};
}

bool WholeLine(std::string_view answer)
{
    return answer.find('\n') != std::string_view::npos;
}

int Connect(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0) << path;
    return fd;
}

// Reads until the peer closes (or 30 s pass).
std::string ReadAll(int fd)
{
    timeval timeout{30, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;)
        text.append(buffer, static_cast<size_t>(n));
    return text;
}

class LocalSocket : public ::testing::Test {
protected:
    void SetUp() override
    {
        char dir[] = "/tmp/localsocket-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        path = m_dir + "/s.sock";
    }
    void TearDown() override
    {
        server.Stop();
        std::system(("rm -rf " + m_dir).c_str());
    }
    ls::Server::Opened Start(ls::Server &s, ls::ServerOptions options = {})
    {
        int nErrno = 0;
        return s.Start(path, Line, Echo, options, nErrno);
    }
    std::string Ask(const std::string &request, ls::ClientError &error)
    {
        std::string answer;
        ls::Exchange(path, request, 30, 256, WholeLine, answer, error);
        return answer;
    }

    std::string m_dir;
    std::string path;
    ls::Server server;
};

} // namespace

TEST_F(LocalSocket, AClientTricklingARequestHoldsUpNeitherOtherClientsNorTheStop)
{
    ls::ServerOptions options;
    options.nRequestSeconds = 600; // the trickling client is never cut off here
    ASSERT_EQ(Start(server, options), ls::Server::Opened::kServing);
    const int slow = Connect(path);
    std::atomic<bool> bTrickle{true};
    std::thread trickler([&] {
        while (bTrickle) {
            (void)!send(slow, "x", 1, MSG_NOSIGNAL);
            std::this_thread::sleep_for(100ms);
        }
    });
    ls::ClientError error;
    EXPECT_EQ(Ask("quick\n", error), "echo quick\n") << "error kind " << error.kind;
    bTrickle = false;
    trickler.join();
    // Still served: its request completes and it is answered.
    (void)!send(slow, "\nbye\n", 5, MSG_NOSIGNAL);
    EXPECT_THAT(ReadAll(slow), ::testing::HasSubstr("echo bye\n"));
    close(slow);

    // A connection in the middle of a request, one that never sent anything:
    // the stop waits for neither.
    const int idle = Connect(path);
    const int partial = Connect(path);
    (void)!send(partial, "half", 4, MSG_NOSIGNAL);
    server.Stop();
    EXPECT_EQ(ReadAll(partial), "") << "closed without an answer";
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "the socket file goes with the server";
    close(idle);
    close(partial);
}

TEST_F(LocalSocket, AStaleSocketFileIsReplacedButALiveServersIsLeftAlone)
{
    ls::ClientError error;
    Ask("x\n", error);
    EXPECT_EQ(error.kind, ls::ClientError::kNobodyListens) << "no file";
    {
        ls::Server dead;
        ASSERT_EQ(Start(dead), ls::Server::Opened::kServing);
        // A process that dies leaves its socket file behind.
        ASSERT_EQ(rename(path.c_str(), (path + ".kept").c_str()), 0);
        dead.Stop();
        ASSERT_EQ(rename((path + ".kept").c_str(), path.c_str()), 0);
    }
    Ask("x\n", error);
    EXPECT_EQ(error.kind, ls::ClientError::kNobodyListens) << "a file nothing answers on";
    EXPECT_FALSE(ls::SomeoneListens(path));

    ASSERT_EQ(Start(server), ls::Server::Opened::kServing);
    EXPECT_TRUE(ls::SomeoneListens(path));
    ls::Server second;
    EXPECT_EQ(Start(second), ls::Server::Opened::kTaken);
    EXPECT_EQ(Ask("still\n", error), "echo still\n") << "the first one keeps its socket";

    const std::string tooLong(ls::MaxPathLength() + 1, 'p');
    int nErrno = 0;
    EXPECT_EQ(second.Start(tooLong, Line, Echo, {}, nErrno), ls::Server::Opened::kPathTooLong);
    std::string answer;
    EXPECT_FALSE(ls::Exchange(tooLong, "x\n", 1, 256, WholeLine, answer, error));
    EXPECT_EQ(error.kind, ls::ClientError::kPathTooLong);
}
