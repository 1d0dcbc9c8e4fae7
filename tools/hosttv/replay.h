// hosttv: a TV's log played back on the host TV. The plan (tvlog) says what
// the TV and the viewer did; Replay puts a fresh host TV in the plan's start
// state, runs the service with the logged events injected one by one at their
// times, does the TV's and the viewer's steps in between, and compares what
// the service did with what the TV logged. Prints nothing: each front end
// shows the result its own way.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "hosttv/hosttv.h"
#include "tvlog/tvlog.h"

namespace hosttv {

// Where a replay's run of the service writes its log (brief form).
std::string ReplayLogPath();

struct ReplayOptions {
    double speed = 1.0; // 4: four times as fast
    // Told once the host TV is ready and the service about to start.
    std::function<void()> onStart;
    // Told of each pop-up as it appears, once.
    std::function<void(const tvhost::notifications::Record &)> onPopup;
    // Ends the replay early when it answers true; waits up to a time point
    // for that (a front end's stop signal), or the service's end.
    std::function<bool(std::chrono::steady_clock::time_point until, const proc::Child &service)> stopped;
};

struct ReplayResult {
    // Per event number: how many the log holds, and the replayed service's log.
    std::map<int, std::pair<size_t, size_t>> eventCounts;
    // The simulated engine answers a refresh with an event 0 of its own.
    bool bEngineRefreshed = false;
    std::vector<tvlog::Difference> differences;
    std::vector<std::string> problems; // steps that could not be replayed, with their log line
    bool bStopped = false;             // ended early by options.stopped
    bool Same() const { return differences.empty() && problems.empty() && !bStopped; }
};

// Replays plan; refused (an Error) while a service runs, and when the host TV
// cannot be prepared. The service it starts is ended before it returns,
// however it returns.
ReplayResult Replay(const tvlog::Plan &plan, const ReplayOptions &options);

} // namespace hosttv
