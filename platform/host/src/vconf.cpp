// The settings store on the host: one file per key under the TV root. While a
// main loop runs, every change of a key file, whoever wrote it (this process
// or lumora-tv from another shell), reaches the key's subscribers on that loop
// through inotify, as the TV delivers its notifications. Without a main loop a
// write made in this process is delivered at once on the writer's thread.
#include <vconf.h>

#include <Ecore.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "host_files.h"
#include "registry.h"
#include "tvhost/faults.h"
#include "tvhost/parse.h"
#include "tvhost/settings.h"
#include "vconf_store.h"

struct _keynode_t {
    std::string name;
    int type;
};

namespace tvhost {
namespace detail {
namespace settings {
namespace {

const char kIntWord[] = "int";
const char kStringWord[] = "string";

struct Value {
    int type = VCONF_TYPE_NONE;
    int nValue = 0;
    std::string strValue;
};

struct Subscription {
    std::string key;
    vconf_callback_fn cb;
    void *pUserData;
};

std::mutex g_mutex;
std::vector<Subscription> g_subscriptions;

ResetHook g_reset([] {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_subscriptions.clear();
});

std::string FileOf(const std::string &key)
{
    return KeyDir() + "/" + EscapeName(key);
}

// File layout: a first line naming the type, then the value.
bool ReadValue(const std::string &key, Value &value)
{
    std::string content;
    if (!ReadFile(FileOf(key), content))
        return false;
    size_t eol = content.find('\n');
    if (eol == std::string::npos)
        return false;
    std::string word = content.substr(0, eol);
    std::string rest = content.substr(eol + 1);
    if (word == kStringWord) {
        value.type = VCONF_TYPE_STRING;
        value.strValue = rest;
        return true;
    }
    if (word == kIntWord) {
        // A file edited by hand may end in a new line.
        std::string_view number = rest;
        while (!number.empty() && std::strchr(" \t\r\n", number.back()))
            number.remove_suffix(1);
        if (!tvhost::ParseInt(number, value.nValue))
            return false;
        value.type = VCONF_TYPE_INT;
        return true;
    }
    return false;
}

int g_nWatchFd = -1;
Ecore_Fd_Handler *g_pWatchHandler = nullptr;

bool Watching()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_pWatchHandler != nullptr;
}

// The key a file in KeyDir() holds: EscapeName undone.
std::string KeyOf(const std::string &file)
{
    std::string key;
    for (size_t i = 0; i < file.size(); ++i) {
        unsigned char byte = 0;
        if (file[i] == '%' && i + 2 < file.size() && ParseHexByte(std::string_view(file).substr(i + 1, 2), byte)) {
            key += static_cast<char>(byte);
            i += 2;
        } else {
            key += file[i];
        }
    }
    return key;
}

Eina_Bool OnKeyFiles(void *, Ecore_Fd_Handler *)
{
    alignas(struct inotify_event) char buf[8192];
    std::vector<std::string> keys;
    ssize_t n;
    while ((n = read(g_nWatchFd, buf, sizeof buf)) > 0) {
        for (char *p = buf; p < buf + n;) {
            auto *ev = reinterpret_cast<struct inotify_event *>(p);
            // Hidden names are the writers' temporary files.
            if (ev->len > 0 && ev->name[0] != '.') {
                std::string key = KeyOf(ev->name);
                if (keys.empty() || keys.back() != key)
                    keys.push_back(key);
            }
            p += sizeof(struct inotify_event) + ev->len;
        }
    }
    for (const auto &key : keys)
        DeliverKeyChange(key);
    return ECORE_CALLBACK_RENEW;
}

void StartWatching()
{
    if (!MainLoopActive() || Watching())
        return;
    int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (fd < 0)
        return;
    if (inotify_add_watch(fd, KeyDir().c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
        close(fd);
        return;
    }
    Ecore_Fd_Handler *pHandler = ecore_main_fd_handler_add(fd, ECORE_FD_READ, OnKeyFiles, nullptr, nullptr, nullptr);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_nWatchFd = fd;
    g_pWatchHandler = pHandler;
}

LoopStopHook g_stopWatching([] {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_pWatchHandler)
        ecore_main_fd_handler_del(g_pWatchHandler);
    if (g_nWatchFd >= 0)
        close(g_nWatchFd);
    g_pWatchHandler = nullptr;
    g_nWatchFd = -1;
});

bool WriteValue(const std::string &key, const std::string &content)
{
    if (!WriteFileAtomically(FileOf(key), content))
        return false;
    // With a watcher on the main loop the change arrives there, once.
    if (!Watching())
        DeliverKeyChange(key);
    return true;
}

} // namespace

std::string KeyDir()
{
    return StateDir("vconf");
}

void DeliverKeyChange(const std::string &key)
{
    Value value;
    if (!ReadValue(key, value))
        return;
    _keynode_t node{key, value.type};
    std::vector<Subscription> targets;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        for (const auto &s : g_subscriptions)
            if (s.key == key)
                targets.push_back(s);
    }
    for (const auto &s : targets)
        s.cb(&node, s.pUserData);
}

} // namespace settings
} // namespace detail

