// The notification-data service on the host: keeps copies of the posted
// notifications, draws each one as a box on the terminal, and delivers the
// viewer's button presses and timeouts on a thread of its own. While it is
// initialised it also serves a control socket under the TV root
// (notification_control.cpp), so that lumora-tv in another shell can see the
// screen and press buttons.
#include <notification_data.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "history.h"
#include "notification_service.h"
#include "registry.h"
#include "tvhost/faults.h"
#include "tvhost/notifications.h"

namespace tvhost {
namespace notifications {
namespace {

struct Delivery {
    bool bButton;
    int nItemId;
    int nButtonIndex;
    unsigned long nSeq = 0; // numbered in queueing order, from 1
};

struct Service {
    std::mutex mutex;
    std::condition_variable wake; // the delivery thread waits on it
    std::condition_variable idle; // WaitDelivered and WaitForDelivery wait on it

    bool bInitialised = false;
    std::string strAppId;
    notification_button_cb pButtonCb = nullptr;
    void *pButtonData = nullptr;
    notification_timeout_cb pTimeoutCb = nullptr;
    void *pTimeoutData = nullptr;

    std::vector<PackedRecord> posted;
    // What the viewer sees: bounded, and a pop-up leaves it when answered.
    Screen screen;
    // The items posted and not removed yet, in item id order: the app's own
    // view, which removal answers to whether or not the pop-up is still on
    // screen. A vector, as the service's item ids count up: a post appends;
    // an app id is kept once, in appIds, whatever the number of items. A
    // removed item is marked kRemoved and swept out once they are half of it.
    static constexpr size_t kRemoved = ~size_t{0};
    std::vector<std::pair<int, size_t>> live;
    size_t nRemoved = 0;
    std::vector<std::string> appIds;
    std::vector<Removal> removals;

    std::deque<Delivery> queue;
    bool bBusy = false;
    int nDelivered = 0;
    // Deliveries are numbered so that a remote press can wait for its own.
    unsigned long nLastSeq = 0;
    unsigned long nDoneSeq = 0;
    // A delivery thread runs while its generation is the current one.
    unsigned long nGeneration = 0;
    std::thread worker;
};

using tvhost::detail::TrimHistory;

// Never destroyed: the delivery thread may still use it while statics go.
Service &S()
{
    static Service *s = new Service;
    return *s;
}

void DeliveryLoop(unsigned long nGeneration)
{
    Service &s = S();
    std::unique_lock<std::mutex> lock(s.mutex);
    for (;;) {
        s.wake.wait(lock, [&] { return s.nGeneration != nGeneration || !s.queue.empty(); });
        if (s.nGeneration != nGeneration)
            break;
        Delivery d = s.queue.front();
        s.queue.pop_front();
        notification_button_cb pButton = s.pButtonCb;
        void *pButtonData = s.pButtonData;
        notification_timeout_cb pTimeout = s.pTimeoutCb;
        void *pTimeoutData = s.pTimeoutData;
        s.bBusy = true;
        lock.unlock();
        if (d.bButton && pButton)
            pButton(d.nItemId, d.nButtonIndex, pButtonData);
        else if (!d.bButton && pTimeout)
            pTimeout(d.nItemId, pTimeoutData);
        lock.lock();
        s.bBusy = false;
        ++s.nDelivered;
        s.nDoneSeq = d.nSeq;
        s.idle.notify_all();
    }
}

void StartDelivery(Service &s)
{
    if (s.worker.joinable())
        return;
    s.worker = std::thread(DeliveryLoop, s.nGeneration);
}

// Ends the delivery thread and drops what it had not delivered yet.
void StopDelivery()
{
    Service &s = S();
    std::thread worker;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        ++s.nGeneration;
        s.queue.clear();
        worker = std::move(s.worker);
        s.wake.notify_all();
        s.idle.notify_all();
    }
    if (!worker.joinable())
        return;
    // Closing from inside a callback: the thread ends once the callback returns.
    if (worker.get_id() == std::this_thread::get_id())
        worker.detach();
    else
        worker.join();
}

struct StopAtExit {
    ~StopAtExit()
    {
        StopDelivery();
        StopControl();
    }
} g_stopAtExit;

std::optional<std::string_view> View(const char *p)
{
    if (!p)
        return std::nullopt;
    return std::string_view(p);
}

PackedRecord Pack(const notification_data_t &d)
{
    PackedRecord::Source s;
    s.numbers = {d.version, d.popup, d.style, d.item_id, d.button_count, d.need_answer, {}, {}};
    for (int i = 0; i < 3; ++i) {
        s.numbers.reserved1[i] = d.reserved1[i];
        s.numbers.reserved2[i] = d.reserved2[i];
    }
    s.texts = {View(d.app_id),          View(d.title),           View(d.body),
               View(d.sub_text),        View(d.button_label[0]), View(d.button_label[1]),
               View(d.button_label[2]), View(d.button_icon[0]),  View(d.button_icon[1]),
               View(d.button_icon[2])};
    return PackedRecord::Pack(s);
}

std::vector<std::pair<int, size_t>>::iterator FindLive(Service &s, int itemId)
{
    return std::lower_bound(s.live.begin(), s.live.end(), itemId,
                            [](const std::pair<int, size_t> &item, int id) { return item.first < id; });
}

void SweepRemoved(Service &s)
{
    if (++s.nRemoved * 2 < s.live.size())
        return;
    s.live.erase(std::remove_if(s.live.begin(), s.live.end(),
                                [](const std::pair<int, size_t> &item) { return item.second == Service::kRemoved; }),
                 s.live.end());
    s.nRemoved = 0;
}

size_t AppIdIndex(Service &s, std::string_view appId)
{
    auto it = std::find(s.appIds.begin(), s.appIds.end(), appId);
    if (it != s.appIds.end())
        return static_cast<size_t>(it - s.appIds.begin());
    s.appIds.emplace_back(appId);
    return s.appIds.size() - 1;
}

// Keeps a callback of the initialised service.
template <typename Callback>
int Register(Callback Service::*pSlot, void *Service::*pDataSlot, Callback callback, void *pData)
{
    Service &s = S();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.bInitialised)
        return -1;
    s.*pSlot = callback;
    s.*pDataSlot = pData;
    return 0;
}

// ---- where the pop-ups are drawn -------------------------------------------

std::mutex g_drawMutex;
std::FILE *g_pDraw = nullptr;
bool g_bDrawOwned = false;
bool g_bDrawChosen = false;

void SetDrawLocked(std::FILE *stream, bool bOwned)
{
    if (g_bDrawOwned && g_pDraw)
        std::fclose(g_pDraw);
    g_pDraw = stream;
    g_bDrawOwned = bOwned;
    g_bDrawChosen = true;
}

std::FILE *DrawStreamLocked()
{
    if (!g_bDrawChosen) {
        g_bDrawChosen = true;
        g_pDraw = stdout;
        const char *env = std::getenv("TVHOST_DRAW");
        if (env && (!std::strcmp(env, "0") || !std::strcmp(env, "off") || !std::strcmp(env, "no"))) {
            g_pDraw = nullptr;
        } else if (env && !std::strcmp(env, "stderr")) {
            g_pDraw = stderr;
        } else if (env && *env && std::strcmp(env, "1") && std::strcmp(env, "stdout")) {
            g_pDraw = std::fopen(env, "a");
            g_bDrawOwned = g_pDraw != nullptr;
        }
    }
    return g_pDraw;
}

bool Drawing()
{
    std::lock_guard<std::mutex> lock(g_drawMutex);
    return DrawStreamLocked() != nullptr;
}

void Draw(const std::string &text)
{
    std::lock_guard<std::mutex> lock(g_drawMutex);
    std::FILE *out = DrawStreamLocked();
    if (!out)
        return;
    std::fwrite(text.data(), 1, text.size(), out);
    std::fflush(out);
}

} // namespace

