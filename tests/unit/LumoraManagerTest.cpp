#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

#include "ManagerFixture.h"
#include "tvhost/apps.h"
#include "tvhost/mainloop.h"
#include "tvhost/network.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;
using Peer = LumoraManagerTestPeer;

namespace {

// Index of the first message equal to text at or after from; -1 if none.
int IndexOf(const std::vector<std::string> &lines, const std::string &text, int from = 0)
{
    for (size_t i = static_cast<size_t>(from); i < lines.size(); ++i)
        if (lines[i] == text)
            return static_cast<int>(i);
    return -1;
}

// The language the engine was told by each command, in order.
std::vector<std::string> LanguageCommands(const LogCapture &log)
{
    std::vector<std::string> out;
    auto lines = log.Messages();
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        const std::string cmd = "CLumoraQorvHelper Begin to Execute strCommand = ";
        const std::string arg = "CLumoraQorvHelper Begin to Execute strParam1 = ";
        if (lines[i].rfind(cmd, 0) == 0 && lines[i + 1].rfind(arg, 0) == 0)
            out.push_back(lines[i].substr(cmd.size(), lines[i].size() - cmd.size() - 1) + " " +
                          lines[i + 1].substr(arg.size(), lines[i + 1].size() - arg.size() - 1));
    }
    return out;
}

} // namespace

TEST_F(ManagerTest, WidgetInstalledAtStartStartsTheEngineOnTheMainLoopAfterThreeSeconds)
{
    EXPECT_EQ(Peer::HasInstance(), false);
    tvhost::apps::SetInstalled(kWidgetApp, true);
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(Peer::Get().Construct(), 0);
    EXPECT_EQ(sim->Calls("qorv_start"), 0) << "the start waits for the main loop";
    EXPECT_TRUE(Peer::WidgetInstalled());

    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_register_callback") == 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 3s);
    EXPECT_EQ(sim->Calls("qorv_start"), 1);

    auto lines = log.Messages();
    int nBegin = IndexOf(lines, "Begin to start qorv!");
    int nSuccess = IndexOf(lines, "Success to start qorv!", nBegin);
    int nCurrent = IndexOf(lines, "Current Language is en_US.UTF-8", nSuccess);
    ASSERT_GE(nBegin, 0);
    ASSERT_GT(nSuccess, nBegin);
    ASSERT_GT(nCurrent, nSuccess);
    EXPECT_GT(IndexOf(lines, "The language to set is en_US!", nCurrent), nCurrent);
    EXPECT_EQ(LanguageCommands(log), (std::vector<std::string>{"SetLanguage en_US", "SetSystemLanguage en_US"}));
    EXPECT_TRUE(log.Has("LumoraManager::Construct SetLanguage strReturn = OK"));
    EXPECT_TRUE(log.Has("LumoraManager::Construct SetSystemLanguage strReturn = OK"));

    // The viewer changes the language: both commands again, with the new code.
    log.Clear();
    tvhost::settings::SetString(kLanguageKey, "ko_KR.UTF-8");
    ASSERT_TRUE(RunUntil([&] { return sim->LastCommand() == "SetSystemLanguage ko_KR"; }));
    EXPECT_EQ(LanguageCommands(log), (std::vector<std::string>{"SetLanguage ko_KR", "SetSystemLanguage ko_KR"}));
    EXPECT_TRUE(log.Has("The keyName is [db/menu_widget/language]"));
}

