#include "NotifySocket.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

NotifySocket::NotifySocket()
{
    // An abstract address ("@name" to systemd's client): no file to remove.
    static std::atomic<int> nSockets{0};
    const std::string name = "lumora-notify-" + std::to_string(getpid()) + "-" + std::to_string(nSockets++);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path + 1, name.data(), name.size());
    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<struct sockaddr *>(&addr),
                         static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + name.size())) != 0)
        throw std::runtime_error("cannot bind the notification socket");
    setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    m_listener = std::thread(&NotifySocket::Listen, this);
}

NotifySocket::~NotifySocket()
{
    unsetenv("NOTIFY_SOCKET");
    shutdown(m_fd, SHUT_RDWR); // the listener's recv returns 0
    m_listener.join();
    close(m_fd);
}

void NotifySocket::Listen()
{
    char buf[4096];
    for (ssize_t n; (n = recv(m_fd, buf, sizeof buf, 0)) != 0;) {
        if (n < 0 && errno != EINTR)
            std::abort(); // a listener that stopped would fail every later wait
        if (n < 0)
            continue;
        Message msg{std::string(buf, static_cast<size_t>(n)), std::chrono::steady_clock::now()};
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back(std::move(msg));
        m_arrived.notify_all();
    }
}

std::vector<NotifySocket::Message> NotifySocket::Messages() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

bool NotifySocket::WaitFor(size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_arrived.wait_for(lock, timeout, [&] { return m_messages.size() >= count; });
}
