// A fresh manager singleton on an attached main loop, with the host TV set
// to a known state: widget not installed, Ethernet, English.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>

#include "tvhost/service.h"
#include "EngineSim.h"
#include "LogCapture.h"
#include "LumoraManager.h"
#include "tvhost/mainloop.h"

using tvhost::service::kLanguageKey;
using tvhost::service::kWidgetApp;

class LumoraManagerTestPeer {
public:
    static LumoraManager &Get() { return *LumoraManager::GetInstance(); }
    // The orderly teardown, then every class-wide value back to its start.
    static void TearDown();
    // Deletes the singleton without the teardown (no pipe was made).
    static void Release() { LumoraManager::ReleaseInstance(); }
    static std::vector<LumoraManager::MasterKey_Info> &MasterKeys() { return Get().m_vctMasterKey; }
    static std::vector<LumoraManager::RegisteredDevice> &Devices() { return Get().m_vctRegisteredDevice; }
    static bool ParseMasterKeys(const std::string &s) { return Get().m_ParseMasterKeyMessage(s.c_str()); }
    static std::string MasterKeyName(std::string key) { return Get().m_GetMasterKeyName(key); }
    static bool ParseDeviceTypes(const std::string &s)
    {
        return Get().m_ParseDeviceTypeList(s.data(), static_cast<int>(s.size()));
    }
    static bool ParseDeviceNames(const std::string &s)
    {
        return Get().m_ParseDeviceNameList(s.data(), static_cast<int>(s.size()));
    }
    static bool ParseRegistered(const std::string &s)
    {
        return Get().m_ParseRegisteredDevice(s.data(), static_cast<int>(s.size()));
    }
    static bool ParseCommands(const std::string &s)
    {
        return Get().m_ParseDeviceCommandList(s.data(), static_cast<int>(s.size()));
    }
};

class ManagerTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    bool RunUntil(const std::function<bool()> &pred, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        return tvhost::mainloop::RunUntil(pred, timeout);
    }
    // Install the widget, construct, then run the main loop until the engine has started.
    void StartWithWidget();

    LogCapture log;
    std::unique_ptr<EngineSim> sim;
};
