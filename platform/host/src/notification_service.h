// Internal to tvhost: what the notification service's control socket asks of
// the service, and how the service starts and stops that socket.
#pragma once

#include <atomic>
#include <string>

namespace tvhost {
namespace notifications {

// What a queued press or timeout is known by: its number and the delivery
// thread's generation that is to run it.
struct Ticket {
    unsigned long nSeq = 0;
    unsigned long nGeneration = 0;
};

// Queues a press (bButton) or a timeout of a notification on screen; false
// with the reason, for a person, when there is none to queue. bTakeDown: the
// pop-up leaves the screen, as it does when the viewer answers it.
bool QueueDelivery(bool bButton, int itemId, int buttonIndex, bool bTakeDown, Ticket &ticket, std::string &why);
// Waits until the delivery of ticket has run; false when the service closed,
// or bGiveUp was set (and WakeWaiters called), first.
bool WaitForDelivery(const Ticket &ticket, const std::atomic<bool> &bGiveUp);
void WakeWaiters();

// The control socket (notification_control.cpp): served while the service
// is initialised.
void StartControl();
void StopControl();

} // namespace notifications
} // namespace tvhost
