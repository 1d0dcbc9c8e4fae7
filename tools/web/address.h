// The addresses the web view listens on and the names a browser may reach it
// by: a page served under any other Host or Origin is refused, so that a
// site the viewer has open cannot drive the TV through the browser.
#pragma once

#include <string>

namespace hostweb {

bool IsIpLiteral(const std::string &host);
bool IsLoopback(const std::string &host);
bool IsWildcard(const std::string &host);

// "host:port" as a browser writes it in Host and Origin.
std::string HostPort(const std::string &host, int port);

// Whether hostPort (a Host header, or an Origin without its scheme) names the
// server listening on listenHost:port: that address itself; localhost for a
// loopback or wildcard address; with a wildcard address also any address
// literal and the machine's name.
bool HostAllowed(const std::string &listenHost, int port, const std::string &hostPort, const std::string &machine);

} // namespace hostweb
