// Test control of the host TV's device power.
#pragma once

#include <string>
#include <vector>

namespace tvhost {
namespace power {

// The argument of every power-off request since the last reset, refused ones included.
std::vector<int> Requests();

// Accepted requests are also written to a file under the TV root, one line
// each with its argument, so that another process (lumora-tv, an end-to-end
// test) can tell that the TV was switched off. Reset leaves it alone.
std::string RecordPath();
// The arguments of the accepted requests in that file, of every process,
// since it was last cleared.
std::vector<int> Recorded();
void ClearRecorded();

} // namespace power
} // namespace tvhost
