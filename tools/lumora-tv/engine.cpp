// event.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "commands.h"
#include "tvhost/log.h"
#include "tvhost/parse.h"

namespace lumoratv {

namespace {

namespace fs = std::filesystem;

std::string SampleNames()
{
    std::vector<std::string> names;
    for (const hosttv::EventKind &kind : hosttv::EventKinds())
        names.push_back(kind.sample + std::string(" (") + std::to_string(kind.number) + ")");
    return Join(names, ", ");
}

// At most the engine's longest text of in; more is refused before it is all read.
std::string ReadBounded(std::istream &in, const std::string &source)
{
    std::string text;
    char chunk[1 << 16];
    while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
        text.append(chunk, static_cast<size_t>(in.gcount()));
        if (text.size() > hosttv::kMaxEventText)
            throw hosttv::Error(hosttv::Error::Kind::kCannot,
                                source + " holds more than " + std::to_string(hosttv::kMaxEventText >> 20) +
                                    " MiB, more than the engine takes for one event; give a shorter text");
    }
    return text;
}

// The text of FILE, a shipped sample or standard input.
std::string ReadText(const std::string &source)
{
    if (source == "-")
        return ReadBounded(std::cin, "the standard input");
    std::string path = source;
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        path = hosttv::EventSample(source);
        if (path.empty())
            throw hosttv::Error(hosttv::Error::Kind::kCannot, "cannot read " + source +
                                                                  ": no such file, nor a shipped sample; the "
                                                                  "samples are: " +
                                                                  SampleNames());
    }
    if (fs::is_directory(path, ec))
        throw hosttv::Error(hosttv::Error::Kind::kCannot, source + " is a directory; give a file of the event's text");
    if (fs::is_fifo(path, ec))
        std::fprintf(stderr, "lumora-tv: reading the pipe %s until its writer ends it (Ctrl-C to give up)\n",
                     source.c_str());
    else if (!fs::is_regular_file(path, ec))
        throw hosttv::Error(hosttv::Error::Kind::kCannot,
                            source + " is not a file nor a pipe (a device or a socket); give a file of the event's "
                                     "text, or - for the standard input");
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw hosttv::Error(hosttv::Error::Kind::kCannot, "cannot read " + source + ": " + std::strerror(errno));
    return ReadBounded(in, source);
}

bool IsUtf8(const std::string &text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t n = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : 4;
        if (n == 4)
            return false;
        for (size_t k = 1; k <= n; ++k)
            if (i + k >= text.size() || (static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80)
                return false;
        i += n;
    }
    return true;
}

void Warn(const std::string &text)
{
    std::fprintf(stderr, "lumora-tv: warning: %s\n", text.c_str());
}

// The title and the button labels on one line.
std::string Summary(const tvhost::notifications::Record &r)
{
    std::string out = r.title.value_or("");
    for (int i = 0; i < r.Buttons(); ++i)
        out += " [ " + r.buttonLabel[i].value_or("") + " ]";
    for (char &c : out)
        if (c == '\t' || c == '\n' || c == '\r')
            c = ' ';
    return tvhost::log::ForTerminal(out);
}

} // namespace

int Event(const Args &arguments)
{
    Args args;
    std::chrono::seconds answerWait = hosttv::kEventAnswerWait;
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] != "--wait") {
            args.push_back(arguments[i]);
            continue;
        }
        int seconds = 0;
        if (i + 1 >= arguments.size() || !tvhost::ParseInt(arguments[i + 1], seconds) || seconds < 1 || seconds > 86400)
            throw UsageError("--wait needs a whole number of seconds from 1 to 86400, such as 60");
        answerWait = std::chrono::seconds(seconds);
        ++i;
    }
    if (args.size() != 2)
        throw BadArguments{};
    int number = 0;
    if (!tvhost::ParseInt(args[0], number))
        throw UsageError("bad event number \"" + args[0] + "\": give a whole decimal number such as 5 or 12291");
    const std::string text = ReadText(args[1]);
    // Sent all the same: what the service does with such a text is worth seeing.
    const std::string source = args[1] == "-" ? "the standard input" : args[1];
    const size_t nul = text.find('\0');
    const hosttv::EventKind *kind = hosttv::FindEventKind(number);
    if (!kind)
        Warn("the service does nothing for event " + std::to_string(number) + "; it acts on " + SampleNames());
    else if (kind->bDocument && text.empty())
        Warn("the text is empty; the service will not parse it");
    else if (nul != std::string::npos)
        Warn(source + " holds a NUL byte (at byte " + std::to_string(nul) +
             "): a binary file? The engine hands the service C strings: it sees the text before it only");
    else if (!IsUtf8(text))
        Warn(source + " is not UTF-8 text");

    const hosttv::EventOutcome outcome = hosttv::SendEvent(number, text, std::chrono::milliseconds(500), answerWait);
    std::printf("event %d: the service answered %d%s\n", number, outcome.answer,
                outcome.answer == -2 ? " (the engine has no callback: the service did not register one)" : "");
    for (const auto &r : outcome.shown)
        std::printf("pop-up #%d shown: %s (see: lumora-tv notifications %d)\n", r.itemId, Summary(r).c_str(), r.itemId);
    if (outcome.powerOff)
        std::printf("the TV was switched off (power-off request of kind %d)\n", *outcome.powerOff);
    if (outcome.bServiceEnded)
        std::printf("the service ended\n");
    if (!kind || !outcome.shown.empty() || outcome.powerOff)
        return kDone;
    if (kind->bPopup)
        std::printf("no pop-up shown: the text was not parsed, or the service shows nothing for it; see the "
                    "service's log\n");
    else if (kind->bPowerOff)
        std::printf("the TV was not switched off; see the service's log\n");
    else
        std::printf("nothing to see for this event: the service logs the list, or that it was not parsed; see "
                    "the service's log\n");
    return kDone;
}

} // namespace lumoratv
