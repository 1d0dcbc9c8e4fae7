#include "host_files.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "tvhost/tvhost.h"

namespace tvhost {
namespace detail {

std::string StateDir(const std::string &area)
{
    std::string dir = Root() + "/opt/var/tvhost/" + area;
    // Asked for on every platform call: one stat when the folder is there.
    struct stat st;
    if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        return dir;
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    return dir;
}

std::string PercentEscape(const std::string &text, bool (*bEscape)(unsigned char c, size_t at))
{
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (bEscape(c, i)) {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string EscapeName(const std::string &name)
{
    return PercentEscape(
        name, [](unsigned char c, size_t at) { return c == '/' || c == '%' || c == '\0' || (at == 0 && c == '.'); });
}

bool WriteFileAtomically(const std::string &path, const std::string &content)
{
    static std::atomic<unsigned> counter{0};
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string tmp = dir + "/." + base + "." + std::to_string(getpid()) + "." + std::to_string(counter++) + ".tmp";

    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    size_t done = 0;
    while (done < content.size()) {
        ssize_t n = write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            close(fd);
            unlink(tmp.c_str());
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (close(fd) != 0 || rename(tmp.c_str(), path.c_str()) != 0) {
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

bool ReadFile(const std::string &path, std::string &content)
{
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return false;
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
        out.append(buf, n);
    bool ok = !std::ferror(f);
    std::fclose(f);
    if (ok)
        content = std::move(out);
    return ok;
}

bool FileExists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

bool TouchFile(const std::string &path)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

bool RemoveFile(const std::string &path)
{
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

} // namespace detail
} // namespace tvhost
