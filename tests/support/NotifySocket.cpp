#include "NotifySocket.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

NotifySocket::NotifySocket()
{
    char tmpl[] = "/tmp/lumora-notify-XXXXXX";
    if (!mkdtemp(tmpl))
        throw std::runtime_error("mkdtemp failed");
    m_strDir = tmpl;
    m_strPath = m_strDir + "/notify.sock";

    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0)
        throw std::runtime_error("socket failed");
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, m_strPath.c_str(), sizeof addr.sun_path - 1);
    if (bind(m_fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0)
        throw std::runtime_error("bind failed");
    setenv("NOTIFY_SOCKET", m_strPath.c_str(), 1);
    m_listener = std::thread(&NotifySocket::Listen, this);
}

NotifySocket::~NotifySocket()
{
    unsetenv("NOTIFY_SOCKET");
    shutdown(m_fd, SHUT_RDWR); // the listener's recv returns 0
    m_listener.join();
    close(m_fd);
    unlink(m_strPath.c_str());
    rmdir(m_strDir.c_str());
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
