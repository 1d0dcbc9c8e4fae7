#include "ExtAssert.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

void ext_assert_fail(const char *pExpr, const char *pFile, unsigned int nLine, const char *pFunction)
{
    std::fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name, pFile, nLine,
                 pFunction, pExpr);
    std::fflush(stderr);
    std::abort();
}
