#include "LumoraTv.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "proc/process.h"
#include "tvhost/network.h"

namespace {

// The whole of a memory file the child wrote.
std::string ReadBack(int fd)
{
    std::string text;
    char buf[65536];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        text.append(buf, static_cast<size_t>(n));
    return text;
}

} // namespace

std::string ReadFile(const std::string &path)
{
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

std::string LumoraTvBinary()
{
    return std::string(LUMORA_BINARY_DIR) + "/tools/lumora-tv";
}

LumoraTvResult LumoraTv(const std::vector<std::string> &args, const std::string &input,
                        const std::vector<std::string> &env)
{
    // Memory files, not pipes: nothing has to be drained while it runs.
    proc::Fd fds[3];
    for (proc::Fd &fd : fds)
        if (!(fd = proc::Fd(memfd_create("lumora-tv", MFD_CLOEXEC))))
            throw std::runtime_error("memfd_create failed");
    if (write(fds[0].Get(), input.data(), input.size()) != static_cast<ssize_t>(input.size()))
        throw std::runtime_error("cannot write the standard input");
    lseek(fds[0].Get(), 0, SEEK_SET);
    proc::Command command;
    command.argv = {LumoraTvBinary()};
    command.argv.insert(command.argv.end(), args.begin(), args.end());
    for (int i = 0; i < 3; ++i)
        command.fds.emplace_back(i, fds[i].Get());
    for (const std::string &e : env)
        command.env.Put(e);
    proc::Child child = proc::Child::Start(command);
    const int wstatus = child.Wait(std::chrono::milliseconds(-1)).value_or(-1);
    return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, ReadBack(fds[1].Get()), ReadBack(fds[2].Get())};
}

std::string Describe(const std::vector<std::string> &args, const LumoraTvResult &result)
{
    std::string line = "lumora-tv";
    for (const auto &a : args)
        line += " " + a;
    return line + "\n  exit status " + std::to_string(result.status) + "\n  stdout: " + result.out +
           "\n  stderr: " + result.err;
}

std::vector<std::string> Popups()
{
    std::vector<std::string> lines;
    std::istringstream in(LumoraTv({"notifications", "--brief"}).out);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

void LeaveHostTvFresh()
{
    LumoraTv({"reset"});
    tvhost::network::ClearOverride();
}
