// The commands of lumora-tv, one group per file. A handler reads its
// arguments, asks hosttv, and prints the answer; main.cpp's table names them.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "hosttv/hosttv.h"

namespace lumoratv {

using Args = std::vector<std::string>;

// Exit statuses: each has one meaning for every command.
constexpr int kDone = 0;
constexpr int kFailed = 1;   // it could not be done
constexpr int kUsage = 2;    // the command line was wrong
constexpr int kNegative = 3; // the answer is no: no service runs (status), the TV is off (power)

// The command line was wrong, as the text says: exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// The arguments do not fit the command: its usage is printed, exit status 2.
struct BadArguments {};

std::string Join(const std::vector<std::string> &words, const char *separator);
// "PzKmRvTqXa.Lumora is installed, running", as widget and status print it.
std::string WidgetText(const hosttv::WidgetState &state);
// Removes every flag from args; whether there was one.
bool TakeFlag(Args &args, const char *flag);

// service.cpp
int Run(const Args &args);
// Waits for a service this process started until it ends, stopping it on a
// stop signal; this command's exit status. afterEnd follows the line that
// says how it ended (which a clean end without it does not get).
int WaitForService(proc::Child &service, proc::StopSignals &signals, const char *afterEnd);
int Stop(const Args &args);
int Status(const Args &args);
int Reset(const Args &args);
int Power(const Args &args);
// logs.cpp
int Logs(const Args &args);
// settings.cpp
int Get(const Args &args);
int Set(const Args &args);
// widget.cpp
int Widget(const Args &args);
int Network(const Args &args);
// popups.cpp
int Notifications(const Args &args);
int Press(const Args &args);
int Timeout(const Args &args);
// engine.cpp
int Event(const Args &args);
// replay.cpp
int Scenario(const Args &args);
int Replay(const Args &args);
// web.cpp
int Web(const Args &args);

} // namespace lumoratv
