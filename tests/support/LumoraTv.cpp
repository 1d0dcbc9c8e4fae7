#include "LumoraTv.h"

#include <fstream>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

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
    close(fd);
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

LumoraTvResult LumoraTv(const std::vector<std::string> &args, const std::string &input)
{
    // Memory files, not pipes: nothing has to be drained while it runs.
    int fds[3];
    for (int &fd : fds)
        if ((fd = memfd_create("lumora-tv", MFD_CLOEXEC)) < 0)
            throw std::runtime_error("memfd_create failed");
    if (write(fds[0], input.data(), input.size()) != static_cast<ssize_t>(input.size()))
        throw std::runtime_error("cannot write the standard input");
    lseek(fds[0], 0, SEEK_SET);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int i = 0; i < 3; ++i)
        posix_spawn_file_actions_adddup2(&actions, fds[i], i);
    const std::string binary = LumoraTvBinary();
    std::vector<char *> argv{const_cast<char *>(binary.c_str())};
    for (const auto &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::runtime_error("cannot start " + binary);
    int wstatus = 0;
    while (waitpid(pid, &wstatus, 0) < 0) {}
    close(fds[0]);
    return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, ReadBack(fds[1]), ReadBack(fds[2])};
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
