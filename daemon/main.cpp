// kelhelperd: hosts the helper server until it goes idle or SIGTERM arrives.
//
// It takes no arguments, reads no environment variable and always exits with
// status 0. Its own log file, when the preference turns it on, is opened before
// the log server starts, so that it gets every record of the run. Shutdown runs
// in a fixed order: stop the helper server, report "Exit!", flush and close the
// log server, close the log file, then drop the helper server, the log file's
// writer and the log server.
#include <memory>
#include <string>

#include "daemon/log_emission.h"
#include "daemon/log_file.h"
#include "daemon/watches.h"
#include "platform/dispatch/dispatch.h"
#include "platform/helperserver/helper_server.h"
#include "platform/logserver/log.h"
#include "platform/posix/progname.h"
#include "platform/runloop/run_loop.h"

namespace {

// Each run-loop turn lasts at most this long; the watches end the loop through
// main-queue tasks, which end the turn that runs them.
constexpr double kRunLoopSliceSeconds = 2.0;

// The hosting decision. The hosting function is imported weakly: a helper
// server library without it means this process may not host.
std::shared_ptr<kel::HelperServer> createHelperServerIfAllowed(
    const std::shared_ptr<lum::LogServer>& logServer) {
    if (&sCanHostHelperServer == nullptr || sCanHostHelperServer() == 0) {
        return nullptr;
    }
    return kel::HelperServer::create(logServer);
}

void runUntilExitRequested() {
    do {
        runloop::runInDefaultMode(kRunLoopSliceSeconds, /*returnAfterSourceHandled=*/true);
    } while (kel::sShouldExit != 1);
}

void shutDownLogging(const std::shared_ptr<lum::LogServer>& logServer) {
    kel::logInfo(logServer, kel::kExitMessage);
    const auto flushed = dispatch::Owned<dispatch_group_t>::adopt(logServer->flush());
    if (flushed) {
        dispatch_group_wait(flushed.get(), DISPATCH_TIME_FOREVER);
    }
    logServer->close();
}

}  // namespace

int main(int /*argc*/, char** /*argv*/) {
    std::shared_ptr<FlatFileLogWriter> writer = kel::prepareLogFile();
    std::shared_ptr<lum::LogServer> logServer = lum::LogServer::create(getprogname());
    if (logServer) {
        kel::attachLogFile(logServer, writer);
        logServer->start();
    }

    std::shared_ptr<kel::HelperServer> server = createHelperServerIfAllowed(logServer);
    if (server) {
        server->start();
        auto terminationWatch = kel::installTerminationWatch(logServer);
        auto idleWatch = kel::installIdleWatch(server, logServer);

        runUntilExitRequested();

        server->stop();
        // Neither watch is cancelled here: the one that ended the loop has
        // cancelled itself, and the other may still fire harmlessly. Only
        // main's references go, the idle timer's first.
        idleWatch = {};
        terminationWatch = {};
    } else if (logServer) {
        kel::logInfo(logServer, kel::kNotAllowedMessage);
    }

    if (logServer) {
        shutDownLogging(logServer);
    }
    kel::closeLogFile(writer);

    server.reset();
    writer.reset();
    logServer.reset();
    return 0;
}
