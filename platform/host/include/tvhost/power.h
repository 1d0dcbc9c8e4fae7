// Test control of the host TV's device power.
#pragma once

#include <vector>

namespace tvhost {
namespace power {

// The next device_power_request_poweroff returns result instead of accepting.
void QueueResult(int result);

// The argument of every power-off request since the last reset, refused ones included.
std::vector<int> Requests();

} // namespace power
} // namespace tvhost
