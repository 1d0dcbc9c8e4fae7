// The host TV's main loop: the application framework's lifecycle, and the
// platform's change notifications arriving on the loop's thread, also when
// another process makes the change.
#include <gtest/gtest.h>

#include <appcore-efl.h>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <libintl.h>
#include <net_connection.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vconf.h>

#include "LogCapture.h"
#include "tvhost/mainloop.h"
#include "tvhost/network.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

using namespace std::chrono_literals;

namespace {

std::vector<std::string> g_calls;
int g_nCreateResult = 0;

int Create(void *)
{
    g_calls.push_back("create");
    if (g_nCreateResult == 0)
        std::thread([] {
            std::this_thread::sleep_for(200ms);
            kill(getpid(), SIGTERM);
        }).detach();
    return g_nCreateResult;
}

int Terminate(void *)
{
    g_calls.push_back("terminate");
    return 0;
}

// Runs in a child process: the change comes from outside this one.
void InChild(const std::function<void()> &fn)
{
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        fn();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
}

struct Heard {
    std::thread::id thread;
    std::string key;
    int type = 0;
    int count = 0;
};

void OnKey(keynode_t *node, void *pData)
{
    auto *h = static_cast<Heard *>(pData);
    h->thread = std::this_thread::get_id();
    h->key = vconf_keynode_get_name(node);
    h->type = vconf_keynode_get_type(node);
    ++h->count;
}

void OnType(connection_type_e type, void *pData)
{
    static_cast<std::atomic<int> *>(pData)->store(static_cast<int>(type));
}

} // namespace

TEST(TvhostMainLoop, AppcoreRunsCreateLoopAndTerminateAndSigtermEndsTheLoop)
{
    appcore_ops ops = {};
    ops.create = Create;
    ops.terminate = Terminate;
    g_calls.clear();
    g_nCreateResult = 0;
    EXPECT_EQ(appcore_efl_main("test", nullptr, nullptr, &ops), 0);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"create", "terminate"}));
    EXPECT_NE(std::string(std::getenv("PATH")).find(tvhost::Root() + "/usr/bin"), std::string::npos)
        << "the host TV's tools come first on PATH";

    g_calls.clear();
    g_nCreateResult = -1;
    EXPECT_EQ(appcore_efl_main("test", nullptr, nullptr, &ops), -1);
    EXPECT_EQ(g_calls, std::vector<std::string>{"create"}) << "no loop and no terminate after a failed create";
}

TEST(TvhostMainLoop, SettingsWrittenByAnotherProcessReachTheMainLoop)
{
    LogCapture log;
    tvhost::mainloop::Attach();
    Heard heard;
    ASSERT_EQ(vconf_notify_key_changed("db/test/loop", OnKey, &heard), 0);
    InChild([] { tvhost::settings::SetString("db/test/loop", "from a child"); });
    EXPECT_TRUE(tvhost::mainloop::RunUntil([&] { return heard.count > 0; }, 5s));
    EXPECT_EQ(heard.thread, std::this_thread::get_id());
    EXPECT_EQ(heard.key, "db/test/loop");
    EXPECT_EQ(heard.type, VCONF_TYPE_STRING);

    // A write in this process arrives once, on the loop, not on the writer's call.
    heard.count = 0;
    tvhost::settings::SetInt("db/test/loop", 7);
    EXPECT_EQ(heard.count, 0);
    tvhost::mainloop::RunFor(300ms);
    EXPECT_EQ(heard.count, 1);
    EXPECT_EQ(heard.type, VCONF_TYPE_INT);
    tvhost::mainloop::Detach();

    // Without a loop the writer's call delivers.
    tvhost::settings::SetInt("db/test/loop", 8);
    EXPECT_EQ(heard.count, 2);
}

TEST(TvhostMainLoop, NetworkTypeSetByAnotherProcessReachesTheMainLoop)
{
    LogCapture log;
    tvhost::network::SetType(3);
    tvhost::mainloop::Attach();
    connection_h h = nullptr;
    ASSERT_EQ(connection_create(&h), 0);
    std::atomic<int> type{-1};
    ASSERT_EQ(connection_set_type_changed_cb(h, OnType, &type), 0);
    InChild([] { tvhost::network::SetType(1); });
    EXPECT_TRUE(tvhost::mainloop::RunUntil([&] { return type == 1; }, 5s));
    connection_type_e now;
    EXPECT_EQ(connection_get_type(h, &now), 0);
    EXPECT_EQ(now, CONNECTION_TYPE_WIFI);
    EXPECT_NE(connection_destroy(reinterpret_cast<connection_h>(&h)), 0) << "not a handle: refused untouched";
    EXPECT_EQ(connection_destroy(h), 0);
    tvhost::mainloop::Detach();
    tvhost::network::ClearOverride();
}

TEST(TvhostMainLoop, TranslationsFollowTheTvLanguage)
{
    tvhost::settings::SetString("db/menu_widget/language", "ko_KR.UTF-8");
    std::string dir = tvhost::Root() + "/usr/apps/org.kelvar.lumora/res/locale";
    EXPECT_EQ(appcore_set_i18n("lumora", dir.c_str()), 0);
    EXPECT_STREQ(std::getenv("LANGUAGE"), "ko_KR");
    EXPECT_STRNE(dgettext("lumora", "SID_CLOSE"), "SID_CLOSE") << "the Korean catalogue is used";

    tvhost::settings::SetString("db/menu_widget/language", "en_US.UTF-8");
    EXPECT_EQ(appcore_set_i18n("lumora", dir.c_str()), 0);
    EXPECT_STREQ(std::getenv("LANGUAGE"), "en_US");
    EXPECT_STREQ(dgettext("lumora", "SID_CLOSE"), "Close");
}
