// The commands of lumora-tv, one group per file. A handler reads its
// arguments, asks hosttv, and prints the answer; main.cpp's table names them.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "hosttv/hosttv.h"

namespace lumoratv {

using Args = std::vector<std::string>;

// The command line was wrong, as the text says: exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// The arguments do not fit the command: its usage is printed, exit status 2.
struct BadArguments {};

std::string Join(const std::vector<std::string> &words, const char *separator);
// "PzKmRvTqXa.Lumora is installed, running", as widget and status print it.
std::string WidgetText(const hosttv::WidgetState &state);

// service.cpp
void Run(const Args &args);
void Status(const Args &args);
void Reset(const Args &args);
void Power(const Args &args);
// settings.cpp
void Get(const Args &args);
void Set(const Args &args);
// widget.cpp
void Widget(const Args &args);
void Network(const Args &args);
// popups.cpp
void Notifications(const Args &args);
void Press(const Args &args);
void Timeout(const Args &args);
// engine.cpp
void Event(const Args &args);
// replay.cpp
void Scenario(const Args &args);
void Replay(const Args &args);

} // namespace lumoratv
