// Engine events as a person raises them: the kinds the service acts on, their
// shipped sample texts, and what the host TV saw happen after one.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include "hosttv/hosttv.h"
#include "tvhost/tvhost.h"

namespace noti = tvhost::notifications;

namespace hosttv {

std::string EventSample(const std::string &name)
{
    if (name.empty() || name.find('/') != std::string::npos)
        return "";
    std::string path = tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin/events/" + name;
    if (path.size() < 4 || path.compare(path.size() - 4, 4, ".xml") != 0)
        path += ".xml";
    return std::filesystem::is_regular_file(path) ? path : "";
}

std::string EventSampleText(const std::string &name)
{
    const std::string path = EventSample(name);
    std::ifstream in(path, std::ios::binary);
    if (path.empty() || !in) {
        std::string names;
        for (const EventKind &kind : EventKinds())
            names += (names.empty() ? "" : ", ") + std::string(kind.sample);
        throw Error(Error::Kind::kBadRequest, "no shipped sample \"" + name + "\"; the samples are: " + names);
    }
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

EventOutcome SendEvent(int number, const std::string &param, std::chrono::milliseconds wait,
                       std::chrono::seconds answerWait)
{
    // What was there before: a storm of the engine's own may post meanwhile,
    // but a pop-up that was not there is news either way.
    std::set<int> before;
    for (const auto &r : Popups())
        before.insert(r.itemId);
    const bool bWasOff = PowerState().bOff;

    EventOutcome outcome;
    outcome.answer = RaiseEvent(number, param, answerWait);
    // The service handles an event before it answers; the wait covers a
    // screen or a power record that another thread writes a moment later.
    const EventKind *kind = FindEventKind(number);
    const bool bShows = kind && kind->bPopup;
    const bool bSwitchesOff = kind && kind->bPowerOff;
    const auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
        if (!bWasOff && PowerState().bOff)
            outcome.powerOff = PowerState().kind;
        std::vector<noti::Record> records;
        noti::remote::Error error;
        if (!noti::remote::Shown(records, error)) {
            outcome.bServiceEnded = error.bNoService;
        } else {
            outcome.shown.clear();
            for (const auto &r : records)
                if (!before.count(r.itemId))
                    outcome.shown.push_back(r);
        }
        const bool bSeen = (bShows && !outcome.shown.empty()) || (bSwitchesOff && outcome.powerOff);
        if (bSeen || outcome.bServiceEnded || (!bShows && !bSwitchesOff) ||
            std::chrono::steady_clock::now() >= deadline)
            return outcome;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

} // namespace hosttv