std::vector<Record> Posted()
{
    std::lock_guard<std::mutex> lock(S().mutex);
    std::vector<Record> out;
    out.reserve(S().posted.size());
    for (const auto &r : S().posted)
        out.push_back(r.Unpack());
    return out;
}

std::vector<Record> Shown()
{
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().screen.Records();
}

std::vector<Removal> Removals()
{
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().removals;
}

bool QueueDelivery(bool bButton, int itemId, int buttonIndex, bool bTakeDown, Ticket &ticket, std::string &why)
{
    Service &s = S();
    std::string appId;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.bInitialised || !s.worker.joinable()) {
            why = "the notification service is not initialised";
            return false;
        }
        why = s.screen.CannotDeliver(itemId, bButton, buttonIndex);
        if (!why.empty())
            return false;
        Delivery d{bButton, itemId, bButton ? buttonIndex : 0, ++s.nLastSeq};
        ticket.nSeq = d.nSeq;
        ticket.nGeneration = s.nGeneration;
        s.queue.push_back(d);
        s.wake.notify_all();
        if (!bTakeDown)
            return true;
        s.screen.TakeDown(itemId);
        appId = s.strAppId;
    }
    Draw(RenderClosed(appId, itemId));
    return true;
}

bool WaitForDelivery(const Ticket &ticket, const std::atomic<bool> &bGiveUp)
{
    Service &s = S();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.idle.wait(lock,
                [&] { return s.nDoneSeq >= ticket.nSeq || s.nGeneration != ticket.nGeneration || bGiveUp.load(); });
    return s.nDoneSeq >= ticket.nSeq;
}

void WakeWaiters()
{
    std::lock_guard<std::mutex> lock(S().mutex);
    S().idle.notify_all();
}

bool PressButton(int itemId, int buttonIndex)
{
    Ticket ticket;
    std::string why;
    return QueueDelivery(true, itemId, buttonIndex, false, ticket, why);
}

bool TimeOut(int itemId)
{
    Ticket ticket;
    std::string why;
    return QueueDelivery(false, itemId, 0, false, ticket, why);
}

