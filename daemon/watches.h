// The two watches that end the daemon's run loop: SIGTERM, and the helper
// server going idle.
//
// Both end the loop the same way: a task on the main queue sets sShouldExit to
// 1, and the run loop, which tests the flag after every turn, stops. The flag
// is written and read only on the main thread, so it needs no atomics.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/dispatch/dispatch.h"
#include "platform/logserver/log.h"

namespace kel {

class HostedServer;

// 0 at process start and at the start of each runDaemon; 1 once a watch has
// asked the daemon to end.
extern unsigned char sShouldExit;

// When the idle watch looks at the helper server.
struct IdleWatchTiming {
    int64_t firstFiringNs;
    uint64_t intervalNs;
    uint64_t leewayNs;
};

// First check 8 s after arming, then every 8 s; each may come up to 2 s late
// so that the system can group it with other wake-ups.
inline constexpr IdleWatchTiming kIdleWatchTiming{8'000'000'000, 8'000'000'000, 2'000'000'000};

// Installs the termination watch: a SIGTERM source on the main queue whose
// handler reports "Signal received" (when there is a log server) and sets
// sShouldExit. From then on SIGTERM is ignored as a signal and only reported
// through the source. Returns the source, or an empty owner when none could be
// made; SIGTERM then keeps its default action.
dispatch::Owned<dispatch_source_t> installTerminationWatch(
    const std::shared_ptr<lum::LogServer>& logServer);

// Installs the idle watch: a timer on the global queue that asks the helper
// server whether it is busy. A busy answer is reported and the timer keeps
// going; the first idle answer is reported, cancels the timer and posts a
// task to the main queue that sets sShouldExit. Returns the source, or an
// empty owner when none could be made.
dispatch::Owned<dispatch_source_t> installIdleWatch(
    const std::shared_ptr<HostedServer>& server, const std::shared_ptr<lum::LogServer>& logServer,
    const IdleWatchTiming& timing);

}  // namespace kel
