// A stand-in for systemd's notification socket: binds a datagram socket,
// points NOTIFY_SOCKET at it and collects what the service sends, with its
// arrival time, on a thread of its own.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class NotifySocket {
public:
    NotifySocket();
    ~NotifySocket();

    struct Message {
        std::string text;
        std::chrono::steady_clock::time_point when;
    };
    std::vector<Message> Messages() const;
    // Blocks until at least count messages arrived; false after timeout.
    bool WaitFor(size_t count, std::chrono::milliseconds timeout) const;

private:
    void Listen();

    int m_fd = -1;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_arrived;
    std::vector<Message> m_messages;
    std::thread m_listener;
};
