// The engine's injection socket: other processes (lumora-tv, tests) raise
// events through it. It is served on the engine thread from the engine's poll
// loop, so injected events come from the same thread as every other event.
// The protocol is described in qorv_sim_client.h.
#pragma once

#include <functional>
#include <poll.h>
#include <string>
#include <vector>

namespace qorvsim {

class InjectServer {
public:
    // Raises one event and returns the service's answer.
    using Deliver = std::function<int(int nEvent, const std::string &strParam1, const std::string &strParam2)>;

    InjectServer() = default;
    InjectServer(const InjectServer &) = delete;
    InjectServer &operator=(const InjectServer &) = delete;
    ~InjectServer();

    // False (with a trace line) when the socket cannot be served; the engine
    // then runs without it.
    bool Open(const std::string &strPath);
    void Close();

    // Appends the descriptors to watch; Handle later gets the same vector and
    // the index of the first of them.
    void AddPollFds(std::vector<pollfd> &fds) const;
    void Handle(const std::vector<pollfd> &fds, size_t nFirst, const Deliver &deliver);

private:
    struct Client {
        int fd;
        std::string strInput;
    };

    void Accept();
    // False when the client is to be closed.
    bool Read(Client &client, const Deliver &deliver);
    bool Serve(Client &client, const Deliver &deliver);

    int m_listenFd = -1;
    std::string m_strPath;
    std::vector<Client> m_vctClients;
};

} // namespace qorvsim
