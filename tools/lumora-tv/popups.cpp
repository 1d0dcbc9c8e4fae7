// notifications, press, timeout.
#include <cstdio>

#include "commands.h"
#include "tvhost/log.h"

namespace lumoratv {

namespace {

// Tabs and line breaks would break the one-line form; other controls are
// escaped as the log escapes them.
std::string OneLine(const std::optional<std::string> &text)
{
    std::string out = text.value_or("");
    for (char &c : out)
        if (c == '\t' || c == '\n' || c == '\r')
            c = ' ';
    return tvhost::log::ForTerminal(out);
}

std::string ExtraData(const tvhost::apps::Launch &launch)
{
    std::vector<std::string> pairs;
    for (const auto &kv : launch.extraData)
        pairs.push_back(OneLine(kv.first) + "=" + OneLine(kv.second));
    return pairs.empty() ? "no extra data" : Join(pairs, " ");
}

} // namespace

int Notifications(const Args &args)
{
    bool bBrief = false;
    bool bJson = false;
    std::optional<int> item;
    for (const auto &a : args) {
        if (a == "--brief" && !bJson)
            bBrief = true;
        else if (a == "--json" && !bBrief)
            bJson = true;
        else if (!item && !a.empty() && a[0] != '-')
            item = hosttv::ReadNumber(a, "ITEM");
        else
            throw BadArguments{};
    }
    std::vector<tvhost::notifications::Record> records;
    if (item)
        records.push_back(hosttv::Popup(*item));
    else
        records = hosttv::Popups();
    if (bJson) {
        std::printf("%s\n", hosttv::Json(records).c_str());
        return kDone;
    }
    if (records.empty() && !bBrief)
        std::printf("nothing is on screen\n");
    for (const auto &r : records) {
        if (bBrief) {
            std::string line = std::to_string(r.itemId) + "\t" + OneLine(r.title);
            for (int i = 0; i < r.Buttons(); ++i)
                line += "\t" + OneLine(r.buttonLabel[i]);
            std::printf("%s\n", line.c_str());
        } else {
            std::printf("%s", tvhost::notifications::Render(r).c_str());
        }
    }
    return kDone;
}

int Press(const Args &args)
{
    const int item = hosttv::ReadNumber(args[0], "ITEM");
    const int button = hosttv::ReadNumber(args[1], "BUTTON");
    const hosttv::Press press = hosttv::PressButton(item, button);
    std::string which = "button " + std::to_string(button);
    if (press.label)
        which = "[ " + OneLine(press.label) + " ] (" + which + ")";
    std::printf("pressed %s of pop-up #%d\n", which.c_str(), item);
    if (press.launches.empty())
        std::printf("the service launched nothing\n");
    for (const auto &l : press.launches) {
        if (l.result == 0)
            std::printf("the service launched %s with %s\n", OneLine(l.appId).c_str(), ExtraData(l).c_str());
        else
            std::printf("the service's launch request for %s with %s failed (result %d)\n", OneLine(l.appId).c_str(),
                        ExtraData(l).c_str(), l.result);
    }
    return kDone;
}

int Timeout(const Args &args)
{
    const int item = hosttv::ReadNumber(args[0], "ITEM");
    hosttv::TimeOut(item);
    std::printf("pop-up #%d timed out and left the screen\n", item);
    return kDone;
}

} // namespace lumoratv
