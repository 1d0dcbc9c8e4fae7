// What the engine reads from its mode file: the home (registered devices,
// devices it can discover, master keys) and the scenario it plays.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace qorvsim {

struct Device {
    std::string strID;
    std::string strType;
    std::string strName;
    std::string strStatus; // "Connected" or "Disconnected"
};

struct MasterKey {
    std::string strID;
    std::string strName;
    std::string strKey;
};

struct Home {
    std::vector<Device> vctRegistered;
    std::vector<Device> vctNew; // discoverable, not registered yet
    std::vector<MasterKey> vctMasterKeys;
};

enum class StepKind {
    RegisteredDevices, // event 0 with the registered devices
    NewDevices,        // event 1 with new devices (all, or the listed ids)
    Notify,            // event 5 for one device
    MasterKeys,        // event 12290
    PowerOff,          // event 12291
    Raw,               // any event with texts as written
    Refresh,           // as if asked to refresh: event 0
    Register,          // new devices join the home, then event 0
    Connect,           // a device comes back, then event 0
    Disconnect,        // a device goes away, then event 0
};

struct Step {
    StepKind kind = StepKind::Refresh;
    int nLine = 0;
    std::vector<std::string> vctIDs; // NewDevices, Register
    bool bAllIDs = true;             // NewDevices without ids
    std::string strDevice;           // Notify, Connect, Disconnect
    // Notify
    std::string strNotiID; // empty: numbered by the engine
    std::string strNotiType;
    std::string strCondition;
    std::string strFlag;
    std::string strAction;
    std::vector<std::pair<std::string, std::string>> vctTexts; // language, text
    // Raw
    int nEvent = 0;
    std::string strParam1;
    std::string strParam2;
};

// One <At>: its steps play back to back at ms after the engine start, the
// whole group repeat times, every ms apart.
struct Cue {
    long nMs = 0;
    long nRepeat = 1;
    long nEveryMs = 0;
    int nLine = 0;
    std::vector<Step> vctSteps;
};

struct Mode {
    std::string strName;
    Home home;
    std::vector<Cue> vctScenario; // in time order
};

// Reads a mode file. Problems go to report as "file:line: what", and reading
// goes on with what is usable: an unreadable file gives an empty mode.
Mode LoadMode(const std::string &strPath, const std::function<void(const std::string &)> &report);

// The text of a notification for a language such as "ko_KR": the same
// language, else the same language without region, else English, else the first.
std::string ChooseText(const std::vector<std::pair<std::string, std::string>> &vctTexts,
                       const std::string &strLanguage);

} // namespace qorvsim
