// Registered device lists: only air conditioners, one item per id.
#include <cstdint>
#include <set>

#include "FuzzSupport.h"
#include "LumoraParameter.h"

namespace {
CRegisteredDeviceList g_reused;
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
    CRegisteredDeviceList fresh;
    const bool bFresh = fresh.Parse(text.c_str(), nullptr);
    FUZZ_CHECK(bReused == bFresh);
    FUZZ_CHECK(g_reused.m_vecDevice.size() == fresh.m_vecDevice.size());

    if (!bFresh)
        FUZZ_CHECK(fresh.m_vecDevice.empty());
    std::set<std::string> ids;
    for (size_t i = 0; i < fresh.m_vecDevice.size(); ++i) {
        const auto &item = fresh.m_vecDevice[i];
        FUZZ_CHECK(item.type == "Air Conditioner");
        FUZZ_CHECK(ids.insert(item.strID).second);
        FUZZ_CHECK(g_reused.m_vecDevice[i].strID == item.strID);
        FUZZ_CHECK(g_reused.m_vecDevice[i].bConnected == item.bConnected);
    }
    return 0;
}
