#include "LumoraTvControl.h"

#include <device/power.h>

#include "ExtLog.h"

namespace {
// The platform's code for the kind of power-off this service asks for.
constexpr int kPowerOffType = 3;
} // namespace

CLumoraTvControl::CLumoraTvControl() {}

CLumoraTvControl::~CLumoraTvControl() {}

bool CLumoraTvControl::PowerOff()
{
    if (device_power_request_poweroff(kPowerOffType) == 0) {
        LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraTvControl success to power off the TV!");
        return true;
    }
    LUMORA_LOG(EXT_LOG_DEBUG, "CLumoraTvControl failed to power off the TV!");
    return false;
}
