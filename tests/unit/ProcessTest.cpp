// hostproc: a child gets exactly what its Command names, whatever the starter
// has (other descriptors, ignored or blocked signals, other variables), a
// failed start leaves nothing behind, and a child does not outlive its
// starter.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "proc/process.h"

using namespace std::chrono_literals;
using ::testing::HasSubstr;

namespace {

// Runs command with its standard output in memory; what it printed.
std::string Output(proc::Command command, int *pStatus = nullptr)
{
    proc::Fd out(memfd_create("out", MFD_CLOEXEC));
    command.fds.emplace_back(STDOUT_FILENO, out.Get());
    proc::Child child = proc::Child::Start(command);
    const std::optional<int> status = child.Wait(60s);
    EXPECT_TRUE(status) << "still running after 60 s";
    if (pStatus)
        *pStatus = status.value_or(-1);
    std::string text(65536, '\0');
    const ssize_t n = pread(out.Get(), text.data(), text.size(), 0);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return text;
}

std::string Line(const std::string &text, const std::string &start)
{
    const size_t at = text.find("\n" + start);
    return at == std::string::npos ? "" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

} // namespace

TEST(Process, ChildGetsTheSpecsEnvironmentOnly)
{
    setenv("LUMORA_PROCESS_TEST_LEAK", "1", 1);
    proc::Command command;
    command.argv = {"/usr/bin/env"};
    command.env = proc::Environment().Set("A", "1").Put("B=2=3").Set("A", "4");
    EXPECT_EQ(Output(command), "B=2=3\nA=4\n");
    unsetenv("LUMORA_PROCESS_TEST_LEAK");
}

TEST(Process, ChildGetsTheMappedDescriptorsAndNoOther)
{
    // Not close-on-exec: it would reach the child but for the closing.
    const int leak = open("/dev/null", O_RDONLY);
    ASSERT_GE(leak, 0);
    proc::Fd given(open("/dev/null", O_RDONLY | O_CLOEXEC));
    proc::Command command;
    command.argv = {"/bin/sh", "-c", "cd /proc/self/fd && echo *"};
    command.fds.emplace_back(leak + 5, given.Get());
    // The shell's own look at the folder is one more descriptor, 3.
    EXPECT_EQ(Output(command), "0 1 2 3 " + std::to_string(leak + 5) + "\n");
    close(leak);
}

TEST(Process, ChildStartsWithNoSignalBlockedOrIgnored)
{
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    struct sigaction ignore = {}, oldTerm = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGTERM, &ignore, &oldTerm);
    proc::Command command;
    command.argv = {"/bin/cat", "/proc/self/status"};
    const std::string status = "\n" + Output(command);
    sigaction(SIGTERM, &oldTerm, nullptr);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    EXPECT_EQ(Line(status, "SigBlk:"), "SigBlk:\t0000000000000000");
    EXPECT_EQ(Line(status, "SigIgn:"), "SigIgn:\t0000000000000000");
}

TEST(Process, MissingProgramIsRefusedWithNothingLeftRunning)
{
    proc::Command command;
    command.argv = {"/nonexistent/program"};
    try {
        proc::Child::Start(command);
        FAIL() << "started";
    } catch (const proc::Error &e) {
        EXPECT_EQ(e.Errno(), ENOENT);
        EXPECT_THAT(e.what(), HasSubstr("cannot start /nonexistent/program: No such file or directory"));
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_EQ(errno, ECHILD);
}

TEST(Process, StopKillsAChildThatIgnoresSigterm)
{
    proc::Command command;
    command.argv = {"/bin/sh", "-c", "trap '' TERM; echo ready; exec sleep 600"};
    proc::Fd out(memfd_create("out", MFD_CLOEXEC));
    command.fds.emplace_back(STDOUT_FILENO, out.Get());
    proc::Child child = proc::Child::Start(command);
    char ready[8] = {};
    for (int i = 0; i < 6000 && pread(out.Get(), ready, 5, 0) < 5; ++i)
        std::this_thread::sleep_for(10ms);
    ASSERT_STREQ(ready, "ready");
    const int status = child.Stop(100ms);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_FALSE(child.Running());
}

TEST(Process, ChildEndsWithTheThreadThatStartedIt)
{
    proc::Command command;
    command.argv = {"/bin/sleep", "600"};
    proc::Child child;
    std::thread([&] { child = proc::Child::Start(command); }).join();
    const std::optional<int> status = child.Wait(60s);
    ASSERT_TRUE(status) << "the child outlived its starter";
    ASSERT_TRUE(WIFSIGNALED(*status));
    EXPECT_EQ(WTERMSIG(*status), SIGTERM);
}

TEST(Process, ExecWrapperRunsTheProgram)
{
    setenv("LUMORA_EXEC_WRAPPER", "/bin/echo", 1);
    proc::Command command;
    command.argv = {"/bin/true", "a b"};
    const std::string out = Output(command);
    // A program that cannot run is refused at the start, as without a
    // wrapper, not reported later by the wrapper's exit.
    command.argv = {"/nonexistent/program"};
    std::string refused;
    int nErrno = 0;
    try {
        proc::Child::Start(command);
    } catch (const proc::Error &e) {
        refused = e.what();
        nErrno = e.Errno();
    }
    unsetenv("LUMORA_EXEC_WRAPPER");
    EXPECT_EQ(out, "/bin/true a b\n");
    EXPECT_EQ(nErrno, ENOENT);
    EXPECT_THAT(refused, HasSubstr("cannot start /nonexistent/program: No such file or directory"));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}

TEST(Process, StopSignalEndsAWait)
{
    proc::StopSignals signals;
    proc::Command command;
    command.argv = {"/bin/sleep", "600"};
    proc::Child child = proc::Child::Start(command);
    kill(getpid(), SIGHUP);
    EXPECT_TRUE(signals.WaitUntil(proc::Child::Clock::now() + 60s, &child));
    ASSERT_TRUE(signals.Got());
    EXPECT_EQ(signals.Got()->signo, SIGHUP);
    EXPECT_FALSE(signals.Got()->bFromTerminal);
    EXPECT_TRUE(child.Running()) << "the child has its own signals";
}
