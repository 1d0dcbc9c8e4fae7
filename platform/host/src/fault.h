// Internal to tvhost: per-function call counts and queued fault results.
#pragma once

#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace tvhost {
namespace detail {

// What a running service called and posted is kept for the test-control API;
// a service that runs for days keeps only the latest kHistory entries or more.
const size_t kHistory = 4096;

template <typename V>
void TrimHistory(V &v)
{
    if (v.size() > 2 * kHistory)
        v.erase(v.begin(), v.begin() + static_cast<long>(v.size() - kHistory));
}

class FaultTable {
public:
    // A process started with TVHOST_FAULTS="function=result,..." (an end-to-end
    // test's service) begins with those results queued, one call each, in
    // order. Entries for functions of other tables are never asked for.
    FaultTable()
    {
        const char *pFaults = std::getenv("TVHOST_FAULTS");
        std::string entries = pFaults ? pFaults : "";
        for (size_t start = 0; start < entries.size();) {
            size_t end = entries.find(',', start);
            std::string entry = entries.substr(start, end == std::string::npos ? std::string::npos : end - start);
            size_t eq = entry.find('=');
            if (eq != std::string::npos && eq > 0)
                m_queued[entry.substr(0, eq)].push_back(std::atoi(entry.c_str() + eq + 1));
            if (end == std::string::npos)
                break;
            start = end + 1;
        }
    }

    // Counts a call of function; true with the queued result if one was waiting.
    bool Call(const std::string &function, int &result)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_calls[function];
        auto it = m_queued.find(function);
        if (it == m_queued.end() || it->second.empty())
            return false;
        result = it->second.front();
        it->second.pop_front();
        return true;
    }
    void Queue(const std::string &function, int result, int times = 1)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (int i = 0; i < times; ++i)
            m_queued[function].push_back(result);
    }
    int Count(const std::string &function) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_calls.find(function);
        return it == m_calls.end() ? 0 : it->second;
    }
    void Reset()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.clear();
        m_queued.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::map<std::string, int> m_calls;
    std::map<std::string, std::deque<int>> m_queued;
};

} // namespace detail
} // namespace tvhost
