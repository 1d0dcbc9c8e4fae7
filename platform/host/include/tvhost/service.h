// What the host kit (tools, the simulated engine, the suites' support, the
// benchmarks) knows of the service it hosts, written once: the companion
// widget, the settings keys it reads, the engine events it acts on and what
// each makes it do. The service has its own copies in src/; the suites drive
// it with these, so they fail when the two disagree.
#pragma once

#include <string_view>

namespace tvhost {
namespace service {

inline constexpr char kWidgetApp[] = "PzKmRvTqXa.Lumora"; // the companion widget
inline constexpr char kLanguageKey[] = "db/menu_widget/language";
inline constexpr char kAppChangeKey[] = "memory/was/app_change"; // bumped when an application comes or goes

// The engine events the service acts on.
enum Event : int {
    kRegisteredDevices = 0,
    kNewDevices = 1,
    kDeviceNotification = 5,
    kMasterKeys = 12290,
    kPowerOff = 12291,
};

struct EventKind {
    int number;
    bool bDocument;     // its first text is an XML document the service parses
    bool bPopup;        // a parsed text shows a pop-up
    bool bPowerOff;     // it switches the TV off, whatever its texts
    const char *sample; // the name of its shipped sample text
    const char *what;   // what the service does with it, for a person
};

inline constexpr EventKind kEventKinds[] = {
    {kRegisteredDevices, true, false, false, "registered-devices",
     "the registered devices: the service logs its air conditioners"},
    {kNewDevices, true, true, false, "new-devices",
     "new devices: a pop-up \"New home appliance detected\"; while the widget is not running its second button (No) "
     "is the one that opens it"},
    {kDeviceNotification, true, true, false, "alarm",
     "a device's notification: a pop-up titled with the device's name; \"Go to Lumora\" opens the widget for the "
     "device"},
    {kMasterKeys, true, false, false, "master-keys", "the master keys: the service logs them"},
    {kPowerOff, false, false, true, "power-off",
     "the TV is switched off, whatever the text (the host TV's service then ends)"},
};

// The kind of event number; nullptr when the service ignores it.
inline constexpr const EventKind *FindEventKind(int number)
{
    for (const EventKind &kind : kEventKinds)
        if (kind.number == number)
            return &kind;
    return nullptr;
}

} // namespace service
} // namespace tvhost
