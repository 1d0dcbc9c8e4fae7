// Building blocks of the hostile engine texts the robustness suites send.
#pragma once

#include <cstddef>
#include <string>

// s, n times over.
inline std::string Repeat(const std::string &s, size_t n)
{
    std::string out;
    out.reserve(s.size() * n);
    for (size_t i = 0; i < n; ++i)
        out += s;
    return out;
}
