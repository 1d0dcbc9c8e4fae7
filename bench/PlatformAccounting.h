// What the platform (tvhost) accounts for on the event path: the heap it
// allocated inside the service's calls and still holds, and the time those
// calls take. The calls are wrapped at link time (--wrap=add_notification_data,
// ...), so only the service's calls into the platform are seen; allocations
// made while one runs are charged to it until they are freed.
#pragma once

#include <array>
#include <cstddef>

namespace platformacct {

enum Owner : unsigned char {
    kNobody = 0, // not tracked: the service, libxml2, the bench itself
    kAddNotification,
    kWasAppInfo,
    kWasAppStatus,
    kDlog,
    kOwners
};

// Bytes of heap in use (chunks in the arenas plus mmapped chunks).
long long HeapInUse();

struct Live {
    std::array<long long, kOwners> bytes{}; // chunk sizes, as HeapInUse counts them
    std::array<long long, kOwners> blocks{};
};
// What each platform call allocated and still holds.
Live Tracked();

// Tracking of new allocations on or off; frees are always accounted.
void Track(bool bOn);

// Nanoseconds the calling thread has spent inside the wrapped platform calls.
long long PlatformNs();

// While on, the wrapped calls answer at once as the host TV would at that
// moment (widget installed, not running; notification accepted) without
// reaching tvhost: what the service costs on a platform that is free.
void AnswerAtOnce(bool bOn);

} // namespace platformacct
