#include "tvhost/local_socket.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <list>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace tvhost {
namespace localsocket {
namespace {

using Clock = std::chrono::steady_clock;

bool MakeAddress(const std::string &path, sockaddr_un &addr)
{
    addr = sockaddr_un{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool Answers(const sockaddr_un &addr)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    bool bLive = connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return bLive;
}

Clock::time_point After(int nSeconds)
{
    return nSeconds > 0 ? Clock::now() + std::chrono::seconds(nSeconds) : Clock::time_point::max();
}

enum class Wait { kReady, kTimedOut, kStopped };

// Waits for events on fd until deadline, or until the server stops (wakeFd
// becomes readable and stays so: nobody reads it).
Wait WaitFor(int fd, short events, int wakeFd, Clock::time_point deadline)
{
    for (;;) {
        int nMs = -1;
        if (deadline != Clock::time_point::max()) {
            auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0)
                return Wait::kTimedOut;
            nMs = static_cast<int>(std::min<decltype(left)>(left, 60000));
        }
        pollfd fds[2] = {{wakeFd, POLLIN, 0}, {fd, events, 0}};
        int n = poll(fds, 2, nMs);
        if (n < 0 && errno != EINTR)
            return Wait::kStopped;
        if (fds[0].revents & POLLIN)
            return Wait::kStopped;
        if (n > 0 && fds[1].revents)
            return Wait::kReady;
    }
}

bool SendAll(int fd, const std::string &text, int wakeFd, Clock::time_point deadline)
{
    for (size_t nDone = 0; nDone < text.size();) {
        ssize_t n = send(fd, text.data() + nDone, text.size() - nDone, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            nDone += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK) ||
            WaitFor(fd, POLLOUT, wakeFd, deadline) != Wait::kReady)
            return false;
    }
    return true;
}

} // namespace

struct Server::Impl {
    struct Connection {
        int fd;
        std::thread thread;
        std::atomic<bool> bDone{false};
    };

    std::string path;
    Framing framing;
    Handler handler;
    ServerOptions options;
    int nListenFd = -1;
    int nWakeFd = -1;
    std::thread acceptThread;
    std::list<Connection> connections; // the accept thread's until it is joined

    void AcceptLoop();
    void Serve(int fd);
    // Reads until the input holds a whole request (or it is refused).
    Frame NextRequest(int fd, std::string &input, bool &bStopped);
};

void Server::Impl::AcceptLoop()
{
    for (;;) {
        if (WaitFor(nListenFd, POLLIN, nWakeFd, Clock::time_point::max()) != Wait::kReady)
            break;
        int fd = accept4(nListenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            // Out of descriptors the connection stays pending: look again a
            // little later instead of spinning.
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
                WaitFor(nWakeFd, POLLIN, nWakeFd, Clock::now() + std::chrono::milliseconds(100));
            continue;
        }
        for (auto it = connections.begin(); it != connections.end();) {
            if (!it->bDone.load())
                ++it;
            else {
                it->thread.join();
                it = connections.erase(it);
            }
        }
        if (connections.size() >= options.nMaxConnections) {
            (void)!send(fd, options.strBusyAnswer.data(), options.strBusyAnswer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            close(fd);
            continue;
        }
        Connection &c = connections.emplace_back();
        c.fd = fd;
        c.thread = std::thread([this, &c] {
            Serve(c.fd);
            close(c.fd);
            c.bDone = true;
        });
    }
}

Frame Server::Impl::NextRequest(int fd, std::string &input, bool &bStopped)
{
    Clock::time_point deadline = After(input.empty() ? options.nIdleSeconds : options.nRequestSeconds);
    bool bNoMore = false;
    for (;;) {
        if (!input.empty() || bNoMore) {
            Frame frame = framing(input, bNoMore);
            if (frame.kind == Frame::kWhole && (frame.nBytes == 0 || frame.nBytes > input.size()))
                return Frame::Refused(""); // a protocol fault: never loop on it
            if (frame.kind != Frame::kIncomplete)
                return frame;
            if (bNoMore)
                return Frame::Refused("");
        }
        Wait wait = WaitFor(fd, POLLIN, nWakeFd, deadline);
        if (wait == Wait::kStopped) {
            bStopped = true;
            return Frame::Refused("");
        }
        if (wait == Wait::kTimedOut) {
            bNoMore = true;
            continue;
        }
        char buffer[65536];
        ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
            continue;
        if (n <= 0) {
            bNoMore = true;
            continue;
        }
        if (input.empty())
            deadline = After(options.nRequestSeconds);
        input.append(buffer, static_cast<size_t>(n));
    }
}

void Server::Impl::Serve(int fd)
{
    std::string input;
    for (;;) {
        bool bStopped = false;
        Frame frame = NextRequest(fd, input, bStopped);
        if (bStopped)
            return;
        if (frame.kind == Frame::kRefused) {
            SendAll(fd, frame.strAnswer, nWakeFd, After(options.nSendSeconds));
            return;
        }
        const std::string request = input.substr(0, frame.nBytes);
        input.erase(0, frame.nBytes);
        Answer answer = handler(request);
        if (!SendAll(fd, answer.strText, nWakeFd, After(options.nSendSeconds)) || answer.bClose)
            return;
    }
}

Server::Server() : m_pImpl(std::make_unique<Impl>()) {}

Server::~Server()
{
    Stop();
}

Server::Opened Server::Start(const std::string &path, Framing framing, Handler handler, const ServerOptions &options,
                             int &nErrno)
{
    nErrno = 0;
    if (Serving())
        return Opened::kServing;
    sockaddr_un addr;
    if (!MakeAddress(path, addr))
        return Opened::kPathTooLong;
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    if (Answers(addr))
        return Opened::kTaken;
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0 || wake < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0) {
        nErrno = errno;
        if (fd >= 0)
            close(fd);
        if (wake >= 0)
            close(wake);
        return Opened::kFailed;
    }
    Impl &s = *m_pImpl;
    s.path = path;
    s.framing = std::move(framing);
    s.handler = std::move(handler);
    s.options = options;
    s.nListenFd = fd;
    s.nWakeFd = wake;
    s.acceptThread = std::thread([&s] { s.AcceptLoop(); });
    return Opened::kServing;
}

