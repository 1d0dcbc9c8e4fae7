// The network connection on the host: the type of the machine's default-route
// interface, followed through rtnetlink, unless the host TV's override file
// says otherwise (written by tests and by `lumora-tv network`, watched with
// inotify). Type changes reach the subscribers on the main loop.
#include <net_connection.h>

#include <Ecore.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <mutex>
#include <sstream>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "tvhost/faults.h"
#include "host_files.h"
#include "registry.h"
#include "tvhost/network.h"
#include "tvhost/tvhost.h"

struct connection_handle_s {
    connection_type_changed_cb pfnCallback = nullptr;
    void *pUserData = nullptr;
};

namespace {

std::mutex g_mutex;
std::vector<connection_handle_s *> g_handles;
int g_nLastReported = -1;

int g_nNetlinkFd = -1;
int g_nInotifyFd = -1;
Ecore_Fd_Handler *g_pNetlinkHandler = nullptr;
Ecore_Fd_Handler *g_pInotifyHandler = nullptr;

std::string OverrideDir()
{
    return tvhost::detail::StateDir("network");
}

std::string OverrideFile()
{
    return OverrideDir() + "/type";
}

bool IsWireless(const std::string &iface)
{
    struct stat st;
    return stat(("/sys/class/net/" + iface + "/wireless").c_str(), &st) == 0 ||
           stat(("/sys/class/net/" + iface + "/phy80211").c_str(), &st) == 0;
}

std::string DefaultRouteInterface()
{
    std::ifstream v4("/proc/net/route");
    std::string line;
    std::getline(v4, line); // header
    while (std::getline(v4, line)) {
        std::istringstream fields(line);
        std::string iface, dest, gateway;
        unsigned flags = 0;
        fields >> iface >> dest >> gateway >> std::hex >> flags;
        if (dest == "00000000" && (flags & 0x1) && iface != "lo")
            return iface;
    }
    std::ifstream v6("/proc/net/ipv6_route");
    while (std::getline(v6, line)) {
        std::istringstream fields(line);
        std::vector<std::string> f;
        std::string w;
        while (fields >> w)
            f.push_back(w);
        if (f.size() >= 10 && f[0] == std::string(32, '0') && f[1] == "00" && f[9] != "lo")
            return f[9];
    }
    return "";
}

int ReadOverride()
{
    std::ifstream in(OverrideFile());
    std::string name;
    if (!(in >> name))
        return -1;
    return tvhost::network::TypeFromName(name);
}

int MachineType()
{
    std::string iface = DefaultRouteInterface();
    if (iface.empty())
        return CONNECTION_TYPE_DISCONNECTED;
    return IsWireless(iface) ? CONNECTION_TYPE_WIFI : CONNECTION_TYPE_ETHERNET;
}

// Tells every subscriber when the type differs from the last one reported.
void Recheck()
{
    int nType = tvhost::network::CurrentType();
    std::vector<std::pair<connection_type_changed_cb, void *>> targets;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (nType == g_nLastReported)
            return;
        g_nLastReported = nType;
        for (auto *h : g_handles)
            if (h->pfnCallback)
                targets.emplace_back(h->pfnCallback, h->pUserData);
    }
    for (auto &t : targets)
        t.first(static_cast<connection_type_e>(nType), t.second);
}

Eina_Bool OnNetlink(void *, Ecore_Fd_Handler *)
{
    char buf[8192];
    while (recv(g_nNetlinkFd, buf, sizeof buf, MSG_DONTWAIT) > 0) {}
    Recheck();
    return ECORE_CALLBACK_RENEW;
}

Eina_Bool OnInotify(void *, Ecore_Fd_Handler *)
{
    char buf[4096];
    while (read(g_nInotifyFd, buf, sizeof buf) > 0) {}
    Recheck();
    return ECORE_CALLBACK_RENEW;
}

// Watching needs a main loop; without one, changes made through the
// test-control API are delivered at once instead.
void StartWatching()
{
    if (!tvhost::detail::MainLoopActive() || g_pNetlinkHandler || g_pInotifyHandler)
        return;
    g_nNetlinkFd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (g_nNetlinkFd >= 0) {
        struct sockaddr_nl addr;
        std::memset(&addr, 0, sizeof addr);
        addr.nl_family = AF_NETLINK;
        addr.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
        if (bind(g_nNetlinkFd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0)
            g_pNetlinkHandler =
                ecore_main_fd_handler_add(g_nNetlinkFd, ECORE_FD_READ, OnNetlink, nullptr, nullptr, nullptr);
    }
    g_nInotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (g_nInotifyFd >= 0 &&
        inotify_add_watch(g_nInotifyFd, OverrideDir().c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE) >= 0)
        g_pInotifyHandler =
            ecore_main_fd_handler_add(g_nInotifyFd, ECORE_FD_READ, OnInotify, nullptr, nullptr, nullptr);
}

void StopWatching()
{
    if (g_pNetlinkHandler)
        ecore_main_fd_handler_del(g_pNetlinkHandler);
    if (g_pInotifyHandler)
        ecore_main_fd_handler_del(g_pInotifyHandler);
    g_pNetlinkHandler = g_pInotifyHandler = nullptr;
    if (g_nNetlinkFd >= 0)
        close(g_nNetlinkFd);
    if (g_nInotifyFd >= 0)
        close(g_nInotifyFd);
    g_nNetlinkFd = g_nInotifyFd = -1;
}

tvhost::detail::LoopStopHook g_stop(StopWatching);

// Handles a test never destroyed stay valid, but stop hearing changes.
tvhost::detail::ResetHook g_reset([] {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_nLastReported = -1;
    for (auto *h : g_handles) {
        h->pfnCallback = nullptr;
        h->pUserData = nullptr;
    }
});

} // namespace

