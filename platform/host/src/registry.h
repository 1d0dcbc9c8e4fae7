// Internal to tvhost: every emulated service registers how it resets itself.
#pragma once

#include <functional>

namespace tvhost {
namespace detail {

struct ResetHook {
    explicit ResetHook(std::function<void()> fn);
};

} // namespace detail
} // namespace tvhost
