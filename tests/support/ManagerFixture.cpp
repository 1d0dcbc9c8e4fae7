#include "ManagerFixture.h"

#include <cstdlib>

#include "tvhost/service.h"
#include "tvhost/apps.h"
#include "tvhost/mainloop.h"
#include "tvhost/network.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

void LumoraManagerTestPeer::TearDown()
{
    if (LumoraManager::m_pInstance) {
        connection_h hConnection = LumoraManager::m_pInstance->m_connection;
        LumoraManager::m_pInstance->Destory();
        // Destory hands the platform the handle's address, as defined, so the
        // handle itself is still open: released here, or it leaks per test.
        if (hConnection)
            connection_destroy(hConnection);
        LumoraManager::ReleaseInstance();
    }
    LumoraManager::m_pWidgetCheckerPipe = nullptr;
    LumoraManager::m_bWidgetInstalled = false;
}

void ManagerTest::SetUp()
{
    // The TV's own tools (chsmack, the app-user mapping) first, as on the TV.
    static bool bPathSet = false;
    if (!bPathSet) {
        std::string path = tvhost::Root() + "/usr/bin:" + std::getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        bPathSet = true;
    }
    setenv("QORV_SIM_QUIET", "1", 1);
    tvhost::mainloop::Attach();
    tvhost::apps::SetInstalled(kWidgetApp, false);
    tvhost::apps::SetRunning(kWidgetApp, false);
    tvhost::network::SetType(3);
    tvhost::settings::SetString(kLanguageKey, "en_US.UTF-8");
    sim.reset(new EngineSim);
    tvhost::Reset();
    log.Clear();
}

void ManagerTest::TearDown()
{
    LumoraManagerTestPeer::TearDown();
    sim.reset();
    tvhost::network::ClearOverride();
    tvhost::mainloop::Detach();
}

void ManagerTest::StartWithWidget()
{
    tvhost::apps::SetInstalled(kWidgetApp, true);
    ASSERT_EQ(LumoraManagerTestPeer::Get().Construct(), 0);
    ASSERT_TRUE(RunUntil([&] { return sim->Calls("qorv_register_callback") == 1; })) << "the engine did not start";
}