extern "C" int connection_create(connection_h *connection)
{
    int nResult;
    if (tvhost::faults::Take("connection_create", nResult))
        return nResult;
    if (!connection)
        return CONNECTION_ERROR_INVALID_PARAMETER;
    auto *h = new connection_handle_s;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_handles.push_back(h);
    *connection = h;
    return CONNECTION_ERROR_NONE;
}

extern "C" int connection_destroy(connection_h connection)
{
    int nResult;
    if (tvhost::faults::Take("connection_destroy", nResult))
        return nResult;
    std::lock_guard<std::mutex> lock(g_mutex);
    // Only handles this service made are released; anything else is refused untouched.
    auto it = std::find(g_handles.begin(), g_handles.end(), connection);
    if (it == g_handles.end())
        return CONNECTION_ERROR_INVALID_PARAMETER;
    g_handles.erase(it);
    delete connection;
    return CONNECTION_ERROR_NONE;
}

extern "C" int connection_get_type(connection_h connection, connection_type_e *type)
{
    int nResult;
    if (tvhost::faults::Take("connection_get_type", nResult))
        return nResult;
    if (!connection || !type)
        return CONNECTION_ERROR_INVALID_PARAMETER;
    *type = static_cast<connection_type_e>(tvhost::network::CurrentType());
    return CONNECTION_ERROR_NONE;
}

extern "C" int connection_set_type_changed_cb(connection_h connection, connection_type_changed_cb callback,
                                              void *user_data)
{
    int nResult;
    if (tvhost::faults::Take("connection_set_type_changed_cb", nResult))
        return nResult;
    if (!connection || !callback)
        return CONNECTION_ERROR_INVALID_PARAMETER;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (std::find(g_handles.begin(), g_handles.end(), connection) == g_handles.end())
            return CONNECTION_ERROR_INVALID_PARAMETER;
        connection->pfnCallback = callback;
        connection->pUserData = user_data;
    }
    int nType = tvhost::network::CurrentType();
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (g_nLastReported < 0)
            g_nLastReported = nType;
    }
    StartWatching();
    return CONNECTION_ERROR_NONE;
}

extern "C" int connection_unset_type_changed_cb(connection_h connection)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (std::find(g_handles.begin(), g_handles.end(), connection) == g_handles.end())
        return CONNECTION_ERROR_INVALID_PARAMETER;
    connection->pfnCallback = nullptr;
    connection->pUserData = nullptr;
    return CONNECTION_ERROR_NONE;
}

namespace tvhost {
namespace network {

int CurrentType()
{
    int nOverride = ReadOverride();
    return nOverride >= 0 ? nOverride : MachineType();
}

bool SetType(int nType)
{
    if (!tvhost::detail::WriteFileAtomically(OverrideFile(), std::string(TypeName(nType)) + "\n"))
        return false;
    tvhost::detail::RunOnMainLoop(Recheck);
    return true;
}

bool ClearOverride()
{
    if (!tvhost::detail::RemoveFile(OverrideFile()))
        return false;
    tvhost::detail::RunOnMainLoop(Recheck);
    return true;
}

int TypeFromName(const std::string &name)
{
    if (name == "none" || name == "disconnected")
        return CONNECTION_TYPE_DISCONNECTED;
    if (name == "wifi")
        return CONNECTION_TYPE_WIFI;
    if (name == "cellular")
        return CONNECTION_TYPE_CELLULAR;
    if (name == "ethernet")
        return CONNECTION_TYPE_ETHERNET;
    if (name == "bt")
        return CONNECTION_TYPE_BT;
    if (name == "proxy")
        return CONNECTION_TYPE_NET_PROXY;
    return -1;
}

const char *TypeName(int nType)
{
    switch (nType) {
    case CONNECTION_TYPE_DISCONNECTED: return "none";
    case CONNECTION_TYPE_WIFI: return "wifi";
    case CONNECTION_TYPE_CELLULAR: return "cellular";
    case CONNECTION_TYPE_ETHERNET: return "ethernet";
    case CONNECTION_TYPE_BT: return "bt";
    case CONNECTION_TYPE_NET_PROXY: return "proxy";
    default: return "unknown";
    }
}

} // namespace network
} // namespace tvhost
