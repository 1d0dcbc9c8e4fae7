#include "inject_server.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "trace.h"

namespace qorvsim {

namespace {

constexpr size_t kMaxHeader = 128;
// Room for the hostile-input suites' documents of tens of megabytes.
constexpr size_t kMaxText = 64u << 20;
constexpr size_t kMaxClients = 32;

bool MakeAddress(const std::string &strPath, sockaddr_un &addr)
{
    addr = sockaddr_un{};
    addr.sun_family = AF_UNIX;
    if (strPath.size() >= sizeof addr.sun_path)
        return false;
    memcpy(addr.sun_path, strPath.c_str(), strPath.size() + 1);
    return true;
}

// A socket file left behind by an engine that died refuses connections; one
// that answers belongs to a live engine of another process.
bool SomeoneListens(const sockaddr_un &addr)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    bool bLive = connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return bLive;
}

void Reply(int fd, const std::string &strLine)
{
    // Answers are a few bytes; a client that does not read them loses them.
    (void)!send(fd, strLine.data(), strLine.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool ParseSize(const char *pText, size_t &nOut)
{
    char *pEnd = nullptr;
    errno = 0;
    unsigned long long n = strtoull(pText, &pEnd, 10);
    if (errno || pEnd == pText || *pText == '-' || n > kMaxText)
        return false;
    nOut = static_cast<size_t>(n);
    return true;
}

} // namespace

InjectServer::~InjectServer()
{
    Close();
}

bool InjectServer::Open(const std::string &strPath)
{
    sockaddr_un addr;
    if (!MakeAddress(strPath, addr)) {
        Trace("injection socket path too long (%zu bytes): %s; running without it", strPath.size(), strPath.c_str());
        return false;
    }
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(strPath).parent_path(), ec);
    if (SomeoneListens(addr)) {
        Trace("another engine serves %s; running without an injection socket", strPath.c_str());
        return false;
    }
    unlink(strPath.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0) {
        Trace("cannot serve %s (%s); running without an injection socket", strPath.c_str(), strerror(errno));
        if (fd >= 0)
            close(fd);
        return false;
    }
    m_listenFd = fd;
    m_strPath = strPath;
    Trace("injecting events: %s", strPath.c_str());
    return true;
}

void InjectServer::Close()
{
    for (Client &c : m_vctClients)
        close(c.fd);
    m_vctClients.clear();
    if (m_listenFd >= 0) {
        close(m_listenFd);
        unlink(m_strPath.c_str());
        m_listenFd = -1;
    }
}

void InjectServer::AddPollFds(std::vector<pollfd> &fds) const
{
    if (m_listenFd < 0)
        return;
    fds.push_back(pollfd{m_listenFd, POLLIN, 0});
    for (const Client &c : m_vctClients)
        fds.push_back(pollfd{c.fd, POLLIN, 0});
}

void InjectServer::Handle(const std::vector<pollfd> &fds, size_t nFirst, const Deliver &deliver)
{
    if (m_listenFd < 0 || nFirst >= fds.size())
        return;
    // The clients polled are the first ones of the list; Accept appends.
    size_t nPolled = fds.size() - nFirst - 1;
    std::vector<bool> vctKeep(m_vctClients.size(), true);
    for (size_t i = 0; i < nPolled && i < m_vctClients.size(); ++i) {
        if (fds[nFirst + 1 + i].revents & (POLLIN | POLLHUP | POLLERR))
            vctKeep[i] = Read(m_vctClients[i], deliver);
    }
    std::vector<Client> vctLeft;
    for (size_t i = 0; i < m_vctClients.size(); ++i) {
        if (vctKeep[i])
            vctLeft.push_back(std::move(m_vctClients[i]));
        else
            close(m_vctClients[i].fd);
    }
    m_vctClients.swap(vctLeft);
    if (fds[nFirst].revents & POLLIN)
        Accept();
}

void InjectServer::Accept()
{
    for (;;) {
        int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0)
            return;
        if (m_vctClients.size() >= kMaxClients) {
            Reply(fd, "ERROR too many connections\n");
            close(fd);
            continue;
        }
        m_vctClients.push_back(Client{fd, std::string()});
    }
}

bool InjectServer::Read(Client &client, const Deliver &deliver)
{
    char buffer[65536];
    ssize_t n = recv(client.fd, buffer, sizeof buffer, 0);
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    if (n == 0)
        return false;
    client.strInput.append(buffer, static_cast<size_t>(n));
    return Serve(client, deliver);
}

bool InjectServer::Serve(Client &client, const Deliver &deliver)
{
    for (;;) {
        size_t nEol = client.strInput.find('\n');
        if (nEol == std::string::npos) {
            if (client.strInput.size() > kMaxHeader) {
                Reply(client.fd, "ERROR request line too long\n");
                return false;
            }
            return true;
        }
        std::string strHeader = client.strInput.substr(0, nEol);
        char word[16] = {};
        char number[24] = {};
        char size1[24] = {};
        char size2[24] = {};
        char extra[2] = {};
        size_t n1 = 0;
        size_t n2 = 0;
        long nEvent = 0;
        char *pEnd = nullptr;
        if (strHeader.size() > kMaxHeader ||
            sscanf(strHeader.c_str(), "%15s %23s %23s %23s %1s", word, number, size1, size2, extra) != 4 ||
            strcmp(word, "EVENT") != 0) {
            Reply(client.fd, "ERROR expected: EVENT <number> <bytes of text 1> <bytes of text 2>\n");
            return false;
        }
        errno = 0;
        nEvent = strtol(number, &pEnd, 0);
        if (errno || *pEnd || nEvent < INT32_MIN || nEvent > INT32_MAX) {
            Reply(client.fd, "ERROR bad event number\n");
            return false;
        }
        if (!ParseSize(size1, n1) || !ParseSize(size2, n2)) {
            Reply(client.fd, "ERROR bad text size\n");
            return false;
        }
        if (client.strInput.size() - nEol - 1 < n1 + n2)
            return true; // the texts are still on their way
        std::string strParam1 = client.strInput.substr(nEol + 1, n1);
        std::string strParam2 = client.strInput.substr(nEol + 1 + n1, n2);
        client.strInput.erase(0, nEol + 1 + n1 + n2);
        int nResult = deliver(static_cast<int>(nEvent), strParam1, strParam2);
        Reply(client.fd, "RESULT " + std::to_string(nResult) + "\n");
    }
}

} // namespace qorvsim
