// logs: the log the running (or last) service keeps in the TV root, printed
// and followed the way journalctl and logcat do.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"
#include "tvhost/log.h"

namespace lumoratv {

namespace {

const char kLevelsAccepted[] = "V D I W E F, or verbose, debug, info, warn, error, fatal";

char ReadLevel(const std::string &word)
{
    static const std::pair<const char *, char> names[] = {
        {"v", 'V'},    {"verbose", 'V'}, {"d", 'D'}, {"debug", 'D'}, {"i", 'I'}, {"info", 'I'},  {"w", 'W'},
        {"warn", 'W'}, {"warning", 'W'}, {"e", 'E'}, {"error", 'E'}, {"f", 'F'}, {"fatal", 'F'},
    };
    std::string lower = word;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const auto &n : names)
        if (lower == n.first)
            return n.second;
    throw UsageError("unknown level \"" + word + "\" for --level; accepted: " + kLevelsAccepted);
}

struct Options {
    bool bFollow = false;
    char minLevel = 'V';
    std::optional<size_t> last; // -n: only the last records
};

Options ReadOptions(const Args &args)
{
    Options o;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        auto value = [&](const char *name) -> std::string {
            const std::string eq = std::string(name) + "=";
            if (a.compare(0, eq.size(), eq) == 0)
                return a.substr(eq.size());
            if (i + 1 >= args.size())
                throw UsageError(std::string(name) + " needs a value");
            return args[++i];
        };
        if (a == "-f" || a == "--follow") {
            o.bFollow = true;
        } else if (a == "--level" || a.compare(0, 8, "--level=") == 0) {
            o.minLevel = ReadLevel(value("--level"));
        } else if (a == "-n" || a == "--lines" || a.compare(0, 8, "--lines=") == 0) {
            const int n = hosttv::ReadNumber(value(a == "-n" ? "-n" : "--lines"), "-n");
            if (n < 0)
                throw UsageError("-n takes a count of records, 0 or more");
            o.last = static_cast<size_t>(n);
        } else {
            throw BadArguments{};
        }
    }
    return o;
}

// "MM-DD hh:mm:ss.mmm L TAG: text", further lines of the text under its first.
void Print(const hosttv::LogLine &line)
{
    std::string head = line.stamp + " " + line.level + " " + line.tag + ": ";
    std::string out = head;
    const std::string indent(head.size(), ' ');
    // Escaped as the log escapes a terminal's text; its line marks become the indent.
    const std::string text = tvhost::log::ForTerminal(line.text);
    const std::string mark = "\n    | ";
    size_t from = 0;
    for (size_t at; (at = text.find(mark, from)) != std::string::npos; from = at + mark.size())
        out += text.substr(from, at - from) + "\n" + indent;
    out += text.substr(from);
    std::printf("%s\n", out.c_str());
}

// Reads every whole record from `from`, printing those that pass; the offset to go on from.
uint64_t PrintFrom(uint64_t from, const Options &o, std::optional<size_t> last)
{
    std::deque<hosttv::LogLine> tail;
    for (;;) {
        hosttv::LogChunk chunk = hosttv::ReadLog(from);
        for (hosttv::LogLine &line : chunk.lines) {
            if (!hosttv::LevelAtLeast(line.level, o.minLevel))
                continue;
            if (!last) {
                Print(line);
                continue;
            }
            tail.push_back(std::move(line));
            if (tail.size() > *last)
                tail.pop_front();
        }
        const bool bMore = !chunk.lines.empty() && chunk.next != from;
        from = chunk.next;
        if (!bMore)
            break;
    }
    for (const hosttv::LogLine &line : tail)
        Print(line);
    std::fflush(stdout);
    return from;
}

ino_t Inode(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Prints what the log gains until SIGINT, SIGTERM or SIGHUP, following a new
// run that begins it afresh.
int Follow(const Options &o, uint64_t from, ino_t inode)
{
    const std::string path = hosttv::LogPath();
    const std::string dir = std::filesystem::path(path).parent_path();
    const std::string name = std::filesystem::path(path).filename();
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);

    proc::StopSignals signals;
    const proc::Fd watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    const int ifd = watch.Get();
    // The folder, not the file: a new run renames the log and begins another.
    if (ifd < 0 ||
        inotify_add_watch(ifd, dir.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE) < 0)
        throw hosttv::Error(hosttv::Error::Kind::kCannot,
                            "cannot watch " + dir + " for the log: " + std::strerror(errno));
    const char kAfresh[] = "--- the log begins afresh: a new run of the service (or the log passed its size limit) ---";
    for (;;) {
        // Drained before the read, so a write after it wakes the poll below.
        alignas(inotify_event) char events[4096];
        while (read(ifd, events, sizeof events) > 0) {}
        const ino_t now = Inode(path);
        bool bAfresh = false;
        if (now && now != inode) {
            bAfresh = inode != 0;
            inode = now;
            from = 0;
        }
        const hosttv::LogChunk first = hosttv::ReadLog(from, 0); // only whether it begins afresh
        if (first.bRestarted) {
            bAfresh = true;
            from = 0;
            inode = Inode(path);
        }
        if (bAfresh)
            std::printf("%s\n", kAfresh);
        from = PrintFrom(from, o, std::nullopt);
        struct pollfd pfd[2] = {{ifd, POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}};
        if (poll(pfd, 2, -1) < 0 && errno != EINTR)
            throw hosttv::Error(hosttv::Error::Kind::kCannot, "lost the watch on " + dir + " (" + std::strerror(errno) +
                                                                  "); run lumora-tv logs -f again");
        if (signals.Got())
            return kDone;
    }
}

} // namespace

int Logs(const Args &args)
{
    const Options o = ReadOptions(args);
    const std::string path = hosttv::LogPath();
    const ino_t inode = Inode(path);
    if (!inode) {
        const std::string text = "no log yet: it appears once `lumora-tv run` starts the service (" + path + ")";
        if (!o.bFollow)
            throw hosttv::Error(hosttv::Error::Kind::kCannot, text);
        std::fprintf(stderr, "lumora-tv: %s; waiting for it (Ctrl-C ends)\n", text.c_str());
        return Follow(o, 0, 0);
    }
    const uint64_t next = PrintFrom(0, o, o.last);
    return o.bFollow ? Follow(o, next, inode) : kDone;
}

} // namespace lumoratv
