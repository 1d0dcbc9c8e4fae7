/* Raising an event in a running simulated engine from another process.
 *
 * The engine listens on a Unix-domain stream socket, by default
 * <TV root>/opt/var/tvhost/engine.sock (QORV_SIM_SOCKET names another path).
 * A request is one header line and the two texts, byte-counted so that they
 * may hold anything, new lines included:
 *
 *     EVENT <event number> <bytes of text 1> <bytes of text 2>\n<text 1><text 2>
 *
 * The engine raises the event on its own thread and answers with one line:
 *
 *     RESULT <the service's answer>\n     (-2: no callback registered)
 *     ERROR <reason>\n                    (the connection is then closed)
 *
 * A connection may carry any number of requests, one after the other. */
#ifndef QORV_SIM_CLIENT_H
#define QORV_SIM_CLIENT_H

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#ifndef LUMORA_TV_ROOT
#define LUMORA_TV_ROOT ""
#endif

namespace qorvsim {

inline std::string DefaultSocketPath()
{
    const char *pPath = getenv("QORV_SIM_SOCKET");
    if (pPath && *pPath)
        return pPath;
    return LUMORA_TV_ROOT "/opt/var/tvhost/engine.sock";
}

/* Sends one event and waits up to nTimeoutSeconds for the answer. True with
 * the service's answer in nResult; false with the reason in strError. */
inline bool InjectEvent(const std::string &strSocketPath, int nEvent, const std::string &strParam1,
                        const std::string &strParam2, int &nResult, std::string &strError, int nTimeoutSeconds = 30)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (strSocketPath.size() >= sizeof addr.sun_path) {
        strError = "socket path too long: " + strSocketPath;
        return false;
    }
    memcpy(addr.sun_path, strSocketPath.c_str(), strSocketPath.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        strError = std::string("socket: ") + strerror(errno);
        return false;
    }
    timeval timeout{nTimeoutSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        strError = "no engine at " + strSocketPath + ": " + strerror(errno);
        close(fd);
        return false;
    }
    std::string strRequest = "EVENT " + std::to_string(nEvent) + " " + std::to_string(strParam1.size()) + " " +
                             std::to_string(strParam2.size()) + "\n" + strParam1 + strParam2;
    for (size_t nSent = 0; nSent < strRequest.size();) {
        ssize_t n = send(fd, strRequest.data() + nSent, strRequest.size() - nSent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            strError = std::string("send: ") + strerror(errno);
            close(fd);
            return false;
        }
        nSent += static_cast<size_t>(n);
    }
    std::string strReply;
    char c = 0;
    while (strReply.size() < 256) {
        ssize_t n = recv(fd, &c, 1, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || c == '\n')
            break;
        strReply += c;
    }
    close(fd);
    if (c != '\n') {
        strError = "no answer from the engine";
        return false;
    }
    if (strReply.compare(0, 7, "RESULT ") != 0) {
        strError = strReply;
        return false;
    }
    nResult = atoi(strReply.c_str() + 7);
    return true;
}

} // namespace qorvsim

#endif
