// Shared bits of the parser fuzz targets.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include <libxml/xmlerror.h>

// A broken invariant is a finding: stop with a message libFuzzer keeps next to the crash input.
#define FUZZ_CHECK(cond)                                                                                               \
    do {                                                                                                               \
        if (!(cond)) {                                                                                                 \
            std::fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #cond);                          \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (0)

inline void FuzzIgnoreXmlError(void *, const char *, ...) {}

// libxml2 would print every malformed input to stderr; that only slows the run down.
inline void FuzzQuietXml()
{
    xmlSetGenericErrorFunc(nullptr, FuzzIgnoreXmlError);
}

// The parsers take NUL-terminated texts, as the engine delivers them.
inline std::string FuzzText(const unsigned char *data, size_t size)
{
    return std::string(reinterpret_cast<const char *>(data), size);
}
