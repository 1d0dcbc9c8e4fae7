// What the running service shows and hears: its pop-ups, the viewer's presses
// and timeouts, and events of its engine.
#include "hosttv/hosttv.h"
#include "qorv_sim_client.h"

namespace noti = tvhost::notifications;

namespace hosttv {

namespace {

[[noreturn]] void FailRemote(const noti::remote::Error &error)
{
    if (error.bNoService)
        throw Error(Error::Kind::kCannot, kNotRunning, Error::Remedy::kStartService);
    throw Error(Error::Kind::kCannot, error.text);
}

} // namespace

std::vector<noti::Record> Popups()
{
    std::vector<noti::Record> records;
    noti::remote::Error error;
    if (!noti::remote::Shown(records, error))
        FailRemote(error);
    return records;
}

noti::Record Popup(int item)
{
    std::vector<noti::Record> records = Popups();
    for (const auto &r : records)
        if (r.itemId == item)
            return r;
    throw Error(Error::Kind::kCannot, noti::NotOnScreenText(item, records));
}

Press PressButton(int item, int button)
{
    Press press;
    // The label, for a readable answer; the press itself checks what is shown.
    for (const auto &r : Popups())
        if (r.itemId == item && button >= 0 && button < r.Buttons())
            press.label = r.buttonLabel[button].value_or("");
    noti::remote::Error error;
    if (!noti::remote::PressButton(item, button, press.launches, error))
        FailRemote(error);
    return press;
}

void TimeOut(int item)
{
    noti::remote::Error error;
    if (!noti::remote::TimeOut(item, error))
        FailRemote(error);
}

const size_t kMaxEventText = qorvsim::kMaxText;

int RaiseEvent(int number, const std::string &param, std::chrono::seconds answerWait)
{
    int answer = 0;
    std::string reason;
    if (!qorvsim::InjectEvent(qorvsim::DefaultSocketPath(), number, param, "", answer, reason,
                              static_cast<int>(answerWait.count()))) {
        int pid = ServicePid();
        if (!pid)
            throw Error(Error::Kind::kCannot, kNotRunning, Error::Remedy::kStartService);
        // Connected but no answer: the engine thread is busy with earlier events.
        if (reason == "no answer from the engine")
            throw Error(Error::Kind::kCannot,
                        "the engine of the service (pid " + std::to_string(pid) + ") is busy: no answer within " +
                            std::to_string(answerWait.count()) +
                            " s; the event waits its turn and may still be handled",
                        Error::Remedy::kWaitLonger);
        throw Error(Error::Kind::kCannot,
                    "the engine of the service (pid " + std::to_string(pid) + ") is not started (" + reason +
                        "); the service starts it 3 s after it finds the widget",
                    Error::Remedy::kInstallWidget);
    }
    return answer;
}

} // namespace hosttv
