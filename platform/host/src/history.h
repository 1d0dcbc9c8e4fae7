// Internal to tvhost: how much of what a running service did is kept.
#pragma once

#include <cstddef>

namespace tvhost {
namespace detail {

// What a running service called and posted is kept for the test-control API;
// a service that runs for days keeps only the latest kHistory entries or more.
const size_t kHistory = 4096;

template <typename V>
void TrimHistory(V &v)
{
    if (v.size() > 2 * kHistory)
        v.erase(v.begin(), v.begin() + static_cast<long>(v.size() - kHistory));
}

} // namespace detail
} // namespace tvhost