void WaitDelivered()
{
    Service &s = S();
    std::unique_lock<std::mutex> lock(s.mutex);
    if (s.worker.joinable() && s.worker.get_id() == std::this_thread::get_id())
        return; // from inside a callback nothing else can be delivered meanwhile
    s.idle.wait(lock, [&] { return s.queue.empty() && !s.bBusy; });
}

int Delivered()
{
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().nDelivered;
}

void DrawTo(std::FILE *stream)
{
    std::lock_guard<std::mutex> lock(g_drawMutex);
    SetDrawLocked(stream, false);
}

bool DrawToFile(const std::string &path)
{
    std::FILE *f = std::fopen(path.c_str(), "a");
    if (!f)
        return false;
    std::lock_guard<std::mutex> lock(g_drawMutex);
    SetDrawLocked(f, true);
    return true;
}

namespace {
tvhost::detail::ResetHook g_reset([] {
    StopDelivery();
    StopControl();
    Service &s = S();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.bInitialised = false;
    s.strAppId.clear();
    s.pButtonCb = nullptr;
    s.pButtonData = nullptr;
    s.pTimeoutCb = nullptr;
    s.pTimeoutData = nullptr;
    s.posted.clear();
    s.screen.Clear();
    s.live.clear();
    s.nRemoved = 0;
    s.appIds.clear();
    s.removals.clear();
    s.bBusy = false;
    s.nDelivered = 0;
});
} // namespace

} // namespace notifications
} // namespace tvhost

using tvhost::faults::Take;
using tvhost::notifications::S;
using tvhost::notifications::Service;

extern "C" int init_notification_data_manager(const char *app_id, int flags)
{
    (void)flags;
    int nFault;
    if (Take(__func__, nFault))
        return nFault;
    auto &s = S();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!app_id || !*app_id)
            return -1;
        s.bInitialised = true;
        s.strAppId = app_id;
        tvhost::notifications::StartDelivery(s);
    }
    tvhost::notifications::StartControl();
    return 0;
}

extern "C" int register_notification_button_callback(notification_button_cb callback, void *user_data)
{
    int nFault;
    if (Take(__func__, nFault))
        return nFault;
    return tvhost::notifications::Register(&Service::pButtonCb, &Service::pButtonData, callback, user_data);
}

extern "C" int register_notification_timeout_callback(notification_timeout_cb callback, void *user_data)
{
    int nFault;
    if (Take(__func__, nFault))
        return nFault;
    return tvhost::notifications::Register(&Service::pTimeoutCb, &Service::pTimeoutData, callback, user_data);
}

extern "C" int add_notification_data(const notification_data_t *data)
{
    int nFault;
    if (Take(__func__, nFault))
        return nFault;
    auto &s = S();
    tvhost::notifications::PackedRecord record;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.bInitialised || !data || data->button_count < 0 || data->button_count > NOTIFICATION_DATA_MAX_BUTTON)
            return -1;
        record = tvhost::notifications::Pack(*data);
        s.posted.push_back(record);
        tvhost::detail::TrimHistory(s.posted);
        s.screen.Show(record);
        const size_t nAppId = tvhost::notifications::AppIdIndex(s, record.AppId().value_or(""));
        auto it = tvhost::notifications::FindLive(s, record.ItemId());
        if (it != s.live.end() && it->first == record.ItemId()) {
            s.nRemoved -= it->second == Service::kRemoved ? 1 : 0;
            it->second = nAppId;
        } else {
            s.live.insert(it, {record.ItemId(), nAppId});
        }
    }
    if (tvhost::notifications::Drawing())
        tvhost::notifications::Draw(tvhost::notifications::Render(record.Unpack()));
    return 0;
}

extern "C" int remove_notification_data(const char *app_id, int item_id)
{
    int nFault;
    if (Take(__func__, nFault))
        return nFault;
    auto &s = S();
    std::string strAppId = app_id ? app_id : "";
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = tvhost::notifications::FindLive(s, item_id);
        const bool bFound = it != s.live.end() && it->first == item_id && it->second != Service::kRemoved &&
                            s.appIds[it->second] == strAppId;
        if (bFound) {
            it->second = Service::kRemoved;
            tvhost::notifications::SweepRemoved(s);
            s.screen.Close(strAppId, item_id);
        }
        s.removals.push_back({strAppId, item_id, bFound});
        tvhost::detail::TrimHistory(s.removals);
        if (!bFound)
            return -1;
    }
    tvhost::notifications::Draw(tvhost::notifications::RenderClosed(strAppId, item_id));
    return 0;
}

extern "C" int close_notification_data_manager(void)
{
    int nFault;
    if (Take(__func__, nFault))
        return nFault;
    auto &s = S();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.bInitialised)
            return -1;
        s.bInitialised = false;
        s.pButtonCb = nullptr;
        s.pButtonData = nullptr;
        s.pTimeoutCb = nullptr;
        s.pTimeoutData = nullptr;
    }
    tvhost::notifications::StopDelivery();
    tvhost::notifications::StopControl();
    return 0;
}
