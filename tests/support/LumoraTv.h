// Runs this build's lumora-tv as a separate process, as a person in another
// shell would, and collects what it printed and its exit status.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

struct LumoraTvResult {
    int status = -1; // exit status; -1 when it did not exit normally
    std::string out;
    std::string err;
};

std::string LumoraTvBinary();

// The whole of a file; empty when it cannot be read.
std::string ReadFile(const std::string &path);

// args after the program name; input is fed to its standard input; env
// entries ("NAME=value") on top of this process's environment.
LumoraTvResult LumoraTv(const std::vector<std::string> &args, const std::string &input = "",
                        const std::vector<std::string> &env = {});

// For failure messages: the command line and everything it printed.
std::string Describe(const std::vector<std::string> &args, const LumoraTvResult &result);

// The lines of `lumora-tv notifications --brief`, one per pop-up on screen.
std::vector<std::string> Popups();

// Leaves the shared host TV root as the suites after this one expect it: the
// fresh state of `lumora-tv reset` (so no scenario stays in the data folder)
// and the network following the machine again.
void LeaveHostTvFresh();

// The fixture of the integration suites: each test starts from the fresh host
// TV (a service left running fails it at once) and leaves it fresh, whatever
// its assertions did.
class HostTvTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(LumoraTv({"reset"}).status, 0) << "a service runs on this host TV"; }
    void TearDown() override { LeaveHostTvFresh(); }
};

template <typename Param>
class HostTvTestWithParam : public HostTvTest, public ::testing::WithParamInterface<Param> {};
