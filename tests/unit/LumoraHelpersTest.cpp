// The service's thin platform helpers: the data folder, the widget's queries
// and launch, the widget watcher and the power-off.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <app_control.h>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <unistd.h>

#include "DataFolderHelper.h"
#include "LogCapture.h"
#include "LumoraTv.h"
#include "LumoraTvControl.h"
#include "LumoraWidgetChecker.h"
#include "LumoraWidgetHelper.h"
#include "tvhost/apps.h"
#include "tvhost/faults.h"
#include "tvhost/power.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Field;
using ::testing::HasSubstr;
using Record = tvhost::log::Record;

class CLumoraWidgetHelperTestPeer {
public:
    static std::string &DeviceID(CLumoraWidgetHelper &h) { return h.m_strDeviceID; }
};

namespace {

constexpr int kDebug = 3;
constexpr int kError = 6;
const std::string kWidget = "PzKmRvTqXa.Lumora";
const std::string kAppChange = "memory/was/app_change";
using Lines = std::vector<std::string>;

std::vector<bool> g_reports;
void OnInstalled(bool bInstalled)
{
    g_reports.push_back(bInstalled);
}

// PATH as on the TV, its own tools first, behind a folder with one tool that fails.
struct ToolPath {
    explicit ToolPath(const std::string &failing)
    {
        fs::create_directories(dir);
        std::ofstream(dir + "/" + failing) << "#!/bin/sh\nexit 1\n";
        fs::permissions(dir + "/" + failing, fs::perms::owner_all);
        setenv("PATH", (dir + ":" + tvhost::Root() + "/usr/bin:" + saved).c_str(), 1);
    }
    ~ToolPath()
    {
        setenv("PATH", saved.c_str(), 1);
        fs::remove_all(dir);
    }
    const std::string saved = std::getenv("PATH");
    const std::string dir = fs::temp_directory_path() / ("lumora-tools-" + std::to_string(getpid()));
};

class DataFolderHelper : public ::testing::Test {
protected:
    void SetUp() override
    {
        fs::remove_all(data);
        fs::remove(labels);
    }
    void TearDown() override { fs::remove_all(data); }
    // The log of a run of these commands, then after.
    static Lines LogOf(Lines ran, const Lines &after)
    {
        for (auto &command : ran)
            command = "[ExecuteCommand] the command is '" + command + "'";
        ran.insert(ran.begin(), "[CreateQORVDataFolder] begin");
        ran.insert(ran.end(), after.begin(), after.end());
        return ran;
    }
    LogCapture log;
    const std::string data = tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data";
    const std::string shipped = tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin/mode.xml";
    const std::string labels = tvhost::Root() + "/opt/var/tvhost/smack/labels", label = "\"org.kelvar.lumora\"";
    const Lines commands = {"mkdir -p " + data, "cp " + shipped + " " + data, "chmod 777 -R " + data,
                            "chown app.app -R " + data, "chsmack -a " + label + " -e " + label + " " + data};
};

} // namespace

// A later run leaves the folder alone but copies a missing file.
TEST_F(DataFolderHelper, FirstRunPreparesTheFolder)
{
    ToolPath tools("none");
    EXPECT_TRUE(CDataFolderHelper().CreateDataFolder());
    EXPECT_EQ(log.Messages(), LogOf(commands, {"[CreateQORVDataFolder] end"}));
    EXPECT_EQ(log.PriorityOf("[CreateQORVDataFolder] begin"), kDebug);
    EXPECT_EQ(ReadFile(data + "/mode.xml"), ReadFile(shipped));
    EXPECT_EQ(fs::status(data + "/mode.xml").permissions(), fs::perms::all);
    EXPECT_THAT(ReadFile(labels), HasSubstr(fs::canonical(data).string() + "\torg.kelvar.lumora\torg.kelvar.lumora\n"));
    log.Clear();
    EXPECT_TRUE(CDataFolderHelper().CreateDataFolder());
    EXPECT_EQ(log.Messages(),
              (Lines{"[CreateQORVDataFolder] begin", "[CreateQORVDataFolder] the QORV storage path is already exist",
                     "[CreateQORVDataFolder] the QORV mode.xml is already exist"}));
    // The folder there, the file gone: everything but mkdir runs again.
    log.Clear();
    fs::remove(data + "/mode.xml");
    EXPECT_TRUE(CDataFolderHelper().CreateDataFolder());
    Lines again = LogOf(Lines(commands.begin() + 1, commands.end()), {"[CreateQORVDataFolder] end"});
    again.insert(again.begin() + 1, "[CreateQORVDataFolder] the QORV storage path is already exist");
    EXPECT_EQ(log.Messages(), again);
}

// Nothing is undone.
TEST_F(DataFolderHelper, AFailingCommandEndsTheRun)
{
    for (size_t failing = 0; failing < commands.size(); ++failing) {
        const std::string tool = commands[failing].substr(0, commands[failing].find(' '));
        SCOPED_TRACE(tool);
        ToolPath tools(tool);
        fs::remove_all(data);
        log.Clear();
        EXPECT_FALSE(CDataFolderHelper().CreateDataFolder());
        EXPECT_EQ(log.Messages(), LogOf(Lines(commands.begin(), commands.begin() + failing + 1),
                                        {"[ExecuteCommand] '" + commands[failing] + "' is failed!!!"}));
        EXPECT_EQ(log.Records().back().priority, kError);
        EXPECT_EQ(fs::is_directory(data), failing > 0);
    }
}

