// The XML documents the engine sends as the first text of its events, in the
// forms the service parses.
#pragma once

#include <string>
#include <vector>

#include "mode.h"
#include "tvhost/service.h"

namespace qorvsim {

constexpr int kEventRegisteredDevices = tvhost::service::kRegisteredDevices;
constexpr int kEventNewDevices = tvhost::service::kNewDevices;
constexpr int kEventDeviceNotification = tvhost::service::kDeviceNotification;
constexpr int kEventMasterKeys = tvhost::service::kMasterKeys;
constexpr int kEventPowerOff = tvhost::service::kPowerOff;

std::string EscapeXml(const std::string &strText);

// Event 0.
std::string RegisteredDeviceList(const std::vector<Device> &vctDevices);
// Event 1.
std::string NewDeviceList(const std::vector<const Device *> &vctDevices);

struct Notification {
    std::string strID;
    std::string strType;
    std::string strText;
    std::string strAction;
    std::string strFlag;
    std::string strCondition;
};
// Event 5.
std::string DeviceNotification(const Notification &noti, const Device &device);
// Event 12290.
std::string MasterKeyList(const std::vector<MasterKey> &vctKeys);

} // namespace qorvsim
