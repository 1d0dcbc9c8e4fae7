// One small Unix-domain stream socket server and its client, for the host
// TV's control sockets (the notification service's, the simulated engine's).
// The server knows nothing of a protocol: the protocol says where a request
// ends and what to answer, the server reads, times out and answers.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace tvhost {
namespace localsocket {

// What a protocol makes of the bytes a connection has sent so far.
struct Frame {
    enum Kind { kIncomplete, kWhole, kRefused };
    Kind kind = kIncomplete;
    size_t nBytes = 0;     // kWhole: the request is the first nBytes of the input
    std::string strAnswer; // kRefused: sent (when not empty), then the connection closes

    static Frame Incomplete() { return Frame{}; }
    static Frame Whole(size_t nBytes) { return Frame{kWhole, nBytes, {}}; }
    static Frame Refused(std::string strAnswer) { return Frame{kRefused, 0, std::move(strAnswer)}; }
};

// bNoMore: the client will send nothing more (it ended its side, or its
// request did not arrive in time); the protocol then refuses or takes what
// there is.
using Framing = std::function<Frame(std::string_view input, bool bNoMore)>;

struct Answer {
    std::string strText; // sent to the client as it is (nothing when empty)
    bool bClose = true;  // false: the connection may carry another request
};

// Called on the connection's own thread, one whole request at a time per
// connection; connections are served at the same time.
using Handler = std::function<Answer(const std::string &request)>;

struct ServerOptions {
    // From the connection (or the last answer) to the first byte of the next
    // request; 0: as long as the client likes.
    int nIdleSeconds = 5;
    // From the first byte of a request until it is whole.
    int nRequestSeconds = 5;
    // For sending one answer to a client that does not read it.
    int nSendSeconds = 5;
    // Connections served at once; more are sent strBusyAnswer and closed.
    size_t nMaxConnections = 32;
    std::string strBusyAnswer;
};

class Server {
public:
    enum class Opened {
        kServing,
        kPathTooLong, // longer than a socket address holds
        kTaken,       // a live process answers on the path: it is left alone
        kFailed,      // the errno of Start says why
    };

    Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    ~Server(); // Stop()

    // Listens on path (a socket file left by a process that died is
    // replaced) and serves on threads of its own until Stop.
    Opened Start(const std::string &path, Framing framing, Handler handler, const ServerOptions &options, int &nErrno);
    // Closes every connection and removes the socket file. Waits for the
    // handlers that run: whoever makes a handler wait releases it first.
    // Not to be called from a handler.
    void Stop();
    bool Serving() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

// The longest socket path there is room for.
size_t MaxPathLength();
// Whether a process accepts connections on path. A socket file left by a
// process that died refuses them.
bool SomeoneListens(const std::string &path);

struct ClientError {
    enum Kind {
        kNone,
        kPathTooLong,
        kSocket,        // no socket could be made
        kNobodyListens, // no socket file, or one that nothing answers on
        kConnect,       // any other connect failure
        kSend,
        kTimeout, // no (whole) answer in time
        kReceive,
        kClosed, // the server closed before the answer was whole
    };
    Kind kind = kNone;
    int nErrno = 0;
};

// Connects to path, sends request and reads the answer until bWhole says it
// is whole (null: until the server closes) or nMaxAnswer bytes came. Each
// step (connect, send, every read) waits at most nTimeoutSeconds. answer
// keeps what came even on failure.
bool Exchange(const std::string &path, const std::string &request, int nTimeoutSeconds, size_t nMaxAnswer,
              const std::function<bool(std::string_view answer)> &bWhole, std::string &answer, ClientError &error);

} // namespace localsocket
} // namespace tvhost
