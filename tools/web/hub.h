// What every open page of the web view sees, and the pages waiting for it to
// change: the host TV as the watcher last saw it, what pages did, and the
// service's log. Each page's stream keeps a cursor and gets only what changed.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hosttv/hosttv.h"
#include "hosttv/json.h"

namespace hostweb {

class Hub {
public:
    struct Cursor {
        uint64_t state = 0;    // the state version last sent
        uint64_t log = 0;      // the last log line sent
        bool bLogSent = false; // a first chunk went out: later ones continue it
        uint64_t logRun = 0;   // of the log as it was then
    };

    static constexpr size_t kMaxActivity = 20;
    static constexpr size_t kMaxLog = 5000;
    static constexpr size_t kMaxLogPerMessage = 500;
    static constexpr size_t kMaxLogText = 4096;

    // The host TV as the watcher last saw it.
    void SetTv(hosttv::JsonValue status, std::vector<tvhost::notifications::Record> popups);
    // Something a page did, for every page: a press and what it launched, an event and what it showed.
    void AddActivity(hosttv::JsonValue entry);
    std::string State();
    std::vector<tvhost::notifications::Record> OnScreen();
    // New records of the service's log; bRestarted: a new run began it afresh.
    void AddLog(const std::vector<hosttv::LogLine> &lines, bool bRestarted);

    // The next message of a stream: what changed since cursor, or a comment
    // after wait (a write is how a closed page is noticed); nothing once
    // the server stops.
    std::optional<std::string> Next(Cursor &cursor, std::chrono::milliseconds wait);

    // The watcher sleeps until its next poll, or until an action asks for one now.
    void Sleep(std::chrono::milliseconds wait);
    void Poke();

    void Stop();
    bool Stopping();

private:
    bool LogNews(const Cursor &cursor) const;
    void PublishLocked();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::condition_variable m_poked;
    hosttv::JsonValue m_status = hosttv::JsonValue::object();
    std::vector<tvhost::notifications::Record> m_popups;
    std::deque<hosttv::JsonValue> m_activity;
    std::deque<std::pair<uint64_t, std::string>> m_log; // sequence number, the record as JSON
    uint64_t m_logSeq = 0;
    uint64_t m_logRun = 0; // bumped when a new run begins the log afresh
    std::string m_state = "{}";
    uint64_t m_version = 0; // streams wait for the watcher's first look
    bool m_bPoked = false;
    bool m_bStopping = false;
};

} // namespace hostweb
