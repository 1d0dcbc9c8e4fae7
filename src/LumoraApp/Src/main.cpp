// Process entry of the service: the watchdog towards systemd and the
// application lifecycle on the platform's main loop.
#include <appcore-efl.h>
#include <libintl.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <vconf.h>

#include <atomic>

#include "ExtLog.h"
#include "LumoraManager.h"
#include "Timer.h"
#include "TvPaths.h"

char *SERVICE_NAME = const_cast<char *>("lumora");

static const char *const LUMORA_TEXT_DOMAIN = "lumora";
static const char *const LUMORA_LOCALE_DIR = LUMORA_TV_PATH("/usr/apps/org.kelvar.lumora/res/locale");
static const char *const LANGUAGE_KEY = "db/menu_widget/language";

// Touched by the watchdog thread only.
static std::atomic<bool> g_bNotifyReady{true};

static void notify_watchdog(void *pData)
{
    (void)pData;
    // Deliberate: a second readiness message, after the timer thread's own
    // "RAApp" one. Pinned by LumoraSupervisionTest (one readiness of the
    // service, before its first watchdog message).
    if (g_bNotifyReady.load(std::memory_order_relaxed)) {
        sd_notifyf(0, "READY=1\nsd_notify READY Proc : %s(%d)", SERVICE_NAME, static_cast<int>(getpid()));
        g_bNotifyReady = false;
    }
    int nResult =
        sd_notifyf(0, "WATCHDOG=1\nsd_notify WATCHDOG Proc : %s(%ld)", SERVICE_NAME, static_cast<long>(getpid()));
    if (nResult < 0) {
        LUMORA_LOG(EXT_LOG_ERROR, "lumora fail to call sd_notifyf: %d", nResult);
        return;
    }
    LUMORA_LOG(EXT_LOG_DEBUG, "lumora successfully notified systemd");
    LUMORA_LOG(EXT_LOG_DEBUG, "Notify watchdog the lumora is alive");
}

static void SetUpTranslation()
{
    appcore_set_i18n(LUMORA_TEXT_DOMAIN, LUMORA_LOCALE_DIR);
    bindtextdomain(LUMORA_TEXT_DOMAIN, LUMORA_LOCALE_DIR);
    textdomain(LUMORA_TEXT_DOMAIN);
}

static void app_lang_change(keynode_t *pKey, void *pData)
{
    (void)pKey;
    (void)pData;
    LUMORA_LOG(EXT_LOG_DEBUG, "In app_lang_change\n");
    SetUpTranslation();
}

static int _app_create(void *pData)
{
    (void)pData;
    LUMORA_LOG(EXT_LOG_DEBUG, "Enter _app_create");
    if (vconf_notify_key_changed(LANGUAGE_KEY, app_lang_change, nullptr) < 0)
        LUMORA_LOG(EXT_LOG_DEBUG, "Unable to register a vconf changed cb to %s.", LANGUAGE_KEY);
    SetUpTranslation();
    if (LumoraManager::GetInstance()->Construct() == 0)
        return 0;
    LUMORA_LOG(EXT_LOG_DEBUG, "LumoraManager Construct error!");
    return -1;
}

static int _app_terminate(void *pData)
{
    (void)pData;
    // Deliberate: nothing is torn down (Destory and ReleaseInstance are not
    // called): the manager and the engine end with the process. No test can
    // tell the difference; LumoraSupervisionTest sees this line once.
    LUMORA_LOG(EXT_LOG_DEBUG, "_app_terminate");
    return 0;
}

static int _app_pause(void *pData)
{
    (void)pData;
    LUMORA_LOG(EXT_LOG_DEBUG, "_app_pause");
    return 0;
}

static int _app_resume(void *pData)
{
    (void)pData;
    LUMORA_LOG(EXT_LOG_DEBUG, "_app_resume");
    return 0;
}

static int _app_reset(bundle *pBundle, void *pData)
{
    (void)pBundle;
    (void)pData;
    LUMORA_LOG(EXT_LOG_DEBUG, "In _app_reset\n");
    return 0;
}

int main(int argc, char **argv)
{
    LUMORA_LOG(EXT_LOG_DEBUG, "############ Enter LumoraApp Main ############");

    CTimer watchdog;
    watchdog.SetTimer(6, notify_watchdog, nullptr, true);
    watchdog.StartTimer();

    for (int i = 0; i < argc; ++i)
        LUMORA_LOG(EXT_LOG_DEBUG, "argv[%d]-----[%s]", i, argv[i]);

    struct appcore_ops ops = {};
    ops.data = nullptr;
    ops.create = _app_create;
    ops.terminate = _app_terminate;
    ops.pause = _app_pause;
    ops.resume = _app_resume;
    ops.reset = _app_reset;

    int nResult = appcore_efl_main(SERVICE_NAME, &argc, &argv, &ops);
    LUMORA_LOG(EXT_LOG_DEBUG, "############ Out LumoraApp Main, ret is %d ############", nResult);
    // The timer's destructor stops and joins the watchdog thread.
    return 0;
}
