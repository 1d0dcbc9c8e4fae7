// Test control of the host TV's network connection.
#pragma once

#include <string>

namespace tvhost {
namespace network {

// The type the TV reports: the override if one is set (by SetType, or by
// another process through the TV root), else the kind of the machine's
// default-route interface: 1 Wi-Fi when the kernel calls it wireless, 3
// Ethernet otherwise, 0 when there is no default route.
int CurrentType();

// Overrides the type (0 disconnected, 1 Wi-Fi, 3 Ethernet, ...) for this and
// every other process of the host TV, and tells the subscribers if it changed.
// False, with errno, when the override cannot be written.
bool SetType(int nType);
// Back to following the machine's default route; false, with errno, when the
// override cannot be removed.
bool ClearOverride();

// Names used on the command line: "none", "wifi", "ethernet"; -1 if unknown.
int TypeFromName(const std::string &name);
const char *TypeName(int nType);

} // namespace network
} // namespace tvhost
