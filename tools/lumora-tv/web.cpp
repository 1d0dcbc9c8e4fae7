// web: the host TV in a browser.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "commands.h"
#include "web/server.h"

namespace lumoratv {

namespace {

std::string ServiceEnd(int status)
{
    if (WIFEXITED(status))
        return "exit status " + std::to_string(WEXITSTATUS(status));
    return std::string("signal ") + strsignal(WTERMSIG(status));
}

} // namespace

int Web(const Args &args)
{
    std::string listenText = "127.0.0.1:8080";
    bool bRun = false;
    std::string scenario;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--listen" && i + 1 < args.size())
            listenText = args[++i];
        else if (args[i] == "--run")
            bRun = true;
        else if (args[i] == "--scenario" && i + 1 < args.size())
            scenario = args[++i];
        else
            throw BadArguments{};
    }
    if (!scenario.empty() && !bRun)
        throw UsageError("--scenario goes with --run: the page's server starts the service only with --run");
    const std::optional<hostweb::Listen> listen = hostweb::ParseListen(listenText);
    if (!listen)
        throw UsageError("bad --listen \"" + listenText + "\": give ADDRESS:PORT, e.g. 127.0.0.1:8080");

    hostweb::Options options;
    options.listen = *listen;
    options.wwwDir = hostweb::DefaultWwwDir();
    options.bRun = bRun;
    if (access((options.wwwDir + "/index.html").c_str(), R_OK) != 0)
        throw hosttv::Error(hosttv::Error::Kind::kCannot,
                            "the page's files are missing: " + options.wwwDir + "/index.html; build this tree first");
    hostweb::Server server(options);
    if (!server.Bind()) {
        const int error = errno;
        if (error == EADDRINUSE)
            throw hosttv::Error(hosttv::Error::Kind::kCannot, listenText + ": port in use, try --listen " +
                                                                  listen->host + ":" +
                                                                  std::to_string(listen->port + 1));
        throw hosttv::Error(hosttv::Error::Kind::kCannot,
                            "cannot listen on " + listenText + ": " + std::strerror(error));
    }

    // Blocked before any thread or the service starts: the signals wait for
    // the loop below, and the service starts with none blocked.
    sigset_t wanted;
    sigemptyset(&wanted);
    for (int sig : {SIGINT, SIGTERM, SIGCHLD})
        sigaddset(&wanted, sig);
    sigprocmask(SIG_BLOCK, &wanted, nullptr);
    int pid = 0;
    if (bRun) {
        const hosttv::RunPlan plan = hosttv::PrepareRun(scenario);
        std::fprintf(stderr, "lumora-tv: the engine plays scenario \"%s\" (%s): %s\n", plan.scenario.c_str(),
                     plan.why.c_str(), hosttv::ScenarioText(plan.scenario).c_str());
        pid = hosttv::StartService(plan);
        std::fprintf(stderr, "lumora-tv: started %s (pid %d); Ctrl-C here ends it with the page\n", plan.binary.c_str(),
                     pid);
    }

    const std::vector<std::string> urls = server.Urls();
    std::printf("lumora-tv: the host TV in a browser: open %s\n", urls[0].c_str());
    for (size_t i = 1; i < urls.size(); ++i)
        std::printf("lumora-tv: or %s\n", urls[i].c_str());
    if (listen->host != "::1" && listen->host.compare(0, 4, "127.") != 0)
        std::printf("lumora-tv: warning: %s is reachable from other machines; anyone there can drive this TV\n",
                    listenText.c_str());
    std::printf("lumora-tv: Ctrl-C ends it\n");
    std::fflush(stdout);
    std::thread serving([&server] { server.Serve(); });

    // Serves until Ctrl-C or SIGTERM; a service of --run that ends meanwhile
    // (the engine switched the TV off) leaves the page up to show it.
    siginfo_t info{};
    for (;;) {
        if (sigwaitinfo(&wanted, &info) < 0)
            continue;
        int status = 0;
        if (info.si_signo != SIGCHLD)
            break;
        if (pid && waitpid(pid, &status, WNOHANG) == pid) {
            std::fprintf(stderr, "lumora-tv: the service (pid %d) ended: %s; the page stays until Ctrl-C\n", pid,
                         ServiceEnd(status).c_str());
            pid = 0;
        }
    }
    if (pid) {
        std::fprintf(stderr, "%sstopping: the watchdog timer may take up to 6 s\n", isatty(STDERR_FILENO) ? "\n" : "");
        // The terminal's Ctrl-C reached the service too; a signal sent to
        // this process alone did not.
        if (info.si_code != SI_KERNEL)
            kill(pid, SIGTERM);
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
        std::fprintf(stderr, "lumora-tv: the service (pid %d) ended: %s\n", pid, ServiceEnd(status).c_str());
    }
    server.Stop();
    serving.join();
    return 128 + info.si_signo;
}

} // namespace lumoratv
