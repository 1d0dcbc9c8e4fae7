// The one number reader of the host kit: settings files, control requests,
// command lines, environment variables, the engine's socket, replay and mode
// files, the web API. Each reads the whole text or nothing: no blanks, no
// '+', no base prefix, nothing after the number.
#pragma once

#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>

namespace tvhost {

// A whole decimal integer: an optional '-', then digits. value is written
// only on success; out of the type's range is a failure.
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

// The same, and within [min, max].
template <typename Int>
bool ParseInt(std::string_view text, Int &value, Int min, Int max)
{
    Int parsed{};
    if (!ParseInt(text, parsed) || parsed < min || parsed > max)
        return false;
    value = parsed;
    return true;
}

// A finite decimal number ("2", "0.5", "-1.25", "1.5e+06"); out of the
// double's range is a failure.
inline bool ParseReal(std::string_view text, double &value)
{
    double parsed = 0;
    const char *pEnd = text.data() + text.size();
    auto [pStop, ec] = std::from_chars(text.data(), pEnd, parsed, std::chars_format::general);
    if (text.empty() || ec != std::errc() || pStop != pEnd || !std::isfinite(parsed))
        return false;
    value = parsed;
    return true;
}

// Two hexadecimal digits, as in a %XX escape.
inline bool ParseHexByte(std::string_view text, unsigned char &value)
{
    unsigned parsed = 0;
    const char *pEnd = text.data() + text.size();
    auto [pStop, ec] = std::from_chars(text.data(), pEnd, parsed, 16);
    if (text.size() != 2 || ec != std::errc() || pStop != pEnd)
        return false;
    value = static_cast<unsigned char>(parsed);
    return true;
}

} // namespace tvhost
