// The platform call that only the real binary makes: the entry point's
// subscription of the language key, refused through TVHOST_FAULTS. The
// service logs it, starts all the same, and only the catalogue rebinding on
// a language change is lost; the manager's own subscription still works.
#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>

#include "LumoraTv.h"
#include "Supervisor.h"
#include "tvhost/network.h"

using namespace std::chrono_literals;

TEST(LumoraPlatformFault, ALanguageSubscriptionRefusedAtCreateIsLoggedAndTheServiceCarriesOn)
{
    ASSERT_EQ(LumoraTv({"reset"}).status, 0);
    Supervisor tv;
    tv.Start({"--scenario", "quiet"}, {"TVHOST_FAULTS=vconf_notify_key_changed=-1"});
    ASSERT_TRUE(tv.WaitForLog(">Unable to register a vconf changed cb to db/menu_widget/language.", 10s)) << tv.Log();
    ASSERT_TRUE(tv.WaitForLog(">LumoraManager::Construct SetSystemLanguage strReturn = OK", 20s)) << tv.Log();

    ASSERT_EQ(LumoraTv({"set", "db/menu_widget/language", "ko_KR.UTF-8"}).status, 0);
    EXPECT_TRUE(tv.WaitForLog(">CLumoraQorvHelper Begin to Execute strParam1 = ko_KR!", 10s)) << tv.Log();
    EXPECT_EQ(tv.CountInLog(">In app_lang_change"), 0);

    tv.Signal(SIGTERM);
    const int status = tv.Wait(20s);
    ASSERT_NE(status, -1);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    tvhost::network::ClearOverride();
}
