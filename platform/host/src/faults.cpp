#include "tvhost/faults.h"

#include <deque>
#include <map>
#include <mutex>

#include "history.h"
#include "registry.h"
#include "tvhost/parse.h"

namespace tvhost {
namespace faults {
namespace {

struct Table {
    std::mutex mutex;
    std::map<std::string, std::deque<Answer>, std::less<>> queued;
    std::map<std::string, int, std::less<>> calls;
    std::vector<std::string> log;

    // A malformed entry is skipped: the environment of a test's service is
    // written by that test, which then sees the call answer normally.
    Table()
    {
        const char *pFaults = std::getenv("TVHOST_FAULTS");
        std::string_view entries = pFaults ? pFaults : "";
        while (!entries.empty()) {
            const size_t end = entries.find(',');
            const std::string_view entry = entries.substr(0, end);
            const size_t eq = entry.find('=');
            Answer answer;
            if (eq != std::string_view::npos && eq > 0 && ParseInt(entry.substr(eq + 1), answer.result))
                queued[std::string(entry.substr(0, eq))].push_back(answer);
            if (end == std::string_view::npos)
                break;
            entries.remove_prefix(end + 1);
        }
    }
};

// Never destroyed: platform calls from the notification service's thread
// may still come while the process exits.
Table &T()
{
    static Table *pTable = new Table;
    return *pTable;
}

detail::ResetHook g_reset([] { Reset(); });

} // namespace

void Queue(const std::string &function, int result, int times)
{
    Queue(function, Answer{result, 0}, times);
}

void Queue(const std::string &function, Answer answer, int times)
{
    Table &t = T();
    std::lock_guard<std::mutex> lock(t.mutex);
    for (int i = 0; i < times; ++i)
        t.queued[function].push_back(answer);
}

int Calls(const std::string &function)
{
    Table &t = T();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.calls.find(function);
    return it == t.calls.end() ? 0 : it->second;
}

std::vector<std::string> CallLog()
{
    Table &t = T();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.log;
}

void Reset()
{
    Table &t = T();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.queued.clear();
    t.calls.clear();
    t.log.clear();
}

bool Take(const char *function, Answer &answer)
{
    Table &t = T();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto counted = t.calls.find(std::string_view(function));
    if (counted == t.calls.end())
        counted = t.calls.emplace(function, 0).first;
    ++counted->second;
    t.log.emplace_back(function);
    detail::TrimHistory(t.log);
    auto it = t.queued.find(std::string_view(function));
    if (it == t.queued.end() || it->second.empty())
        return false;
    answer = it->second.front();
    it->second.pop_front();
    return true;
}

bool Take(const char *function, int &result)
{
    Answer answer;
    if (!Take(function, answer))
        return false;
    result = answer.result;
    return true;
}

} // namespace faults
} // namespace tvhost
