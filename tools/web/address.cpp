#include "web/address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace hostweb {

bool IsIpLiteral(const std::string &host)
{
    unsigned char buffer[sizeof(in6_addr)];
    return inet_pton(AF_INET, host.c_str(), buffer) == 1 || inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

bool IsLoopback(const std::string &host)
{
    return host == "::1" || host.compare(0, 4, "127.") == 0;
}

bool IsWildcard(const std::string &host)
{
    return host == "0.0.0.0" || host == "::";
}

std::string HostPort(const std::string &host, int port)
{
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool HostAllowed(const std::string &listenHost, int port, const std::string &hostPort, const std::string &machine)
{
    if (hostPort == HostPort(listenHost, port))
        return true;
    if ((IsLoopback(listenHost) || IsWildcard(listenHost)) && hostPort == HostPort("localhost", port))
        return true;
    if (!IsWildcard(listenHost))
        return false;
    const size_t colon = hostPort.rfind(':');
    if (colon == std::string::npos || hostPort.substr(colon + 1) != std::to_string(port))
        return false;
    std::string name = hostPort.substr(0, colon);
    if (name.size() > 2 && name.front() == '[' && name.back() == ']')
        name = name.substr(1, name.size() - 2);
    return IsIpLiteral(name) || (!machine.empty() && name == machine);
}

} // namespace hostweb
