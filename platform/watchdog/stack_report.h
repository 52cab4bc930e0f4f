// The stack report of the watchdog service: what a guard that expired leaves
// behind. Used only by the service's monitor thread.
//
// A report names the reason, the time, the process, the thread that armed the
// guard (id and name), what that thread is blocked in (scheduler state, wait
// channel, and the system call by name with its arguments, from /proc, read
// before the thread is signalled) and
// its backtrace, captured by the thread itself in a handler of
// platform::stackReportSignal() and symbolised afterwards on the monitor
// thread, with source files and lines where there is debug information. It
// is written to the system log at the error level, one line per call, and to
// a file of its own in kel::trace::kSnapshotFolder.
#pragma once

#include <stdint.h>
#include <sys/types.h>

namespace watchdog {

// Installs the capture handler and loads what it needs. Call once, on the
// monitor thread, before the first report.
void prepareStackReports();

// Writes the report of the guard that thread `tid` armed `armedAgoMs` ago with
// `timeoutMs` and `reason`. Blocks for a bounded time while the thread
// captures its stack.
void writeStackReport(pid_t tid, const char* reason, int32_t timeoutMs, int64_t armedAgoMs);

// In a forked child: forgets a capture that a parent's thread had in flight.
void resetStackReportsAfterFork();

}  // namespace watchdog
