// Test-control API of the host TV: what tests and lumora-tv use to look at and
// steer the emulated platform. The service itself never includes this.
#pragma once

#include <string>

namespace tvhost {

// The host TV root every platform path lives under (compiled in).
const std::string &Root();

// Puts every emulated service back into its initial state: captured records,
// queued fault results, call counts. Files under the TV root are left alone.
void Reset();

} // namespace tvhost
