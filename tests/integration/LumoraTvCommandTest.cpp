// lumora-tv on its own: the shared host TV state it writes for the service to
// see, and what it says while the service is not running.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <device/power.h>

#include <filesystem>

#include "LumoraTv.h"
#include "tvhost/apps.h"
#include "tvhost/network.h"
#include "tvhost/notifications.h"
#include "tvhost/power.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

const char kWidget[] = "PzKmRvTqXa.Lumora";
const char kNotRunning[] = "the service is not running on this host TV; start it with: lumora-tv run";

int AppChange()
{
    int n = 0;
    tvhost::settings::GetInt("memory/was/app_change", n);
    return n;
}

class LumoraTvCommand : public ::testing::Test {
protected:
    void SetUp() override
    {
        tvhost::notifications::remote::Error error;
        int pid = 0;
        ASSERT_FALSE(tvhost::notifications::remote::Ping(pid, error))
            << "a service (pid " << pid << ") runs on this build's host TV; these checks need it stopped";
        ASSERT_EQ(LumoraTv({"reset"}).status, 0);
    }
    void TearDown() override { LeaveHostTvFresh(); }
};

} // namespace

TEST_F(LumoraTvCommand, ResetLeavesTheFreshHostTv)
{
    ASSERT_EQ(device_power_request_poweroff(3), 0) << "no main loop here: only the record is written";
    ASSERT_EQ(LumoraTv({"set", "db/menu_widget/language", "ko_KR.UTF-8"}).status, 0);
    std::filesystem::create_directories(tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data");

    LumoraTvResult r = LumoraTv({"reset"});
    ASSERT_EQ(r.status, 0) << Describe({"reset"}, r);
    std::string language;
    EXPECT_TRUE(tvhost::settings::GetString("db/menu_widget/language", language));
    EXPECT_EQ(language, "en_US.UTF-8");
    EXPECT_TRUE(tvhost::apps::IsInstalled(kWidget));
    EXPECT_FALSE(tvhost::apps::IsRunning(kWidget));
    EXPECT_EQ(tvhost::network::CurrentType(), 3);
    EXPECT_FALSE(std::filesystem::exists(tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data"));
    EXPECT_TRUE(tvhost::power::Recorded().empty());
    EXPECT_THAT(LumoraTv({"power"}).out, StartsWith("on:"));
}

// Each step's output, or for a refusal a part of its error; then the state
// as this process reads it.
TEST_F(LumoraTvCommand, CommandsChangeTheSharedHostTvState)
{
    const struct {
        std::vector<std::string> args;
        int status;
        const char *text;
    } steps[] = {
        {{"set", "db/menu_widget/language", "ko_KR.UTF-8"}, 0, "db/menu_widget/language = ko_KR.UTF-8\n"},
        {{"set", "memory/was/app_change", "-5"}, 0, "memory/was/app_change = -5\n"},
        {{"get"}, 0, "db/menu_widget/language = ko_KR.UTF-8\nmemory/was/app_change = -5\n"},
        // As the TV does, installing and removing bump the app-change key.
        {{"widget", "uninstall"}, 0, "PzKmRvTqXa.Lumora is not installed (memory/was/app_change is now -4)\n"},
        {{"widget", "launch"}, 1, "install it first: lumora-tv widget install"},
        {{"widget", "install"}, 0, "PzKmRvTqXa.Lumora is installed, not running (memory/was/app_change is now -3)\n"},
        {{"widget", "install"}, 0, "PzKmRvTqXa.Lumora is installed, not running (nothing changed)\n"},
        {{"widget", "launch"}, 0, "PzKmRvTqXa.Lumora is installed, running\n"},
        {{"network", "none"}, 0, "network: none\n"},
        {{"network", "wifi"}, 0, "network: wifi\n"},
    };
    for (const auto &step : steps) {
        const LumoraTvResult r = LumoraTv(step.args);
        SCOPED_TRACE(Describe(step.args, r));
        EXPECT_EQ(r.status, step.status);
        if (step.status == 0)
            EXPECT_EQ(r.out, step.text);
        else
            EXPECT_THAT(r.err, HasSubstr(step.text));
    }
    std::string language;
    EXPECT_TRUE(tvhost::settings::GetString("db/menu_widget/language", language));
    EXPECT_EQ(language, "ko_KR.UTF-8");
    EXPECT_EQ(AppChange(), -3);
    EXPECT_TRUE(tvhost::apps::IsRunning(kWidget));
    EXPECT_EQ(tvhost::network::CurrentType(), 1);
    EXPECT_EQ(LumoraTv({"widget", "close"}).status, 0);
    EXPECT_FALSE(tvhost::apps::IsRunning(kWidget));
    const LumoraTvResult r = LumoraTv({"network", "auto"}); // before the type is read
    EXPECT_EQ(r.out, std::string("network: ") + tvhost::network::TypeName(tvhost::network::CurrentType()) +
                         " (following this machine's default route)\n");
}

TEST_F(LumoraTvCommand, PowerShowsAnotherProcesssPowerOff)
{
    ASSERT_EQ(device_power_request_poweroff(3), 0);
    EXPECT_EQ(LumoraTv({"power"}).out, "off: the TV was switched off (power-off request of kind 3)\n");
    EXPECT_EQ(tvhost::power::Recorded(), std::vector<int>{3});
    EXPECT_THAT(LumoraTv({"status"}).out, HasSubstr("power:     off"));
}

TEST_F(LumoraTvCommand, WhatNeedsTheServiceSaysHowToStartIt)
{
    for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
             {"notifications"}, {"press", "1", "1"}, {"timeout", "1"}, {"event", "5", "-"}}) {
        const LumoraTvResult r = LumoraTv(args, "<x/>");
        SCOPED_TRACE(Describe(args, r));
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, std::string("lumora-tv: ") + kNotRunning + "\n");
    }
    const LumoraTvResult r = LumoraTv({"status"});
    EXPECT_EQ(r.status, 3);
    EXPECT_THAT(r.out, HasSubstr("service:   not running (start it with: lumora-tv run)"));
}
