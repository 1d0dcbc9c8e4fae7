// Test control of the host platform log.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tvhost {
namespace log {

// The level letters of a record, lowest first: verbose, debug, info, warning,
// error, fatal (platform priorities 2 to 7).
inline constexpr std::string_view kLevelLetters = "VDIWEF";
// What begins every further line of a record where a terminal shows it and in
// the kept log, so that no line of a text passes for a record of its own.
inline constexpr std::string_view kContinuation = "    | ";

struct Record {
    int priority; // platform priority: 3 debug .. 7 fatal
    std::string tag;
    std::string text; // the formatted message, as written
};

// Switches the platform log on or off (_get_logging_on). On by default; the
// environment variable TVHOST_LOG=off starts a process with it off.
void SetEnabled(bool bEnabled);

// Copies every record into memory for Records(). Off by default.
void SetCapture(bool bCapture);

// Writes records to stderr. On by default; TVHOST_LOG_STDERR=0 turns it off.
void SetEcho(bool bEcho);

std::vector<Record> Records();
void ClearRecords();

// Texts of the captured records that contain needle, in order.
std::vector<std::string> Find(const std::string &needle);

// text as the log shows it on a terminal, for any program that prints an
// engine's text: C0, C1 and bidirectional controls and bytes outside UTF-8
// escaped (\x1b, \u009b, \u202e, \xff), every further line begun with
// "    | " so that none passes for a line of its own.
std::string ForTerminal(std::string_view text);

// A JSON text (as a JSON writer leaves it: C0 controls already escaped) with
// DEL, the C1 and the bidirectional controls inside its strings written as
// \u escapes: it reads as the same JSON, and a terminal showing it obeys none
// of them.
std::string JsonForTerminal(std::string_view json);

// How many times __dlog_vprint was called since the last reset.
unsigned long PrintCount();

} // namespace log
} // namespace tvhost
