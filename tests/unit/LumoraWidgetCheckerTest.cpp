#include <gtest/gtest.h>

#include "LogCapture.h"
#include "LumoraWidgetChecker.h"
#include "tvhost/apps.h"
#include "tvhost/tvhost.h"
#include "tvhost/settings.h"

class CLumoraWidgetCheckerTestPeer {
public:
    static vconf_callback_fn Handler() { return &CLumoraWidgetChecker::m_CbWasAppChanged; }
    static bool Installed(const CLumoraWidgetChecker &c) { return c.m_bWidgetInstalled; }
};

namespace {

const std::string kWidget = "PzKmRvTqXa.Lumora";
const std::string kAppChange = "memory/was/app_change";
constexpr int kError = 6;

std::vector<bool> g_reports;
void OnInstalled(bool bInstalled) { g_reports.push_back(bInstalled); }

// A checker on a known registry with no report heard yet.
struct Fixture {
    explicit Fixture(bool bInstalled)
    {
        tvhost::apps::SetInstalled(kWidget, bInstalled);
        tvhost::Reset();
        log.Clear();
        g_reports.clear();
    }
    LogCapture log;
};

void BumpAppChange()
{
    int n = 0;
    tvhost::settings::GetInt(kAppChange, n);
    tvhost::settings::SetInt(kAppChange, n + 1);
}

} // namespace

TEST(LumoraWidgetChecker, AnInstalledWidgetIsReportedOnceAndItsRemovalToo)
{
    Fixture f(true);
    CLumoraWidgetChecker checker;
    EXPECT_EQ(tvhost::settings::Subscribers(kAppChange), 1);
    EXPECT_TRUE(f.log.Records().empty());

    checker.SetWidgetInstalledCB(OnInstalled);
    EXPECT_EQ(g_reports, std::vector<bool>{true});
    auto lines = f.log.Messages();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[3], "===== CLumoraWidgetChecker in loop function 2 =====");
    EXPECT_EQ(lines[4], "===== CLumoraWidgetChecker in SetWidgetInstalledCB function =====");

    f.log.Clear();
    tvhost::settings::SetInt(kAppChange, 41);
    EXPECT_EQ(g_reports, std::vector<bool>{true}) << "still installed: nothing to report";
    EXPECT_EQ(f.log.Messages(), (std::vector<std::string>{
                                    "===== CLumoraWidgetChecker in m_CbWasAppChanged function 1 =====",
                                    "===== CLumoraWidgetChecker in m_CbWasAppChanged function 2 =====",
                                    "===== CLumoraWidgetChecker in m_CbWasAppChanged function 3 =====",
                                    "The keyName is [memory/was/app_change]",
                                    "Get the app change value success nValue = [41]",
                                    "===== CLumoraWidgetChecker in loop function 1 =====",
                                    "=== Begin to get app info ! ===",
                                    "=== The widget PzKmRvTqXa.Lumora is installed! ===",
                                    "===== CLumoraWidgetChecker in loop function 2 =====",
                                }));

    tvhost::apps::SetInstalled(kWidget, false);
    EXPECT_EQ(g_reports, (std::vector<bool>{true, false}));
    BumpAppChange();
    EXPECT_EQ(g_reports.size(), 2u);
}

TEST(LumoraWidgetChecker, AMissingWidgetIsReportedOnlyOnceInstalled)
{
    Fixture f(false);
    CLumoraWidgetChecker checker;
    checker.SetWidgetInstalledCB(OnInstalled);
    BumpAppChange();
    EXPECT_TRUE(g_reports.empty());

    // The value of the key means nothing, and a failed read still checks.
    tvhost::settings::QueueResult("vconf_get_int", -1);
    f.log.Clear();
    tvhost::apps::SetInstalled(kWidget, true);
    EXPECT_EQ(g_reports, std::vector<bool>{true});
    EXPECT_TRUE(f.log.Has("===== CLumoraWidgetChecker in loop function 2 ====="));
    EXPECT_TRUE(tvhost::log::Find("Get the app change value success").empty());
}

TEST(LumoraWidgetChecker, OnlyIntegerChangesOfTheAppChangeKeyTriggerACheck)
{
    Fixture f(true);
    CLumoraWidgetChecker checker;

    tvhost::settings::SetString(kAppChange, "7");
    ASSERT_TRUE(f.log.Has("The keyName is [memory/was/app_change]")) << "the change was delivered";
    EXPECT_EQ(tvhost::apps::CallCount("was_get_app_info"), 0);
    EXPECT_EQ(tvhost::settings::CallCount("vconf_get_int"), 0);

    // The same handler subscribed to another key.
    ASSERT_EQ(vconf_notify_key_changed("memory/was/other", CLumoraWidgetCheckerTestPeer::Handler(), &checker), 0);
    tvhost::settings::SetInt("memory/was/other", 1);
    EXPECT_TRUE(f.log.Has("The keyName is [memory/was/other]"));
    EXPECT_EQ(tvhost::apps::CallCount("was_get_app_info"), 0);

    f.log.Clear();
    CLumoraWidgetCheckerTestPeer::Handler()(nullptr, nullptr);
    EXPECT_EQ(f.log.PriorityOf("The pChecker is NULL"), kError);
    EXPECT_EQ(f.log.Messages().size(), 2u);
    CLumoraWidgetCheckerTestPeer::Handler()(nullptr, &checker);
    EXPECT_EQ(f.log.PriorityOf("keyName==NULL"), kError);
    EXPECT_EQ(tvhost::apps::CallCount("was_get_app_info"), 0);
    EXPECT_FALSE(CLumoraWidgetCheckerTestPeer::Installed(checker));
}

TEST(LumoraWidgetChecker, AChangeBeforeTheHandlerIsSetUpdatesTheStateSilently)
{
    Fixture f(true);
    CLumoraWidgetChecker checker;
    BumpAppChange();
    EXPECT_TRUE(CLumoraWidgetCheckerTestPeer::Installed(checker));

    checker.SetWidgetInstalledCB(OnInstalled);
    EXPECT_TRUE(g_reports.empty()) << "the handler hears only what differs from the stored state";
    tvhost::apps::SetInstalled(kWidget, false);
    EXPECT_EQ(g_reports, std::vector<bool>{false});
}
