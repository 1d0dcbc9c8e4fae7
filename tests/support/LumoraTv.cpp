#include "LumoraTv.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "tvhost/network.h"

namespace {

// A temporary file, removed with the object.
struct TempFile {
    std::string path;
    TempFile()
    {
        char tmpl[] = "/tmp/lumora-tv-XXXXXX";
        int fd = mkstemp(tmpl);
        if (fd < 0)
            throw std::runtime_error("mkstemp failed");
        close(fd);
        path = tmpl;
    }
    ~TempFile() { unlink(path.c_str()); }
};

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
    TempFile in, out, err;
    {
        std::ofstream f(in.path, std::ios::binary);
        f << input;
    }
    const std::string binary = LumoraTvBinary();
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(binary.c_str()));
    for (const auto &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);

    // Only async-signal-safe calls between fork and exec: this process has threads.
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        int fdIn = open(in.path.c_str(), O_RDONLY);
        int fdOut = open(out.path.c_str(), O_WRONLY | O_TRUNC);
        int fdErr = open(err.path.c_str(), O_WRONLY | O_TRUNC);
        if (fdIn < 0 || fdOut < 0 || fdErr < 0)
            _exit(126);
        dup2(fdIn, STDIN_FILENO);
        dup2(fdOut, STDOUT_FILENO);
        dup2(fdErr, STDERR_FILENO);
        execve(binary.c_str(), argv.data(), environ);
        _exit(127);
    }
    int wstatus = 0;
    while (waitpid(pid, &wstatus, 0) < 0) {}
    LumoraTvResult result;
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    result.out = ReadFile(out.path);
    result.err = ReadFile(err.path);
    return result;
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
