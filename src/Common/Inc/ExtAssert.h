// Assertions of the common runtime. Unlike assert() they are never compiled
// out, because some of them guard calls that must run. The expression is
// expanded before it is printed (NULL shows as __null), with the full source
// path and the full function signature, in the C library's words.
#pragma once

[[noreturn]] void ext_assert_fail(const char *pExpr, const char *pFile, unsigned int nLine, const char *pFunction);

#define EXT_ASSERT_TEXT(text) #text
#define EXT_ASSERT_EXPANDED(text) EXT_ASSERT_TEXT(text)
#define EXT_ASSERT(expr)                                                                                               \
    ((expr) ? static_cast<void>(0)                                                                                     \
            : ext_assert_fail(EXT_ASSERT_EXPANDED(expr), __FILE__, __LINE__, __PRETTY_FUNCTION__))
