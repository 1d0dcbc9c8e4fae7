// The first texts of the engine's events as the simulated engine writes them,
// for the home of the shipped demo scenario.
#pragma once

#include <string>
#include <vector>

namespace lumorabench {

struct EngineEvent {
    int nEvent;
    const char *pName;
    std::string strParam1; // the second text is empty, as the engine sends it
};

// Events 0, 1, 5 and 12290, in that order. Aborts when the scenario cannot be read.
const std::vector<EngineEvent> &EngineEvents();
const EngineEvent &EngineEventOf(int nEvent);

} // namespace lumorabench
