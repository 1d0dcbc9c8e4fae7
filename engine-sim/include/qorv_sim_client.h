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

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "tvhost/local_socket.h"
#include "tvhost/parse.h"

#ifndef LUMORA_TV_ROOT
#define LUMORA_TV_ROOT ""
#endif

namespace qorvsim {

// The longest text of a request, each of the two: room for the hostile-input
// suites' documents of tens of megabytes. A longer one is refused.
constexpr size_t kMaxText = size_t{64} << 20;

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
    using tvhost::localsocket::ClientError;
    const std::string strRequest = "EVENT " + std::to_string(nEvent) + " " + std::to_string(strParam1.size()) + " " +
                                   std::to_string(strParam2.size()) + "\n" + strParam1 + strParam2;
    std::string strReply;
    ClientError error;
    const bool bAnswered = tvhost::localsocket::Exchange(
        strSocketPath, strRequest, nTimeoutSeconds, 256,
        [](std::string_view answer) { return answer.find('\n') != std::string_view::npos; }, strReply, error);
    if (!bAnswered) {
        switch (error.kind) {
        case ClientError::kPathTooLong: strError = "socket path too long: " + strSocketPath; break;
        case ClientError::kSocket: strError = std::string("socket: ") + strerror(error.nErrno); break;
        case ClientError::kNobodyListens:
        case ClientError::kConnect: strError = "no engine at " + strSocketPath + ": " + strerror(error.nErrno); break;
        case ClientError::kSend: strError = std::string("send: ") + strerror(error.nErrno); break;
        default: strError = "no answer from the engine"; break;
        }
        return false;
    }
    strReply.erase(strReply.find('\n'));
    if (strReply.compare(0, 7, "RESULT ") != 0) {
        strError = strReply;
        return false;
    }
    if (!tvhost::ParseInt(std::string_view(strReply).substr(7), nResult)) {
        strError = "a damaged answer from the engine: " + strReply.substr(0, 64);
        return false;
    }
    return true;
}

} // namespace qorvsim

#endif
