// A stand-in for the watchdog service that records, per thread, when guards
// are armed and disarmed, interleaved with whatever else the test records
// (the interposed libc calls), so that a test can tell which steps ran under a
// guard.
#pragma once

#include <string>
#include <vector>

namespace recording {

// Starts a fresh log on this thread.
void start();

// Stops recording and returns the log: "arm", "disarm" and the recorded names,
// in order. A disarm that is not of the innermost armed guard is logged as
// "disarm out of order".
std::vector<std::string> stop();

// Appends `name` while recording.
void record(const char* name);

// The number of guards armed on this thread and not yet disarmed.
int armedCount();

}  // namespace recording
