// Command result information texts ("false" or "true|<bool>|<text>").
#include <cstdint>

#include "FuzzSupport.h"
#include "LumoraParameter.h"

namespace {
CCommandResult g_reused;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text = FuzzText(data, size);
    const std::string original = text;

    const bool bValidBefore = g_reused.bValid, bSuccessBefore = g_reused.bSuccess;
    const std::string infoBefore = g_reused.strInfo;
    const bool bReused = g_reused.m_ParseSubCommandInfo(text);
    FUZZ_CHECK(text == original);

    CCommandResult fresh;
    const bool bFresh = fresh.m_ParseSubCommandInfo(text);
    FUZZ_CHECK(bReused == bFresh);

    std::vector<std::string> fields;
    const int n = LumoraParameter::Tokenize(text, fields);
    if (bFresh && fresh.bValid) {
        // Three fields, led by "true".
        FUZZ_CHECK(n == 3 && fields[0] == "true");
        FUZZ_CHECK(fresh.bSuccess == (fields[1] == "true"));
        FUZZ_CHECK(fresh.strInfo == fields[2]);
        FUZZ_CHECK(g_reused.bValid && g_reused.bSuccess == fresh.bSuccess && g_reused.strInfo == fresh.strInfo);
    } else {
        // "false" alone, or a failure: nothing changes.
        FUZZ_CHECK(!fresh.bValid && !fresh.bSuccess && fresh.strInfo.empty());
        FUZZ_CHECK(g_reused.bValid == bValidBefore && g_reused.bSuccess == bSuccessBefore &&
                   g_reused.strInfo == infoBefore);
        if (bFresh)
            FUZZ_CHECK(n == 1 && fields[0] == "false");
    }
    // Keep the reused object from settling in one state for the whole run.
    if (size % 7 == 0)
        g_reused.Clear();
    return 0;
}
