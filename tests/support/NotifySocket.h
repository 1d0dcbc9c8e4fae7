// A stand-in for systemd's notification socket: binds a datagram socket,
// points NOTIFY_SOCKET at it and collects what the service sends.
#pragma once

#include <chrono>
#include <string>

class NotifySocket {
public:
    NotifySocket();
    ~NotifySocket();

    const std::string &Path() const { return m_strPath; }

    struct Message {
        std::string text;
        std::chrono::steady_clock::time_point when;
    };
    // Waits up to timeout for the next datagram; false when none came.
    bool Receive(Message &msg, std::chrono::milliseconds timeout);

private:
    int m_fd;
    std::string m_strDir;
    std::string m_strPath;
};
