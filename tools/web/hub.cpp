#include "web/hub.h"

#include <ctime>

namespace hostweb {

using hosttv::JsonValue;

namespace {

std::string Now()
{
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &tm);
    return text;
}

// A record's text as the page shows it: escaped as on a terminal (no control
// steers the page's direction of text) and cut, so that the kept log stays
// small whatever the service logged.
std::string LogText(const std::string &text)
{
    if (text.size() <= Hub::kMaxLogText)
        return hosttv::ForTerminal(text);
    size_t cut = Hub::kMaxLogText;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
        --cut;
    return hosttv::ForTerminal(std::string_view(text).substr(0, cut)) + "\u2026 (" + std::to_string(text.size()) +
           " bytes in all)";
}

} // namespace

void Hub::SetTv(JsonValue status, std::vector<tvhost::notifications::Record> popups)
{
    // The page shows what the TV's drawing shows, and no more of a text.
    for (auto &r : popups)
        r = hosttv::AsDrawn(r);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_status = std::move(status);
    m_popups = std::move(popups);
    PublishLocked();
}

void Hub::AddActivity(JsonValue entry)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    entry["time"] = Now();
    m_activity.push_back(std::move(entry));
    if (m_activity.size() > kMaxActivity)
        m_activity.pop_front();
    PublishLocked();
}

std::string Hub::State()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state;
}

std::vector<tvhost::notifications::Record> Hub::OnScreen()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_popups;
}

void Hub::AddLog(const std::vector<hosttv::LogLine> &lines, bool bRestarted)
{
    if (lines.empty() && !bRestarted)
        return;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (bRestarted) {
        m_log.clear();
        ++m_logRun;
    }
    for (const hosttv::LogLine &l : lines) {
        m_log.push_back({++m_logSeq, hosttv::Dump({{"stamp", l.stamp},
                                                   {"level", std::string(1, l.level)},
                                                   {"pid", l.pid},
                                                   {"tid", l.tid},
                                                   {"tag", l.tag},
                                                   {"text", LogText(l.text)}})});
        if (m_log.size() > kMaxLog)
            m_log.pop_front();
    }
    m_changed.notify_all();
}

std::optional<std::string> Hub::Next(Cursor &cursor, std::chrono::milliseconds wait)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, wait, [&] { return m_bStopping || cursor.state != m_version || LogNews(cursor); });
    if (m_bStopping)
        return std::nullopt;
    std::string out;
    if (cursor.state != m_version) {
        cursor.state = m_version;
        out = "event: state\ndata: " + m_state + "\n\n";
    }
    if (LogNews(cursor)) {
        // A page that is new, or behind a restart, starts over with what is kept.
        const bool bAfresh = !cursor.bLogSent || cursor.logRun != m_logRun;
        std::string lines;
        size_t n = 0;
        for (const auto &entry : m_log) {
            if ((bAfresh || entry.first > cursor.log) && n++ < kMaxLogPerMessage) {
                lines += (lines.empty() ? "" : ",") + entry.second;
                cursor.log = entry.first;
            }
        }
        if (bAfresh && m_log.empty())
            cursor.log = m_logSeq;
        cursor.bLogSent = true;
        cursor.logRun = m_logRun;
        out += "event: log\ndata: {\"restarted\":" + std::string(bAfresh ? "true" : "false") + ",\"lines\":[" + lines +
               "]}\n\n";
    }
    return out.empty() ? ": still here\n\n" : out;
}

void Hub::Sleep(std::chrono::milliseconds wait)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_poked.wait_for(lock, wait, [&] { return m_bStopping || m_bPoked; });
    m_bPoked = false;
}

void Hub::Poke()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bPoked = true;
    m_poked.notify_all();
}

void Hub::Stop()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bStopping = true;
    m_changed.notify_all();
    m_poked.notify_all();
}

bool Hub::Stopping()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bStopping;
}

bool Hub::LogNews(const Cursor &cursor) const
{
    return !cursor.bLogSent || cursor.logRun != m_logRun || (!m_log.empty() && m_log.back().first > cursor.log);
}

void Hub::PublishLocked()
{
    JsonValue activity = JsonValue::array();
    for (const auto &a : m_activity)
        activity.push_back(a);
    std::string state =
        hosttv::Dump({{"status", m_status}, {"popups", hosttv::ToJson(m_popups)}, {"activity", std::move(activity)}});
    if (state == m_state)
        return;
    m_state = std::move(state);
    ++m_version;
    m_changed.notify_all();
}

} // namespace hostweb
