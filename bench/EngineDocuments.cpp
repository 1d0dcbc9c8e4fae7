#include "EngineDocuments.h"

#include <cstdio>
#include <cstdlib>

#include "documents.h"
#include "mode.h"
#include "tvhost/tvhost.h"

namespace lumorabench {

namespace {

std::vector<EngineEvent> Build()
{
    const std::string path = tvhost::Root() + "/usr/apps/org.kelvar.lumora/bin/scenarios/demo.xml";
    bool bProblems = false;
    qorvsim::Mode mode = qorvsim::LoadMode(path, [&](const std::string &what) {
        std::fprintf(stderr, "bench: %s\n", what.c_str());
        bProblems = true;
    });
    const qorvsim::Step *pNotify = nullptr;
    for (const auto &cue : mode.vctScenario)
        for (const auto &step : cue.vctSteps)
            if (!pNotify && step.kind == qorvsim::StepKind::Notify)
                pNotify = &step;
    const qorvsim::Device *pDevice = nullptr;
    if (pNotify)
        for (const auto &d : mode.home.vctRegistered)
            if (d.strID == pNotify->strDevice)
                pDevice = &d;
    if (bProblems || !pDevice || mode.home.vctNew.empty() || mode.home.vctMasterKeys.empty()) {
        std::fprintf(stderr, "bench: %s does not hold the demo home and its notification\n", path.c_str());
        std::abort();
    }

    std::vector<const qorvsim::Device *> vctNew;
    for (const auto &d : mode.home.vctNew)
        vctNew.push_back(&d);

    // Numbered and worded as the engine does for its first notification.
    qorvsim::Notification noti;
    noti.strID = pNotify->strNotiID.empty() ? "n1" : pNotify->strNotiID;
    noti.strType = pNotify->strNotiType;
    noti.strText = qorvsim::ChooseText(pNotify->vctTexts, "en_US");
    noti.strAction = pNotify->strAction;
    noti.strFlag = pNotify->strFlag;
    noti.strCondition = pNotify->strCondition;

    return {
        {qorvsim::kEventRegisteredDevices, "registered devices",
         qorvsim::RegisteredDeviceList(mode.home.vctRegistered)},
        {qorvsim::kEventNewDevices, "new devices", qorvsim::NewDeviceList(vctNew)},
        {qorvsim::kEventDeviceNotification, "device notification", qorvsim::DeviceNotification(noti, *pDevice)},
        {qorvsim::kEventMasterKeys, "master keys", qorvsim::MasterKeyList(mode.home.vctMasterKeys)},
    };
}

} // namespace

const std::vector<EngineEvent> &EngineEvents()
{
    static const std::vector<EngineEvent> events = Build();
    return events;
}

const EngineEvent &EngineEventOf(int nEvent)
{
    for (const auto &e : EngineEvents())
        if (e.nEvent == nEvent)
            return e;
    std::fprintf(stderr, "bench: no document for event %d\n", nEvent);
    std::abort();
}

} // namespace lumorabench
