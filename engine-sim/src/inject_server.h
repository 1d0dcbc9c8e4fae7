// The engine's injection socket: other processes (lumora-tv, tests) raise
// events through it. Connections are served on threads of their own; each
// event is handed to the engine thread, so injected events come from the same
// thread as every other event. The protocol is described in qorv_sim_client.h.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "tvhost/local_socket.h"

namespace qorvsim {

class InjectServer {
public:
    // Raises one event and returns the service's answer; nullopt when the
    // engine stops first. Called on a connection's thread.
    using Deliver =
        std::function<std::optional<int>(int nEvent, const std::string &strParam1, const std::string &strParam2)>;

    // False (with a trace line) when the socket cannot be served; the engine
    // then runs without it.
    bool Open(const std::string &strPath, Deliver deliver);
    // Whoever makes deliver wait releases it first.
    void Close();

private:
    tvhost::localsocket::Server m_server;
};

} // namespace qorvsim