void Server::Stop()
{
    Impl &s = *m_pImpl;
    if (!s.acceptThread.joinable())
        return;
    uint64_t one = 1;
    (void)!write(s.nWakeFd, &one, sizeof one);
    s.acceptThread.join();
    for (Impl::Connection &c : s.connections)
        c.thread.join();
    s.connections.clear();
    close(s.nListenFd);
    unlink(s.path.c_str());
    close(s.nWakeFd);
    s.nListenFd = s.nWakeFd = -1;
    s.framing = nullptr;
    s.handler = nullptr;
}

bool Server::Serving() const
{
    return m_pImpl->acceptThread.joinable();
}

size_t MaxPathLength()
{
    return sizeof(sockaddr_un::sun_path) - 1;
}

bool SomeoneListens(const std::string &path)
{
    sockaddr_un addr;
    return MakeAddress(path, addr) && Answers(addr);
}

bool Exchange(const std::string &path, const std::string &request, int nTimeoutSeconds, size_t nMaxAnswer,
              const std::function<bool(std::string_view answer)> &bWhole, std::string &answer, ClientError &error)
{
    answer.clear();
    error = ClientError{};
    auto fail = [&error](ClientError::Kind kind, int nErrno) {
        error.kind = kind;
        error.nErrno = nErrno;
        return false;
    };
    sockaddr_un addr;
    if (!MakeAddress(path, addr))
        return fail(ClientError::kPathTooLong, 0);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return fail(ClientError::kSocket, errno);
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closer{fd};
    // The send timeout also bounds connect while the server's backlog is full.
    timeval timeout{nTimeoutSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        const int err = errno;
        return fail(err == ENOENT || err == ECONNREFUSED ? ClientError::kNobodyListens : ClientError::kConnect, err);
    }
    for (size_t nSent = 0; nSent < request.size();) {
        ssize_t n = send(fd, request.data() + nSent, request.size() - nSent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return fail(ClientError::kSend, n < 0 ? errno : EPIPE);
        nSent += static_cast<size_t>(n);
    }
    char buffer[4096];
    while (answer.size() < nMaxAnswer) {
        ssize_t n = recv(fd, buffer, std::min(sizeof buffer, nMaxAnswer - answer.size()), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return fail(errno == EAGAIN || errno == EWOULDBLOCK ? ClientError::kTimeout : ClientError::kReceive, errno);
        if (n == 0)
            return bWhole ? fail(ClientError::kClosed, 0) : true;
        answer.append(buffer, static_cast<size_t>(n));
        if (bWhole && bWhole(answer))
            return true;
    }
    return fail(ClientError::kReceive, EMSGSIZE);
}

} // namespace localsocket
} // namespace tvhost