TEST_F(ManagerTest, WidgetInstalledLaterStartsTheEngineAndRemovalOnlySilencesIt)
{
    ASSERT_EQ(Peer::Get().Construct(), 0);
    tvhost::mainloop::RunFor(300ms);
    EXPECT_EQ(sim->Calls("qorv_start"), 0);
    EXPECT_EQ(log.Count("Enter into m_HandleWidgetInstall"), 0) << "nothing to report while not installed";

    tvhost::apps::SetInstalled(kWidgetApp, true);
    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_register_callback") == 1; }));
    EXPECT_EQ(log.Count("Enter into m_HandleWidgetInstall"), 1);

    log.Clear();
    tvhost::apps::SetInstalled(kWidgetApp, false);
    tvhost::mainloop::RunFor(300ms);
    EXPECT_EQ(log.Count("Enter into m_HandleWidgetInstall"), 1);
    EXPECT_FALSE(Peer::WidgetInstalled());
    EXPECT_FALSE(log.Has("Begin to start qorv!")) << "an uninstall is read and ignored by the pipe's handler";
    EXPECT_EQ(sim->Calls("qorv_stop"), 0) << "removal does not stop the engine";

    // With the widget gone the network refresh is silent.
    tvhost::network::SetType(1);
    tvhost::mainloop::RunFor(300ms);
    EXPECT_EQ(sim->Calls("qorv_refresh"), 0);
    EXPECT_FALSE(log.Has("m_ConnectionTypeChangedCB() is called. type : 1"));

    // Installed again: the start is asked for again, and the binding ignores it.
    log.Clear();
    tvhost::apps::SetInstalled(kWidgetApp, true);
    ASSERT_TRUE(RunUntil([&] { return log.Has("CLumoraQorvHelper Lumora Helper has been started already!"); }));
    EXPECT_EQ(sim->Calls("qorv_start"), 1);
}

TEST_F(ManagerTest, NetworkChangesRefreshTheEngineOnWifiAndEthernetOnly)
{
    ASSERT_EQ(Peer::Get().Construct(), 0);
    tvhost::network::SetType(1);
    tvhost::mainloop::RunFor(200ms);
    EXPECT_FALSE(log.Has("m_ConnectionTypeChangedCB() is called. type : 1")) << "no engine, no log";

    StartWithWidget(false);
    const int kInfo = 4;
    tvhost::network::SetType(0);
    ASSERT_TRUE(RunUntil([&] { return log.Has("m_ConnectionTypeChangedCB() is called. type : 0"); }));
    EXPECT_EQ(log.PriorityOf("m_ConnectionTypeChangedCB() is called. type : 0"), kInfo);
    EXPECT_EQ(sim->Calls("qorv_refresh"), 0);

    tvhost::network::SetType(3);
    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_refresh") == 1; }));
    tvhost::network::SetType(1);
    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_refresh") == 2; }));
    tvhost::network::SetType(2);
    ASSERT_TRUE(RunUntil([&] { return log.Has("m_ConnectionTypeChangedCB() is called. type : 2"); }));
    EXPECT_EQ(sim->Calls("qorv_refresh"), 2) << "cellular is not Wi-Fi or Ethernet";
    EXPECT_FALSE(log.Has("Fail to Refresh the QORV!"));
}

TEST_F(ManagerTest, EachConstructFailureReturnsMinusOneWithItsFatalLine)
{
    const int kFatal = 7;
    tvhost::network::QueueResult("connection_create", -1);
    EXPECT_EQ(Peer::Get().Construct(), -1);
    EXPECT_EQ(log.PriorityOf("connection_create() is failed\n"), kFatal);
    EXPECT_EQ(tvhost::network::CallCount("connection_set_type_changed_cb"), 0);
    Peer::TearDown();

    log.Clear();
    tvhost::network::QueueResult("connection_set_type_changed_cb", -1);
    EXPECT_EQ(Peer::Get().Construct(), -1);
    EXPECT_EQ(log.PriorityOf("connection_set_type_changed_cb() is failed\n"), kFatal);
    bool bHandleLogged = false;
    for (const auto &m : log.Messages())
        bHandleLogged |= m.rfind("connection_create() is successful. connection : 0x", 0) == 0 && m.back() == '\n';
    EXPECT_TRUE(bHandleLogged);
    Peer::TearDown();

    // The data folder cannot be made: a missing folder and a failing mkdir.
    log.Clear();
    std::string data = tvhost::Root() + "/opt/usr/apps/org.kelvar.lumora/data";
    std::filesystem::remove_all(data);
    std::string tools = tvhost::Root() + "/../failing-tools";
    std::filesystem::create_directories(tools);
    {
        std::ofstream script(tools + "/mkdir");
        script << "#!/bin/sh\nexit 1\n";
    }
    chmod((tools + "/mkdir").c_str(), 0755);
    std::string savedPath = std::getenv("PATH");
    setenv("PATH", (tools + ":" + savedPath).c_str(), 1);
    int nCreates = tvhost::network::CallCount("connection_create");
    int nResult = Peer::Get().Construct();
    setenv("PATH", savedPath.c_str(), 1);
    EXPECT_EQ(nResult, -1);
    EXPECT_EQ(log.PriorityOf("Create the data folder failed\n"), kFatal);
    EXPECT_EQ(tvhost::network::CallCount("connection_create"), nCreates);
    Peer::TearDown();

    // The next start prepares the folder again.
    log.Clear();
    EXPECT_EQ(Peer::Get().Construct(), 0);
    std::error_code ec;
    EXPECT_TRUE(std::filesystem::exists(data + "/mode.xml", ec));
}

