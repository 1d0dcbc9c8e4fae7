// web: the host TV in a browser.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

#include "commands.h"
#include "web/server.h"

namespace lumoratv {

namespace {

// Ctrl-C and SIGTERM reach a thread that stops the server: a handler may only
// write to a pipe.
int g_signalPipe[2] = {-1, -1};

void OnSignal(int number)
{
    const unsigned char byte = static_cast<unsigned char>(number);
    [[maybe_unused]] const ssize_t n = write(g_signalPipe[1], &byte, 1);
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
        if (error == EADDRINUSE || error == EACCES)
            throw hosttv::Error(hosttv::Error::Kind::kCannot, listenText + ": port in use, try --listen " +
                                                                  listen->host + ":" +
                                                                  std::to_string(listen->port + 1));
        throw hosttv::Error(hosttv::Error::Kind::kCannot,
                            "cannot listen on " + listenText + ": " + std::strerror(error));
    }

    if (pipe2(g_signalPipe, O_CLOEXEC) != 0)
        throw hosttv::Error(hosttv::Error::Kind::kCannot, std::string("cannot make a pipe: ") + std::strerror(errno));
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    int signalSeen = 0;
    std::thread stopper([&] {
        unsigned char byte = 0;
        while (read(g_signalPipe[0], &byte, 1) < 0 && errno == EINTR) {}
        signalSeen = byte;
        server.Stop();
    });

    const std::vector<std::string> urls = server.Urls();
    std::printf("lumora-tv: the host TV in a browser: open %s\n", urls[0].c_str());
    for (size_t i = 1; i < urls.size(); ++i)
        std::printf("lumora-tv: or %s\n", urls[i].c_str());
    if (listen->host != "127.0.0.1" && listen->host != "::1" && listen->host.compare(0, 4, "127.") != 0)
        std::printf("lumora-tv: warning: %s is reachable from other machines; anyone there can drive this TV\n",
                    listenText.c_str());
    std::printf("lumora-tv: Ctrl-C ends it\n");
    std::fflush(stdout);
    server.Serve();

    // Served until a signal; otherwise the stopper ends now.
    OnSignal(0);
    stopper.join();
    return signalSeen ? 128 + signalSeen : kDone;
}

} // namespace lumoratv
