// What of a text may reach a terminal as it is. Engine texts carry what
// appliances and their owners typed: an ESC, a CSI (U+009B) or a
// right-to-left override in a device name would otherwise steer the
// terminal that shows the host TV's log or its pop-ups.
#pragma once

#include <cstddef>

namespace tvhost {
namespace text {

// One step through UTF-8: a code point of n bytes, or a byte that is not
// part of a well-formed sequence (bBroken, n is 1).
struct Unit {
    size_t n;
    unsigned long cp;
    bool bBroken;
};

inline Unit Decode(const char *p, size_t nLeft)
{
    const unsigned char c = static_cast<unsigned char>(p[0]);
    if (c < 0x80)
        return {1, c, false};
    const size_t n = (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (n == 0 || n > nLeft)
        return {1, c, true};
    unsigned long cp = c & (0x7Fu >> n);
    for (size_t k = 1; k < n; ++k) {
        const unsigned char cc = static_cast<unsigned char>(p[k]);
        if ((cc & 0xC0) != 0x80)
            return {1, c, true};
        cp = (cp << 6) | (cc & 0x3F);
    }
    return {n, cp, false};
}

// C0 and C1 control characters and DEL.
inline bool IsControl(unsigned long cp)
{
    return cp < 0x20 || (cp >= 0x7F && cp <= 0x9F);
}

// The marks, embeddings, overrides and isolates that reorder what follows.
inline bool IsBidiControl(unsigned long cp)
{
    return cp == 0x061C || cp == 0x200E || cp == 0x200F || (cp >= 0x202A && cp <= 0x202E) ||
           (cp >= 0x2066 && cp <= 0x2069);
}

} // namespace text
} // namespace tvhost
