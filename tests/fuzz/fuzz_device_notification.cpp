// Device notification documents, parsed by one reused object and by a fresh one.
#include <cstdint>

#include "FuzzSupport.h"
#include "LumoraParameter.h"

namespace {

bool SameRecord(const CDeviceNotification::Data &a, const CDeviceNotification::Data &b)
{
    return a.strID == b.strID && a.strType == b.strType && a.strCtrlName == b.strCtrlName &&
           a.strNotiID == b.strNotiID && a.strNotiType == b.strNotiType && a.strNotiText == b.strNotiText &&
           a.bWidgetLink == b.bWidgetLink && a.strDisplayCondition == b.strDisplayCondition &&
           a.bDisplayFlag == b.bDisplayFlag && a.nDisplayPeriodMS == b.nDisplayPeriodMS;
}

CDeviceNotification g_reused;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FuzzQuietXml();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text = FuzzText(data, size);

    const bool bReused = g_reused.Parse(text.c_str(), text.c_str());
    CDeviceNotification fresh;
    const bool bFresh = fresh.Parse(text.c_str(), nullptr);

    // Nothing of an earlier document may survive in the reused object.
    FUZZ_CHECK(bReused == bFresh);
    FUZZ_CHECK(SameRecord(g_reused.m_Data, fresh.m_Data));
    // These two are never read from the document.
    FUZZ_CHECK(!fresh.m_Data.bWidgetLink);
    FUZZ_CHECK(fresh.m_Data.nDisplayPeriodMS == 0);
    if (!bFresh)
        FUZZ_CHECK(SameRecord(fresh.m_Data, CDeviceNotification::Data()));
    // Fields are read in document order: a later one implies the root id was there.
    if (!fresh.m_Data.strID.empty() || !fresh.m_Data.strNotiText.empty() || fresh.m_Data.bDisplayFlag)
        FUZZ_CHECK(bFresh);
    return 0;
}
