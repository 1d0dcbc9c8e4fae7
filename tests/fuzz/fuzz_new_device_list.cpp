// New device lists: items, the per-type summary and the id copy.
#include <cstdint>
#include <set>

#include "FuzzSupport.h"
#include "LumoraParameter.h"

namespace {
CNewDeviceList g_reused;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FuzzQuietXml();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text = FuzzText(data, size);

    const bool bReused = g_reused.Parse(text.c_str(), nullptr);
    CNewDeviceList fresh;
    const bool bFresh = fresh.Parse(text.c_str(), nullptr);
    FUZZ_CHECK(bReused == bFresh);
    FUZZ_CHECK(g_reused.m_vecDevice.size() == fresh.m_vecDevice.size());
    FUZZ_CHECK(g_reused.GetSummary() == fresh.GetSummary());

    const std::string summary = fresh.GetSummary();
    if (bFresh) {
        FUZZ_CHECK(!fresh.m_vecDevice.empty());
        FUZZ_CHECK(!summary.empty());
        std::set<std::string> types;
        for (const auto &item : fresh.m_vecDevice)
            types.insert(item.strType);
        // One entry per type, each at most 255 characters.
        FUZZ_CHECK(summary.size() <= types.size() * 255);
    } else {
        FUZZ_CHECK(summary.empty());
    }

    std::vector<std::string> ids{"seed"};
    fresh.CopyIDs(ids);
    FUZZ_CHECK(ids.size() == fresh.m_vecDevice.size() + 1 && ids[0] == "seed");
    for (size_t i = 0; i < fresh.m_vecDevice.size(); ++i)
        FUZZ_CHECK(ids[i + 1] == fresh.m_vecDevice[i].strID);

    // Rebuilding the summary from the same items gives the same text.
    if (bFresh) {
        FUZZ_CHECK(fresh.m_MakeSummary());
        FUZZ_CHECK(fresh.GetSummary() == summary);
    }
    return 0;
}
