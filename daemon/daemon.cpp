#include "daemon/daemon.h"

#include "daemon/log_emission.h"
#include "daemon/log_file.h"
#include "platform/runloop/run_loop.h"

namespace kel {

namespace {

// Each run-loop turn lasts at most this long; the watches end the loop through
// main-queue tasks, which end the turn that runs them.
constexpr double kRunLoopSliceSeconds = 2.0;

void runUntilExitRequested() {
    do {
        runloop::runInDefaultMode(kRunLoopSliceSeconds, /*returnAfterSourceHandled=*/true);
    } while (sShouldExit != 1);
}

// Hosts `server` until a watch ends the run, or not at all when it cannot be
// run under both watches. Neither watch is cancelled on the way out: the one
// that ended the loop has cancelled itself, and the other may still fire
// harmlessly. Only the references held here go, the idle timer's first.
void host(const std::shared_ptr<HostedServer>& server,
          const std::shared_ptr<lum::LogServer>& logServer, const IdleWatchTiming& timing) {
    dispatch::Owned<dispatch_source_t> terminationWatch;
    dispatch::Owned<dispatch_source_t> idleWatch;
    const char* failed = nullptr;
    if (!server->start()) {
        failed = "start the helper server";
    } else if (!(terminationWatch = installTerminationWatch(logServer))) {
        failed = "watch for SIGTERM";
    } else if (!(idleWatch = installIdleWatch(server, logServer, timing))) {
        failed = "watch for idleness";
    }
    if (failed != nullptr) {
        logError("cannot %s; ending", failed);
    } else {
        runUntilExitRequested();
    }
    server->stop();
    idleWatch = {};
    terminationWatch = {};
}

void shutDownLogging(const std::shared_ptr<lum::LogServer>& logServer) {
    logInfo(logServer, kExitMessage);
    const auto flushed = dispatch::Owned<dispatch_group_t>::adopt(logServer->flush());
    if (flushed) {
        dispatch_group_wait(flushed.get(), DISPATCH_TIME_FOREVER);
    }
    logServer->close();
}

}  // namespace

int runDaemon(const DaemonParts& parts) {
    sShouldExit = 0;
    std::shared_ptr<FlatFileLogWriter> writer = prepareLogFile(parts.scratchFolder);
    std::shared_ptr<lum::LogServer> logServer = parts.makeLogServer();
    if (logServer) {
        attachLogFile(logServer, writer);
        logServer->start();
    }

    // Made also without a log server: it then gets none.
    std::shared_ptr<HostedServer> server = parts.mayHost() ? parts.makeServer(logServer) : nullptr;
    if (server) {
        host(server, logServer, parts.idleWatch);
    } else if (logServer) {
        logInfo(logServer, kNotAllowedMessage);
    }

    if (logServer) {
        shutDownLogging(logServer);
    }
    closeLogFile(writer);

    server.reset();
    writer.reset();
    logServer.reset();
    return 0;
}

}  // namespace kel
