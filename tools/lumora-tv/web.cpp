// web: the host TV in a browser.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <atomic>
#include <mutex>
#include <thread>
#include <unistd.h>

#include "commands.h"
#include "web/server.h"

namespace lumoratv {

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
    const bool bTerminal = isatty(STDERR_FILENO);
    bool bEnding = false; // this command is ending, its service with it
    hosttv::OwnedService child({
        [](const hosttv::RunPlan &plan) { std::fprintf(stderr, "lumora-tv: %s\n", hosttv::PlanText(plan).c_str()); },
        [](int pid, const std::string &binary) {
            std::fprintf(stderr, "lumora-tv: started %s (pid %d); Ctrl-C here ends it with the page\n", binary.c_str(),
                         pid);
        },
        [bTerminal] {
            std::fprintf(stderr, "%sstopping: the watchdog timer may take up to 6 s\n", bTerminal ? "\n" : "");
        },
        [&bEnding](int pid, const std::string &endText) {
            std::fprintf(stderr, "lumora-tv: %s (pid %d)%s\n", endText.empty() ? "the service ended" : endText.c_str(),
                         pid, bEnding ? "" : "; the page stays until Ctrl-C");
        },
    });
    options.service = &child;
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

    // Taken before any thread or the service starts: every thread has the
    // stop signals blocked, and they wait for the loop below.
    proc::StopSignals signals;
    if (bRun)
        child.Start(scenario);

    const std::vector<std::string> urls = server.Urls();
    std::printf("lumora-tv: the host TV in a browser: open %s\n", urls[0].c_str());
    for (size_t i = 1; i < urls.size(); ++i)
        std::printf("lumora-tv: or %s\n", urls[i].c_str());
    if (listen->host != "::1" && listen->host.compare(0, 4, "127.") != 0)
        std::printf("lumora-tv: warning: %s is reachable from other machines; anyone there can drive this TV\n",
                    listenText.c_str());
    std::printf("lumora-tv: Ctrl-C ends it\n");
    std::fflush(stdout);
    std::atomic<int> serveError{0}; // errno of a server that stopped by itself
    std::thread serving([&server, &serveError] {
        if (!server.Serve())
            serveError = errno ? errno : EIO;
    });

    // Serves until Ctrl-C, SIGTERM or SIGHUP; a service it started that ends
    // meanwhile (the engine switched the TV off) leaves the page up to show it.
    while (!signals.WaitUntil(proc::Child::Clock::now() + std::chrono::milliseconds(250))) {
        child.Reap();
        if (serveError) {
            std::fprintf(stderr, "lumora-tv: the page's server stopped taking connections on %s: %s; start it again\n",
                         listenText.c_str(), std::strerror(serveError));
            bEnding = true;
            child.Stop(false);
            server.Stop();
            serving.join();
            return kFailed;
        }
    }
    // The terminal's Ctrl-C reached the service too; a signal sent to this
    // process alone did not.
    const proc::StopSignals::Received got = *signals.Got();
    bEnding = true;
    child.Stop(got.bFromTerminal);
    server.Stop();
    serving.join();
    return 128 + got.signo;
}

} // namespace lumoratv
