// hosttv: what a replay needs beyond the operations of hosttv.h: the service
// run as a child with its log in a file, and engine events with both texts.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>

#include "hosttv/hosttv.h"

namespace hosttv {

// Where a replay's run of the service writes its log (brief form).
std::string ReplayLogPath();

// Puts modeXml in place as the engine's mode.xml of the next run.
void PlaceModeFile(const std::string &modeXml);

// Starts the service of plan as a child: its log (brief form, the engine
// quiet) into logPath, nothing drawn. Returns its pid.
pid_t SpawnService(const RunPlan &plan, const std::string &logPath);
// Waits for the child to end; false when it still runs after timeout.
bool WaitService(pid_t pid, std::chrono::milliseconds timeout, int &status);
// SIGTERM, and SIGKILL when it has not ended within timeout. Its status.
int StopService(pid_t pid, std::chrono::milliseconds timeout);

// Raises engine event number with both texts; the service's answer.
int RaiseEvent(int number, const std::string &param1, const std::string &param2);

} // namespace hosttv