TEST_F(DataFolderHelper, ALongCommandIsLoggedCutButRunWhole)
{
    const std::string out = tvhost::Root() + "/long-command.out";
    const std::string text(300 - std::strlen("printf %s ") - (" > " + out).size() - 3, 'x');
    const std::string command = "printf %s " + text + "END > " + out;
    EXPECT_TRUE(CDataFolderHelper().ExecuteCommand(command));
    EXPECT_EQ(ReadFile(out), text + "END");
    EXPECT_EQ(log.Messages(), Lines{"[ExecuteCommand] the command is '" + command.substr(0, 256) + "'"});
    fs::remove(out);
}

namespace {

class WidgetHelper : public ::testing::Test {
protected:
    void SetUp() override
    {
        tvhost::apps::SetInstalled(kWidget, true);
        tvhost::apps::SetRunning(kWidget, true);
        tvhost::Reset();
    }
    LogCapture log;
    CLumoraWidgetHelper helper;
};

} // namespace

// Up to five retries on -2; any other failure is final at once.
TEST_F(WidgetHelper, InstalledRetriesOnlyWhileTheServiceIsBusy)
{
    tvhost::faults::Queue("was_get_app_info", -2, 6);
    EXPECT_FALSE(helper.IsWidgetInstalled(kWidget)) << "a sixth busy answer is final";
    EXPECT_EQ(tvhost::faults::Calls("was_get_app_info"), 6);
    EXPECT_EQ(log.Count("=== Begin to get app info ! ==="), 6);
    EXPECT_EQ(log.PriorityOf("=== The widget PzKmRvTqXa.Lumora is not installed! ==="), kDebug);
    tvhost::Reset();
    tvhost::faults::Queue("was_get_app_info", -2, 5);
    EXPECT_TRUE(helper.IsWidgetInstalled(kWidget));
    EXPECT_EQ(tvhost::faults::Calls("was_get_app_info"), 6);
    tvhost::Reset();
    tvhost::faults::Queue("was_get_app_info", -2);
    tvhost::faults::Queue("was_get_app_info", -1);
    EXPECT_FALSE(helper.IsWidgetInstalled(kWidget));
    EXPECT_EQ(tvhost::faults::Calls("was_get_app_info"), 2);
}

// Three failed status calls are final; a fourth, successful answer is never
// asked for. A failed call that nevertheless set the status word ends the retries.
TEST_F(WidgetHelper, LaunchedReadsTheStatusAndRetriesAFailedStatusCallTwice)
{
    EXPECT_TRUE(helper.IsWidgetLaunched(kWidget));
    EXPECT_EQ(log.PriorityOf("=====The widget PzKmRvTqXa.Lumora has been launched !=====\n"), kDebug);
    tvhost::apps::SetRunning(kWidget, false);
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget));
    EXPECT_TRUE(log.Has("=====The widget PzKmRvTqXa.Lumora has not been launched !=====\n"));
    tvhost::Reset();
    tvhost::faults::Queue("was_get_app_status", {-1, 0}, 3);
    tvhost::faults::Queue("was_get_app_status", {0, 1});
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget));
    EXPECT_EQ(tvhost::faults::Calls("was_get_app_status"), 3);
    EXPECT_EQ(log.Count("=====Get the widget PzKmRvTqXa.Lumora info error =====\n"), 3);
    tvhost::Reset();
    tvhost::faults::Queue("was_get_app_status", {-1, 1});
    EXPECT_FALSE(helper.IsWidgetLaunched(kWidget));
    EXPECT_EQ(tvhost::faults::Calls("was_get_app_status"), 1);
}

TEST_F(WidgetHelper, LaunchSendsTheDeviceEvenToARunningWidget)
{
    helper.LaunchWidget(kWidget, "dev-2");
    EXPECT_EQ(log.PriorityOf("=== The widget has been launched, then return it! ===\n"), kError);
    EXPECT_EQ(log.PriorityOf("=== Succeeded to launch a WebApp ====="), kError);
    const auto launches = tvhost::apps::Launches();
    ASSERT_EQ(launches.size(), 1u);
    EXPECT_EQ(launches[0].operation, APP_CONTROL_OPERATION_DEFAULT);
    EXPECT_THAT(launches[0].extraData, ElementsAre(std::make_pair("deviceID", "dev-2")));
    EXPECT_THAT(tvhost::faults::CallLog(),
                ElementsAre("was_get_app_info", "was_get_app_info", "was_get_app_status", "app_control_create",
                            "app_control_set_operation", "app_control_set_app_id", "app_control_add_extra_data",
                            "app_control_send_launch_request", "app_control_destroy"));
}

