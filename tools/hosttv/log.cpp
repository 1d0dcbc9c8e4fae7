// The log a service started by `lumora-tv run` keeps in the TV root: the host
// platform log writes it in the threadtime form, one write per record, and
// anyone may read it while it grows.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "hosttv/hosttv.h"
#include "tvhost/log.h"
#include "tvhost/tvhost.h"
#include "tvlog/tvlog.h"

namespace hosttv {

namespace {

constexpr size_t kChunk = 1 << 16;

// The host TV's terminal form marks every further line of a record.
constexpr std::string_view kMarker = tvhost::log::kContinuation;

class File {
public:
    explicit File(const std::string &path) : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~File()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    int fd() const { return m_fd; }

private:
    int m_fd;
};

LogLine ToLogLine(const tvlog::Record &record, std::string_view line)
{
    LogLine out;
    if (record.ms)
        out.stamp = std::string(line.substr(0, 18));
    out.level = record.level;
    out.pid = record.pid;
    out.tid = record.tid;
    out.tag = record.tag;
    out.text = record.text;
    return out;
}

} // namespace

std::string LogPath()
{
    return tvhost::Root() + "/opt/var/tvhost/service.log";
}

bool LevelAtLeast(char level, char minLevel)
{
    const size_t at = tvhost::log::kLevelLetters.find(level);
    const size_t min = tvhost::log::kLevelLetters.find(minLevel);
    return at != std::string_view::npos && min != std::string_view::npos && at >= min;
}

LogChunk ReadLog(uint64_t from, size_t max)
{
    LogChunk chunk;
    File file(LogPath());
    struct stat st;
    if (file.fd() < 0 || fstat(file.fd(), &st) != 0) {
        if (errno == ENOENT)
            return chunk;
        throw Error(Error::Kind::kCannot, "cannot read " + LogPath() + ": " + std::strerror(errno));
    }
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    if (size < from) {
        from = 0;
        chunk.bRestarted = true;
    }
    chunk.next = from;
    if (max == 0)
        return chunk;

    // Only whole lines are taken. A record is whole once a line feed ends
    // its last line and the next line begins with anything but the marker
    // of a further line. The writer writes each record at once, so at the
    // end of the file a record that ends with a line feed is taken whole.
    std::optional<LogLine> pending;
    uint64_t pendingStart = 0;
    std::string buffer;
    uint64_t bufferStart = from; // the file offset of buffer[0]
    std::vector<char> block(kChunk);
    tvlog::Record parsed;
    uint64_t at = from;
    bool bEof = false;
    while (!bEof) {
        const ssize_t n = pread(file.fd(), block.data(), block.size(), static_cast<off_t>(at));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw Error(Error::Kind::kCannot, "cannot read " + LogPath() + ": " + std::strerror(errno));
        bEof = n == 0;
        buffer.append(block.data(), static_cast<size_t>(n));
        at += static_cast<uint64_t>(n);
        size_t begin = 0;
        for (size_t end; (end = buffer.find('\n', begin)) != std::string::npos; begin = end + 1) {
            const std::string_view line(buffer.data() + begin, end - begin);
            const uint64_t lineStart = bufferStart + begin;
            if (tvlog::ParseLine(line, parsed)) {
                if (pending) {
                    chunk.lines.push_back(std::move(*pending));
                    pending.reset();
                    chunk.next = lineStart;
                    if (chunk.lines.size() == max)
                        return chunk;
                }
                pending = ToLogLine(parsed, line);
                pendingStart = lineStart;
            } else if (pending) {
                pending->text += '\n';
                pending->text += line.compare(0, kMarker.size(), kMarker) == 0 ? line.substr(kMarker.size()) : line;
            } else {
                // Not a record's start (begun inside one): skipped.
                chunk.next = lineStart + line.size() + 1;
            }
        }
        buffer.erase(0, begin);
        bufferStart += begin;
    }
    // buffer holds a partial line, if any: a further line of pending, or the next record.
    const bool bFurther = kMarker.compare(0, std::min(buffer.size(), kMarker.size()), buffer, 0,
                                          std::min(buffer.size(), kMarker.size())) == 0;
    if (pending && (buffer.empty() || !bFurther)) {
        chunk.lines.push_back(std::move(*pending));
        chunk.next = bufferStart;
    } else if (pending) {
        chunk.next = pendingStart;
    }
    return chunk;
}

} // namespace hosttv
