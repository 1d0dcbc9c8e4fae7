// hostweb: the host TV in a browser. One page (tools/web/www) and a small JSON
// API over hosttv, the same operations as the lumora-tv command line; one
// watcher thread polls the host TV and pushes what changed to every open page
// as server-sent events.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace hosttv {
class OwnedService;
}

namespace hostweb {

struct Listen {
    std::string host; // an address: "127.0.0.1", "::1", "0.0.0.0"
    int port = 0;
};
// "ADDR:PORT" or "[IPV6]:PORT"; nothing when it is not one.
std::optional<Listen> ParseListen(const std::string &text);

// The folder of the page's files installed beside this program.
std::string DefaultWwwDir();

struct Options {
    Listen listen{"127.0.0.1", 8080};
    std::string wwwDir;
    size_t maxBody = 256 * 1024; // larger request bodies are refused (413)
    int maxStreams = 8;          // open pages at once; one more is refused (503)
    std::chrono::milliseconds poll{250};
    // The service the page's Start starts, as this process's child, and owns;
    // none: the page cannot start one.
    hosttv::OwnedService *service = nullptr;
};

class Server {
public:
    explicit Server(Options options);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Takes the address; false when it cannot (in use, not this machine's).
    bool Bind();
    // The port bound (port 0 in the options picks a free one).
    int Port() const;
    // The addresses to open in a browser, the first one preferred.
    std::vector<std::string> Urls() const;
    // Serves until Stop(), from another thread or a signal's thread; false,
    // with errno, when it stopped serving by itself (its socket failed).
    bool Serve();
    void Stop();

private:
    struct Impl;
    std::unique_ptr<Impl> m;
};

} // namespace hostweb
