// The one integer reader for the host TV's texts: settings files, control
// requests, command lines, environment variables.
#pragma once

#include <charconv>
#include <string_view>

namespace tvhost {

// Reads a whole decimal integer (an optional '-', then digits: no blanks, no
// '+', no base prefix, nothing after it). value is written only on success;
// out of range is a failure.
template <typename Int>
bool ParseInt(std::string_view text, Int &value)
{
    Int parsed{};
    const char *pEnd = text.data() + text.size();
    auto [pStop, ec] = std::from_chars(text.data(), pEnd, parsed, 10);
    if (text.empty() || ec != std::errc() || pStop != pEnd)
        return false;
    value = parsed;
    return true;
}

} // namespace tvhost