TEST_F(ManagerTest, LanguageTextsSendThePartBeforeTheFirstDot)
{
    StartWithWidget();
    struct Case {
        const char *text;
        const char *sent;     // language sent, or null for nothing
        const char *message;  // the line that says why
    } cases[] = {
        {"ko_KR.UTF-8", "ko_KR", "The language to set is ko_KR!"},
        {"en_US.UTF-8.x", "en_US", "The language to set is en_US!"},
        {"en", nullptr, "The string has the wrong format!"},
        {".UTF-8", nullptr, "The string is empty!"},
    };
    for (const auto &c : cases) {
        log.Clear();
        int nBefore = sim->Calls("qorv_excute");
        Peer::SetLanguage(c.text);
        EXPECT_TRUE(log.Has(c.message)) << c.text;
        if (c.sent) {
            EXPECT_EQ(LanguageCommands(log), (std::vector<std::string>{std::string("SetLanguage ") + c.sent,
                                                                        std::string("SetSystemLanguage ") + c.sent}));
        } else {
            EXPECT_EQ(sim->Calls("qorv_excute"), nBefore) << c.text;
        }
    }
}

TEST_F(ManagerTest, LanguageCallbackIgnoresOtherKeysTypesAndMissingData)
{
    StartWithWidget();
    const int kError = 6;
    int nBefore = sim->Calls("qorv_excute");

    LumoraManager::m_CbSystemLanguageChanged(nullptr, nullptr);
    EXPECT_EQ(log.PriorityOf("The pManager is NULL"), kError);
    LumoraManager::m_CbSystemLanguageChanged(nullptr, &Peer::Get());
    EXPECT_EQ(log.PriorityOf("keyName==NULL"), kError);

    // The same callback on another key, and the language key turned integer.
    vconf_notify_key_changed("db/lumora/other", LumoraManager::m_CbSystemLanguageChanged, &Peer::Get());
    tvhost::settings::SetString("db/lumora/other", "de_DE.UTF-8");
    ASSERT_TRUE(RunUntil([&] { return log.Has("The keyName is [db/lumora/other]"); }));
    log.Clear();
    tvhost::settings::SetInt(kLanguageKey, 5);
    ASSERT_TRUE(RunUntil([&] { return log.Has("The keyName is [db/menu_widget/language]"); }));
    tvhost::mainloop::RunFor(100ms);
    EXPECT_EQ(sim->Calls("qorv_excute"), nBefore);
    EXPECT_FALSE(log.Has("Current Language is de_DE.UTF-8"));
}

TEST_F(ManagerTest, OneInstanceUntilReleased)
{
    LumoraManager *p = LumoraManager::GetInstance();
    EXPECT_EQ(LumoraManager::GetInstance(), p);
    EXPECT_EQ(log.Count("LumoraManager::LumoraManager()"), 1);
    LumoraManager::ReleaseInstance();
    EXPECT_EQ(log.Count("LumoraManager::~LumoraManager()"), 1);
    EXPECT_FALSE(Peer::HasInstance());
    LumoraManager::ReleaseInstance();  // a second release does nothing
    EXPECT_EQ(log.Count("LumoraManager::~LumoraManager()"), 1);
}