// Only logged; the handle is released all the same and the device stored.
// Nothing is sent to a widget not installed, and the last device is kept.
TEST_F(WidgetHelper, ARefusedLaunchOrHandleIsOnlyLoggedAndAMissingWidgetGetsNothing)
{
    for (const char *fn : {"app_control_send_launch_request", "app_control_create"}) {
        SCOPED_TRACE(fn);
        tvhost::Reset();
        tvhost::apps::SetRunning(kWidget, false);
        tvhost::faults::Queue(fn, -1);
        helper.LaunchWidget(kWidget, "dev-7");
        EXPECT_EQ(log.PriorityOf("=== Failed to launch a WebApp ====="), kError);
        EXPECT_EQ(tvhost::faults::Calls("app_control_destroy"), 1);
        EXPECT_EQ(CLumoraWidgetHelperTestPeer::DeviceID(helper), "dev-7");
    }
    tvhost::Reset();
    tvhost::apps::SetInstalled(kWidget, false);
    helper.LaunchWidget(kWidget, "dev-9");
    EXPECT_EQ(log.PriorityOf("=====The widget PzKmRvTqXa.Lumora has not been installed ====="), kError);
    EXPECT_EQ(tvhost::faults::Calls("app_control_create"), 0);
    EXPECT_EQ(CLumoraWidgetHelperTestPeer::DeviceID(helper), "dev-7");
}

namespace {

class WidgetChecker : public ::testing::Test {
protected:
    void SetUp() override
    {
        tvhost::apps::SetInstalled(kWidget, true);
        tvhost::Reset();
        g_reports.clear();
        checker = std::make_unique<CLumoraWidgetChecker>();
    }
    LogCapture log;
    std::unique_ptr<CLumoraWidgetChecker> checker;
};

} // namespace

TEST_F(WidgetChecker, AStringChangeIsDeliveredButNotChecked)
{
    EXPECT_EQ(tvhost::settings::Subscribers(kAppChange), 1);
    EXPECT_TRUE(log.Records().empty());
    tvhost::settings::SetString(kAppChange, "7");
    ASSERT_TRUE(log.Has("The keyName is [memory/was/app_change]")) << "the change was delivered";
    EXPECT_EQ(tvhost::faults::Calls("was_get_app_info"), 0);
    EXPECT_EQ(tvhost::faults::Calls("vconf_get_int"), 0);
}

// A change before the handler is set updates the state silently.
TEST_F(WidgetChecker, AnIntegerChangeChecksTheWidget)
{
    tvhost::settings::SetInt(kAppChange, 41);
    EXPECT_THAT(log.Messages(),
                ElementsAre("===== CLumoraWidgetChecker in m_CbWasAppChanged function 1 =====",
                            "===== CLumoraWidgetChecker in m_CbWasAppChanged function 2 =====",
                            "===== CLumoraWidgetChecker in m_CbWasAppChanged function 3 =====",
                            "The keyName is [memory/was/app_change]", "Get the app change value success nValue = [41]",
                            "===== CLumoraWidgetChecker in loop function 1 =====", "=== Begin to get app info ! ===",
                            "=== The widget PzKmRvTqXa.Lumora is installed! ===",
                            "===== CLumoraWidgetChecker in loop function 2 ====="));
}

TEST_F(WidgetChecker, TheHandlerHearsOnlyChangesOfTheStateReadOrNot)
{
    tvhost::settings::SetInt(kAppChange, 41);
    log.Clear();
    checker->SetWidgetInstalledCB(OnInstalled);
    EXPECT_TRUE(g_reports.empty());
    EXPECT_EQ(log.Messages().back(), "===== CLumoraWidgetChecker in SetWidgetInstalledCB function =====");
    EXPECT_EQ(log.Messages().size(), 5u) << "checked again at once";
    // The value of the key means nothing: a failed read still checks.
    log.Clear();
    tvhost::faults::Queue("vconf_get_int", -1);
    tvhost::apps::SetInstalled(kWidget, false); // bumps the key
    EXPECT_THAT(g_reports, ElementsAre(false));
    EXPECT_TRUE(log.Has("===== CLumoraWidgetChecker in loop function 2 ====="));
    EXPECT_TRUE(tvhost::log::Find("Get the app change value success").empty());
    tvhost::settings::SetInt(kAppChange, 42);
    EXPECT_THAT(g_reports, ElementsAre(false));
}

TEST(LumoraTvControl, PowerOffAsksForKindThreeAndReportsWhetherItWasAccepted)
{
    LogCapture log;
    CLumoraTvControl control;
    tvhost::faults::Queue("device_power_request_poweroff", 5); // any refusal counts
    EXPECT_FALSE(control.PowerOff());
    EXPECT_TRUE(control.PowerOff());
    EXPECT_THAT(tvhost::power::Requests(), ElementsAre(3, 3));
    EXPECT_THAT(log.Records(),
                ElementsAre(AllOf(Field(&Record::priority, kDebug),
                                  Field(&Record::text, EndsWith(">CLumoraTvControl failed to power off the TV!"))),
                            AllOf(Field(&Record::priority, kDebug),
                                  Field(&Record::text, EndsWith(">CLumoraTvControl success to power off the TV!")))));
}
