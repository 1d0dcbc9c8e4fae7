// The notification service's control socket: lumora-tv and the end-to-end
// tests see the screen and press buttons of a service in another process.
//
// One request per connection, one line, answered by "OK ..." lines or one
// "ERROR <reason>" line, then the server closes:
//   PING                   OK <pid>
//   LIST                   OK <count>, then one line per notification on screen
//   PRESS <item> <button>  OK <count>, then one LAUNCH line per launch request
//   TIMEOUT <item>         OK
// Fields within a line are separated by tabs; texts are %-escaped, and a text
// field is "-" for a null pointer or "=" followed by the text.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <unistd.h>

#include "host_files.h"
#include "notification_service.h"
#include "tvhost/local_socket.h"
#include "tvhost/notifications.h"
#include "tvhost/parse.h"
#include "tvhost/tvhost.h"

namespace tvhost {
namespace notifications {

std::string ControlSocketPath()
{
    return Root() + "/opt/var/tvhost/notifications.sock";
}

namespace {

constexpr size_t kMaxRequest = 256;
constexpr int kClientIoSeconds = 2;
// A press waits for the service's callback, which may launch the widget.
constexpr int kRemoteAnswerSeconds = 20;

std::string Escape(const std::string &text)
{
    return detail::PercentEscape(text, [](unsigned char c, size_t) { return c == '%' || c < 0x20 || c == 0x7F; });
}

bool Unescape(const std::string &text, std::string &out)
{
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        unsigned char byte = 0;
        if (i + 2 >= text.size() || !ParseHexByte(std::string_view(text).substr(i + 1, 2), byte))
            return false;
        out += static_cast<char>(byte);
        i += 2;
    }
    return true;
}

std::string TextField(const std::optional<std::string> &text)
{
    return text ? "=" + Escape(*text) : "-";
}

bool ParseTextField(const std::string &field, std::optional<std::string> &text)
{
    if (field == "-") {
        text.reset();
        return true;
    }
    std::string value;
    if (field.empty() || field[0] != '=' || !Unescape(field.substr(1), value))
        return false;
    text = value;
    return true;
}

std::vector<std::string> Split(const std::string &line, char separator)
{
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        size_t at = line.find(separator, start);
        fields.push_back(line.substr(start, at == std::string::npos ? std::string::npos : at - start));
        if (at == std::string::npos)
            return fields;
        start = at + 1;
    }
}

// The 22 words of the record, in the record's order.
std::string RecordLine(const Record &r)
{
    std::string line = std::to_string(r.version) + "\t" + std::to_string(r.popup) + "\t" + std::to_string(r.style) +
                       "\t" + TextField(r.appId) + "\t" + std::to_string(r.itemId);
    for (int n : r.reserved1)
        line += "\t" + std::to_string(n);
    line += "\t" + TextField(r.title) + "\t" + TextField(r.body) + "\t" + TextField(r.subText);
    for (int n : r.reserved2)
        line += "\t" + std::to_string(n);
    line += "\t" + std::to_string(r.buttonCount) + "\t" + std::to_string(r.needAnswer);
    for (const auto &t : r.buttonLabel)
        line += "\t" + TextField(t);
    for (const auto &t : r.buttonIcon)
        line += "\t" + TextField(t);
    return line;
}

bool ParseRecordLine(const std::string &line, Record &r)
{
    std::vector<std::string> f = Split(line, '\t');
    if (f.size() != 22)
        return false;
    bool ok = ParseInt(f[0], r.version) && ParseInt(f[1], r.popup) && ParseInt(f[2], r.style) &&
              ParseTextField(f[3], r.appId) && ParseInt(f[4], r.itemId);
    for (int i = 0; i < 3; ++i)
        ok = ok && ParseInt(f[5 + i], r.reserved1[i]) && ParseInt(f[11 + i], r.reserved2[i]);
    ok = ok && ParseTextField(f[8], r.title) && ParseTextField(f[9], r.body) && ParseTextField(f[10], r.subText) &&
         ParseInt(f[14], r.buttonCount) && ParseInt(f[15], r.needAnswer);
    for (int i = 0; i < Record::kMaxButtons; ++i)
        ok = ok && ParseTextField(f[16 + i], r.buttonLabel[i]) && ParseTextField(f[19 + i], r.buttonIcon[i]);
    return ok;
}

std::string LaunchLine(const tvhost::apps::Launch &launch)
{
    std::string line =
        "LAUNCH\t" + std::to_string(launch.result) + "\t" + Escape(launch.appId) + "\t" + Escape(launch.operation);
    for (const auto &kv : launch.extraData)
        line += "\t" + Escape(kv.first) + "\t" + Escape(kv.second);
    return line;
}

bool ParseLaunchLine(const std::string &line, tvhost::apps::Launch &launch)
{
    std::vector<std::string> f = Split(line, '\t');
    if (f.size() < 4 || f.size() % 2 != 0 || f[0] != "LAUNCH" || !ParseInt(f[1], launch.result) ||
        !Unescape(f[2], launch.appId) || !Unescape(f[3], launch.operation))
        return false;
    launch.extraData.clear();
    for (size_t i = 4; i + 1 < f.size(); i += 2) {
        std::string key, value;
        if (!Unescape(f[i], key) || !Unescape(f[i + 1], value))
            return false;
        launch.extraData.emplace_back(key, value);
    }
    return true;
}

void Warn(const std::string &text)
{
    std::string line = "tvhost: " + text + "\n";
    (void)!write(STDERR_FILENO, line.data(), line.size());
}

struct Control {
    std::mutex mutex; // serialises start and stop
    // One press or timeout at a time: what the service launched while one was
    // delivered is that press's answer.
    std::mutex deliveryMutex;
    localsocket::Server server;
    std::atomic<bool> bStop{false}; // requests waiting for their delivery give up
};

// Never destroyed, like the service: its threads are joined by StopControl.
Control &C()
{
    static Control *c = new Control;
    return *c;
}

// The words of a request, split at blanks.
std::vector<std::string> Words(const std::string &request)
{
    std::vector<std::string> words;
    size_t i = 0;
    for (;;) {
        while (i < request.size() && std::isspace(static_cast<unsigned char>(request[i])))
            ++i;
        if (i == request.size())
            return words;
        size_t start = i;
        while (i < request.size() && !std::isspace(static_cast<unsigned char>(request[i])))
            ++i;
        words.push_back(request.substr(start, i - start));
    }
}

std::string Answer(const std::string &request)
{
    const std::vector<std::string> words = Words(request);
    const std::string verb = words.empty() ? "" : words[0];
    if (verb == "PING" && words.size() == 1)
        return "OK " + std::to_string(getpid()) + "\n";
    if (verb == "LIST" && words.size() == 1) {
        std::vector<Record> shown = Shown();
        std::string answer = "OK " + std::to_string(shown.size()) + "\n";
        for (const Record &r : shown)
            answer += RecordLine(r) + "\n";
        return answer;
    }
    int nItem = 0;
    int nButton = 0;
    const bool bPress =
        verb == "PRESS" && words.size() == 3 && ParseInt(words[1], nItem) && ParseInt(words[2], nButton);
    const bool bTimeout = verb == "TIMEOUT" && words.size() == 2 && ParseInt(words[1], nItem);
    if (!bPress && !bTimeout)
        return "ERROR unknown request \"" + Escape(request) +
               "\"; expected PING, LIST, PRESS <item> <button> or TIMEOUT <item>\n";

    std::lock_guard<std::mutex> oneAtATime(C().deliveryMutex);
    const size_t nLaunchesBefore = tvhost::apps::Launches().size();
    Ticket ticket;
    std::string why;
    // The viewer's own press or timeout: the pop-up leaves the screen.
    if (!QueueDelivery(bPress, nItem, nButton, true, ticket, why))
        return "ERROR " + Escape(why) + "\n";
    if (!WaitForDelivery(ticket, C().bStop))
        return "ERROR the notification service closed before the " + std::string(bPress ? "press" : "timeout") +
               " was delivered\n";
    if (!bPress)
        return "OK\n";
    // The button callbacks are the only launchers in the service: what is new
    // came from this press.
    std::vector<tvhost::apps::Launch> launches = tvhost::apps::Launches();
    std::string answer = "OK " + std::to_string(launches.size() - std::min(nLaunchesBefore, launches.size())) + "\n";
    for (size_t i = nLaunchesBefore; i < launches.size(); ++i)
        answer += LaunchLine(launches[i]) + "\n";
    return answer;
}

localsocket::Frame OneLine(std::string_view input, bool bNoMore)
{
    const size_t nl = input.find('\n');
    if (nl != std::string_view::npos && nl <= kMaxRequest)
        return localsocket::Frame::Whole(nl + 1);
    if (nl != std::string_view::npos || input.size() > kMaxRequest || bNoMore)
        return localsocket::Frame::Refused("ERROR expected one request line of at most " + std::to_string(kMaxRequest) +
                                           " bytes\n");
    return localsocket::Frame::Incomplete();
}

} // namespace

