// Test control of the host notification-data service: what was posted and
// removed, the viewer's button presses and timeouts, and where the pop-ups are
// drawn. Its faults are queued and its calls counted in tvhost/faults.h.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tvhost/apps.h"
#include "tvhost/notification_screen.h"

namespace tvhost {
namespace notifications {

struct Removal {
    std::string appId;
    int itemId;
    bool found; // whether a shown notification was taken down
};

// Every record accepted by add_notification_data, in order (later posts of the
// same item id included). Posted and Removals keep at least the latest 4096
// entries.
std::vector<Record> Posted();
// Notifications on screen now, in item id order (at most Screen::kMaxOnScreen).
std::vector<Record> Shown();
// Every remove_notification_data call, in order.
std::vector<Removal> Removals();

// The viewer presses button index (0 = leftmost) of a shown notification, or
// lets it time out. The callback runs on the service's delivery thread; these
// return false, and deliver nothing, when there is no such notification or
// button on screen or the service is not initialised. These leave the pop-up
// on screen, so that a test can press one twice; the remote ones below are
// the viewer's and take it down.
bool PressButton(int itemId, int buttonIndex);
bool TimeOut(int itemId);
// Blocks until every press and timeout queued so far has been delivered.
void WaitDelivered();
// Callbacks run so far (button presses and timeouts).
int Delivered();

// Where pop-ups are drawn: stdout by default; nullptr switches drawing off.
// The environment variable TVHOST_DRAW=0 (or off) starts with it off,
// TVHOST_DRAW=stderr draws to stderr, any other value is a file appended to.
void DrawTo(std::FILE *stream);
// Appends the drawings to a file; false when it cannot be opened.
bool DrawToFile(const std::string &path);

// ---- the running service, from another process -----------------------------
// While a process has the service initialised (init_notification_data_manager
// until close_notification_data_manager or its exit), it serves these on a
// Unix-domain socket under the TV root, on a thread of its own; lumora-tv and
// the end-to-end tests use them. One process serves at a time: a second one
// finds the socket answering and runs without it.
std::string ControlSocketPath();

namespace remote {

struct Error {
    bool bNoService = false; // nothing listens: no service runs on this host TV
    std::string text;        // what went wrong, for a person
};

// The serving process's id.
bool Ping(int &pid, Error &error);
// What is on screen there, in item id order.
bool Shown(std::vector<Record> &records, Error &error);
// Presses a button (0 = leftmost) or lets a notification time out there, and
// waits until the service's callback has returned. The pop-up leaves the
// screen, as on a TV when the viewer answers it or it times out. launches: the launch
// requests that callback made (app id, operation, extra data, result).
bool PressButton(int itemId, int buttonIndex, std::vector<apps::Launch> &launches, Error &error);
bool TimeOut(int itemId, Error &error);

} // namespace remote

} // namespace notifications
} // namespace tvhost
