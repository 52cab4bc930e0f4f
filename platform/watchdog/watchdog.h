// The watchdog service: a one-shot guard around one step of work that, if the
// step is still running when the time-out passes, records a stack report of
// the thread that armed it.
//
// Arming and disarming are cheap enough to wrap every system call: neither
// makes a system call nor allocates on the common path. (The first arm in a
// process starts the monitor thread; an arm made while the monitor sleeps
// without a deadline wakes it once.) Guards are independent of each other and
// of the threads that arm them: nesting on one thread and guards on many
// threads at once are fine, each is known only by its handle.
//
// A report is written once per expired guard, at the error level of the system
// log (one line per call) and to a file in kel::trace::kSnapshotFolder. It
// carries the time, the reason, the process id, the id and name of the thread
// that armed the guard, what that thread is blocked in (read before the
// thread is disturbed), and its backtrace with function names and, where the
// binaries carry debug information, source files and lines.
//
// The step itself is not cancelled. The backtrace is taken by the thread
// itself, in a handler of platform::stackReportSignal() installed with
// SA_RESTART that keeps errno, so a call the kernel restarts after a handler
// sees nothing: read, write, open, wait, flock and fcntl(F_SETLKW), and the
// other calls of the file-system library. The calls that the kernel never
// restarts end early with EINTR once a capture has run: poll, ppoll, select,
// pselect, epoll_wait, nanosleep, clock_nanosleep, pause, sigsuspend,
// sigtimedwait, semop, semtimedop, io_getevents, and socket calls under a
// time-out (SO_RCVTIMEO, SO_SNDTIMEO). A step that makes such a call under a
// guard must be ready to repeat it.
//
// A forked child starts with no armed guard and its own monitor.
#pragma once

#include <stdint.h>

// The number of guards that can be armed at once in a process. When all are
// taken, a start arms nothing (the step runs unguarded) and returns -1.
inline constexpr int kTelephonyBasebandWatchdogCapacity = 256;

extern "C" {

// Arms a guard that expires `timeoutMs` from now and writes its handle to
// `*handle`. `reason` labels the report and must stay readable while the guard
// is armed (callers pass a static constant). Returns 0 when armed; -1 when the
// table is full or an argument is invalid, with `*handle` set to 0, a handle
// that Stop ignores.
int TelephonyBasebandWatchdogStartWithStackshot(uint64_t* handle, int32_t timeoutMs,
                                                const char* reason);

// Disarms the guard armed on `*handle`. Returns 0 when that guard was armed
// (also when it had already expired and been reported); -1 for a handle that
// is no longer armed, which is harmless: a second stop, or a stop after the
// slot went to another guard, changes nothing.
int TelephonyBasebandWatchdogStop(uint64_t* handle);

}  // extern "C"
