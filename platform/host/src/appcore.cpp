// The application framework on the host: the real EFL Ecore main loop, ended
// by SIGTERM or SIGINT (or by a power-off), with the lifecycle callbacks
// around it, and the TV's language applied to the process's translations.
#include <appcore-efl.h>

#include <Ecore.h>
#include <clocale>
#include <csignal>
#include <pthread.h>
#include <cstdlib>
#include <libintl.h>
#include <string>
#include <vconf.h>

#include "registry.h"
#include "tvhost/tvhost.h"

namespace {

Eina_Bool OnExitSignal(void *, int, void *)
{
    ecore_main_loop_quit();
    return ECORE_CALLBACK_DONE;
}

void QuitOnLoop(void *)
{
    ecore_main_loop_quit();
}

// The TV's own tools (chsmack, the app-user mapping of chown) come first, as
// they do on the TV.
void PrependToolPath()
{
    std::string tools = tvhost::Root() + "/usr/bin";
    const char *pPath = std::getenv("PATH");
    std::string path = pPath && *pPath ? tools + ":" + pPath : tools;
    setenv("PATH", path.c_str(), 1);
}

} // namespace

extern "C" int appcore_efl_main(const char *name, int *argc, char ***argv, struct appcore_ops *ops)
{
    (void)name;
    (void)argc;
    (void)argv;
    if (ops == nullptr)
        return -1;

    // Without it Ecore looks for system modules and complains about a missing
    // system bus on a desktop.
    setenv("ECORE_NO_SYSTEM_MODULES", "1", 1);
    PrependToolPath();
    if (ecore_init() <= 0)
        return -1;

    Ecore_Event_Handler *pExit = ecore_event_handler_add(ECORE_EVENT_SIGNAL_EXIT, OnExitSignal, nullptr);
    tvhost::detail::SetMainLoopActive(true);
    tvhost::detail::SetMainLoopQuitter([] { ecore_main_loop_thread_safe_call_async(QuitOnLoop, nullptr); });

    // The threads that platform services start during create (the
    // notification service's) inherit a mask without the process's
    // asynchronous signals, as on the TV, where those services live in other
    // processes: SIGCHLD of the data folder's commands and SIGTERM then reach
    // this thread, whose main loop reads what Ecore's handler wrote, and never
    // a thread whose handler write races with Ecore's shutdown closing its pipe.
    sigset_t async, previous;
    sigfillset(&async);
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
        sigdelset(&async, sig);
    pthread_sigmask(SIG_BLOCK, &async, &previous);
    const bool bCreated = !ops->create || ops->create(ops->data) == 0;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);

    int nResult = 0;
    if (!bCreated) {
        nResult = -1;
    } else {
        ecore_main_loop_begin();
        if (ops->terminate)
            ops->terminate(ops->data);
    }

    tvhost::detail::SetMainLoopQuitter(nullptr);
    tvhost::detail::SetMainLoopActive(false);
    ecore_event_handler_del(pExit);
    ecore_shutdown();
    return nResult;
}

extern "C" int appcore_set_i18n(const char *domainname, const char *dirname)
{
    if (domainname == nullptr)
        return -1;

    char *pLanguage = vconf_get_str("db/menu_widget/language");
    std::string language = pLanguage ? pLanguage : "";
    std::free(pLanguage);

    // A host rarely has the TV's locales installed; gettext follows LANGUAGE
    // whenever the locale is anything but "C", so C.UTF-8 is enough.
    if (language.empty() || !std::setlocale(LC_ALL, language.c_str()))
        std::setlocale(LC_ALL, "C.UTF-8");
    std::string code = language.substr(0, language.find('.'));
    if (!code.empty())
        setenv("LANGUAGE", code.c_str(), 1);

    if (dirname)
        bindtextdomain(domainname, dirname);
    textdomain(domainname);
    return 0;
}

#include "tvhost/mainloop.h"

namespace tvhost {
namespace mainloop {

void Attach()
{
    setenv("ECORE_NO_SYSTEM_MODULES", "1", 1);
    ecore_init();
    detail::SetMainLoopActive(true);
}

void Detach()
{
    detail::SetMainLoopActive(false);
    ecore_shutdown();
}

namespace {
struct Until {
    const std::function<bool()> *pred;
    bool bMet;
    bool bExpired;
};

Eina_Bool Check(void *pData)
{
    auto *u = static_cast<Until *>(pData);
    if ((*u->pred)()) {
        u->bMet = true;
        ecore_main_loop_quit();
        return ECORE_CALLBACK_CANCEL;
    }
    return ECORE_CALLBACK_RENEW;
}

Eina_Bool Expire(void *pData)
{
    static_cast<Until *>(pData)->bExpired = true;
    ecore_main_loop_quit();
    return ECORE_CALLBACK_CANCEL;
}
} // namespace

bool RunUntil(const std::function<bool()> &pred, std::chrono::milliseconds timeout)
{
    if (pred())
        return true;
    Until u{&pred, false, false};
    Ecore_Timer *pPoll = ecore_timer_add(0.005, Check, &u);
    Ecore_Timer *pLimit = ecore_timer_add(static_cast<double>(timeout.count()) / 1000.0, Expire, &u);
    ecore_main_loop_begin();
    // A timer that fired and cancelled itself is already gone.
    if (!u.bMet)
        ecore_timer_del(pPoll);
    if (!u.bExpired)
        ecore_timer_del(pLimit);
    return pred();
}

void RunFor(std::chrono::milliseconds duration)
{
    RunUntil([] { return false; }, duration);
}

} // namespace mainloop
} // namespace tvhost