void StartControl()
{
    Control &c = C();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (c.server.Serving())
        return;
    const std::string path = ControlSocketPath();
    localsocket::ServerOptions options;
    options.nIdleSeconds = options.nRequestSeconds = options.nSendSeconds = kClientIoSeconds;
    options.strBusyAnswer = "ERROR too many connections\n";
    int nErrno = 0;
    auto handle = [](const std::string &request) {
        return localsocket::Answer{Answer(request.substr(0, request.size() - 1)), true};
    };
    switch (c.server.Start(path, OneLine, handle, options, nErrno)) {
    case localsocket::Server::Opened::kServing: break;
    case localsocket::Server::Opened::kPathTooLong:
        Warn("the notification control socket path is too long (" + std::to_string(path.size()) + " bytes, at most " +
             std::to_string(localsocket::MaxPathLength()) + "): " + path +
             "; lumora-tv cannot reach this service. Build in a tree with a shorter path.");
        break;
    case localsocket::Server::Opened::kTaken:
        Warn("another service on this host TV serves " + path +
             "; lumora-tv cannot reach this one. Stop the other one first.");
        break;
    case localsocket::Server::Opened::kFailed:
        Warn("cannot serve " + path + " (" + std::strerror(nErrno) + "); lumora-tv cannot reach this service");
        break;
    }
}

