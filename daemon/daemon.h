// The daemon's whole life as one function of its parts: prepare its log file,
// create and start the log server, decide whether this process may host the
// helper server, start it, install the termination and idle watches, turn the
// main run loop until a watch ends it, and shut down in a fixed order (stop
// the server, report "Exit!", flush and close the log server, close the log
// file, then drop the server, the log file's writer and the log server).
//
// The parts are what the daemon meets outside its own code; main hands in the
// installed ones, and tests hand in their own to run the whole life in their
// process (with the idle watch on millisecond timing).
#pragma once

#include <functional>
#include <memory>

#include "daemon/watches.h"
#include "platform/logserver/log.h"
#include "platform/trace/trace.h"

namespace kel {

// What the daemon's life needs of the server it hosts.
class HostedServer {
  public:
    virtual ~HostedServer() = default;
    // Starts serving. False when it cannot (it has said why in the system
    // log); the daemon then ends in order.
    [[nodiscard]] virtual bool start() = 0;
    // Stops serving, and returns once it has.
    virtual void stop() = 0;
    // Whether the server is busy. Asked on the idle watch's thread, while the
    // daemon runs and also after stop.
    virtual bool isBusy() const = 0;
};

struct DaemonParts {
    // The log server; null when there is none, and then nothing is emitted.
    std::function<std::shared_ptr<lum::LogServer>()> makeLogServer;
    // Whether this process may host the helper server at all.
    std::function<bool()> mayHost;
    // The server to host, given the log server (which may be null); null
    // refuses hosting.
    std::function<std::shared_ptr<HostedServer>(std::shared_ptr<lum::LogServer>)> makeServer;
    // The folder of the daemon's log file, as it stands (a trailing '/' is not
    // added).
    const char* scratchFolder = trace::kScratchFolder;
    IdleWatchTiming idleWatch = kIdleWatchTiming;
};

// The installed daemon's parts: the log server named after the program, the
// helper-server library's hosting decision (its weakly imported
// sCanHostHelperServer, absent meaning no) and its server, and the trace
// scratch folder.
[[nodiscard]] DaemonParts installedParts();

// Runs the daemon's life with `parts`; returns the exit status, 0 on every
// path. A start that cannot run its server or install its watches says why at
// the error level of the system log and ends in order, as a refused one does.
// Must be called on the main thread. A process may run it more than once (tests
// do), one run at a time, each starting with sShouldExit clear; but what a run
// leaves armed stays: after a run that SIGTERM ended, its idle watch may end
// the next run, and after one that idleness ended, its SIGTERM watch still
// takes SIGTERM. Runs that must not meet another's watches need a process of
// their own.
int runDaemon(const DaemonParts& parts);

}  // namespace kel
