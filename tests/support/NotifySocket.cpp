#include "NotifySocket.h"

#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

NotifySocket::NotifySocket() : m_fd(-1)
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
}

NotifySocket::~NotifySocket()
{
    unsetenv("NOTIFY_SOCKET");
    if (m_fd >= 0)
        close(m_fd);
    unlink(m_strPath.c_str());
    rmdir(m_strDir.c_str());
}

bool NotifySocket::Receive(Message &msg, std::chrono::milliseconds timeout)
{
    struct pollfd pfd = {m_fd, POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(timeout.count())) <= 0)
        return false;
    char buf[4096];
    ssize_t n = recv(m_fd, buf, sizeof buf, 0);
    if (n < 0)
        return false;
    msg.text.assign(buf, static_cast<size_t>(n));
    msg.when = std::chrono::steady_clock::now();
    return true;
}