void StopControl()
{
    Control &c = C();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (!c.server.Serving())
        return;
    c.bStop = true;
    WakeWaiters();
    c.server.Stop();
    c.bStop = false;
}

namespace {

// Sends one request and reads the answer lines; false with the reason when
// nobody answers or the answer is an error.
bool Request(const std::string &request, std::vector<std::string> &lines, remote::Error &error)
{
    lines.clear();
    const std::string path = ControlSocketPath();
    std::string answer;
    localsocket::ClientError failure;
    if (!localsocket::Exchange(path, request + "\n", kRemoteAnswerSeconds, SIZE_MAX, nullptr, answer, failure)) {
        const std::string reason = std::strerror(failure.nErrno);
        switch (failure.kind) {
        case localsocket::ClientError::kPathTooLong:
            error.text = "the notification control socket path is too long: " + path;
            break;
        case localsocket::ClientError::kSocket: error.text = "socket: " + reason; break;
        case localsocket::ClientError::kNobodyListens:
            error.bNoService = true;
            error.text = "no service is running on this host TV (nothing answers on " + path + ")";
            break;
        case localsocket::ClientError::kConnect:
            error.text = "cannot reach the service at " + path + ": " + reason;
            break;
        case localsocket::ClientError::kSend:
            error.text = "the service closed the connection before the request was sent";
            break;
        case localsocket::ClientError::kTimeout:
            error.text = "the service did not answer within " + std::to_string(kRemoteAnswerSeconds) + " s";
            break;
        default: error.text = "reading the answer: " + reason; break;
        }
        return false;
    }
    size_t start = 0;
    while (start < answer.size()) {
        size_t nl = answer.find('\n', start);
        if (nl == std::string::npos) {
            error.text = "the service's answer was cut short";
            return false;
        }
        lines.push_back(answer.substr(start, nl - start));
        start = nl + 1;
    }
    if (lines.empty()) {
        error.text = "the service closed the connection without an answer";
        return false;
    }
    if (lines[0].compare(0, 6, "ERROR ") == 0) {
        if (!Unescape(lines[0].substr(6), error.text))
            error.text = lines[0].substr(6);
        return false;
    }
    if (lines[0] != "OK" && lines[0].compare(0, 3, "OK ") != 0) {
        error.text = "unexpected answer from the service: " + lines[0];
        return false;
    }
    return true;
}

// The count of an "OK <count>" answer, with that many lines after it.
bool CountedLines(const std::vector<std::string> &lines, size_t &count, remote::Error &error)
{
    if (lines[0].size() < 4 || !ParseInt(std::string_view(lines[0]).substr(3), count) || lines.size() != count + 1) {
        error.text = "malformed answer from the service: " + lines[0];
        return false;
    }
    return true;
}

} // namespace

namespace remote {

bool Ping(int &pid, Error &error)
{
    std::vector<std::string> lines;
    if (!Request("PING", lines, error))
        return false;
    if (lines[0].size() < 4 || !ParseInt(std::string_view(lines[0]).substr(3), pid)) {
        error.text = "malformed answer from the service: " + lines[0];
        return false;
    }
    return true;
}

bool Shown(std::vector<Record> &records, Error &error)
{
    records.clear();
    std::vector<std::string> lines;
    size_t count = 0;
    if (!Request("LIST", lines, error) || !CountedLines(lines, count, error))
        return false;
    for (size_t i = 1; i <= count; ++i) {
        Record r;
        if (!ParseRecordLine(lines[i], r)) {
            error.text = "malformed notification in the service's answer: " + lines[i];
            return false;
        }
        records.push_back(r);
    }
    return true;
}

bool PressButton(int itemId, int buttonIndex, std::vector<apps::Launch> &launches, Error &error)
{
    launches.clear();
    std::vector<std::string> lines;
    size_t count = 0;
    if (!Request("PRESS " + std::to_string(itemId) + " " + std::to_string(buttonIndex), lines, error) ||
        !CountedLines(lines, count, error))
        return false;
    for (size_t i = 1; i <= count; ++i) {
        apps::Launch launch;
        if (!ParseLaunchLine(lines[i], launch)) {
            error.text = "malformed launch in the service's answer: " + lines[i];
            return false;
        }
        launches.push_back(launch);
    }
    return true;
}

bool TimeOut(int itemId, Error &error)
{
    std::vector<std::string> lines;
    return Request("TIMEOUT " + std::to_string(itemId), lines, error);
}

} // namespace remote

} // namespace notifications
} // namespace tvhost