namespace settings {

using namespace tvhost::detail::settings;

bool SetInt(const std::string &key, int value)
{
    return WriteValue(key, std::string(kIntWord) + "\n" + std::to_string(value) + "\n");
}

bool SetString(const std::string &key, const std::string &value)
{
    return WriteValue(key, std::string(kStringWord) + "\n" + value);
}

bool GetInt(const std::string &key, int &value)
{
    Value v;
    if (!ReadValue(key, v) || v.type != VCONF_TYPE_INT)
        return false;
    value = v.nValue;
    return true;
}

bool GetString(const std::string &key, std::string &value)
{
    Value v;
    if (!ReadValue(key, v) || v.type != VCONF_TYPE_STRING)
        return false;
    value = v.strValue;
    return true;
}

void Remove(const std::string &key)
{
    detail::RemoveFile(FileOf(key));
}

std::string KeyPath(const std::string &key)
{
    return FileOf(key);
}

int Subscribers(const std::string &key)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    int n = 0;
    for (const auto &s : g_subscriptions)
        n += (s.key == key);
    return n;
}

} // namespace settings
} // namespace tvhost

using namespace tvhost::detail::settings;

extern "C" int vconf_notify_key_changed(const char *in_key, vconf_callback_fn cb, void *user_data)
{
    int result = VCONF_OK;
    if (tvhost::faults::Take("vconf_notify_key_changed", result) && result != VCONF_OK)
        return result;
    if (!in_key || !cb)
        return VCONF_ERROR;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        for (const auto &s : g_subscriptions)
            if (s.key == in_key && s.cb == cb && s.pUserData == user_data)
                return VCONF_OK;
        g_subscriptions.push_back({in_key, cb, user_data});
    }
    StartWatching();
    return VCONF_OK;
}

extern "C" int vconf_get_int(const char *in_key, int *intval)
{
    int result = VCONF_OK;
    if (tvhost::faults::Take("vconf_get_int", result) && result != VCONF_OK)
        return result;
    if (!in_key || !intval)
        return VCONF_ERROR;
    return tvhost::settings::GetInt(in_key, *intval) ? VCONF_OK : VCONF_ERROR;
}

extern "C" char *vconf_get_str(const char *in_key)
{
    int result = VCONF_OK;
    if (tvhost::faults::Take("vconf_get_str", result) && result != VCONF_OK)
        return nullptr;
    std::string value;
    if (!in_key || !tvhost::settings::GetString(in_key, value))
        return nullptr;
    return strdup(value.c_str());
}

extern "C" char *vconf_keynode_get_name(keynode_t *keynode)
{
    return keynode ? keynode->name.data() : nullptr;
}

extern "C" int vconf_keynode_get_type(keynode_t *keynode)
{
    return keynode ? keynode->type : -1;
}
