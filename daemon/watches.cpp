#include "daemon/watches.h"

#include <csignal>

#include "daemon/daemon.h"
#include "daemon/log_emission.h"

namespace kel {

unsigned char sShouldExit = 0;

namespace {

using SourceReference = dispatch::Retained<dispatch_source_t>;

// Runs on the main queue.
void requestExit() {
    sShouldExit = 1;
}

void handleSigterm(const SourceReference& source,
                   const std::shared_ptr<lum::LogServer>& logServer) {
    dispatch_source_cancel(source.get());
    if (logServer) {
        logInfo(logServer, kSignalReceivedMessage);
    }
    sShouldExit = 1;
}

void checkIdle(const std::shared_ptr<HostedServer>& server,
               const std::shared_ptr<lum::LogServer>& logServer, const SourceReference& timer) {
    // Only the lowest bit of the answer is read: that bit is the whole of the
    // helper-server library's contract for isBusy, and a build of it whose
    // boolean carries other bits must not have them read as busy.
    const bool busy = (static_cast<unsigned>(server->isBusy()) & 1u) != 0;
    if (busy) {
        if (logServer) {
            logInfo(logServer, kServerBusyMessage);
        }
        return;
    }
    if (logServer) {
        logInfo(logServer, kServerIdleMessage);
    }
    dispatch_source_cancel(timer.get());
    dispatch_async_f(dispatch_get_main_queue(), nullptr, [](void*) { requestExit(); });
}

}  // namespace

dispatch::Owned<dispatch_source_t> installTerminationWatch(
    const std::shared_ptr<lum::LogServer>& logServer) {
    auto owned = dispatch::Owned<dispatch_source_t>::adopt(
        dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, SIGTERM, 0, dispatch_get_main_queue()));
    dispatch_source_t source = owned.get();
    if (source == nullptr) {
        return owned;
    }
    dispatch_source_set_event_handler(
        source, [self = SourceReference(source), logServer] { handleSigterm(self, logServer); });
    dispatch_activate(source);
    // Activation has blocked SIGTERM and reads it through the source; ignoring
    // it as a signal keeps a stray one from killing the process later on.
    signal(SIGTERM, SIG_IGN);
    return owned;
}

dispatch::Owned<dispatch_source_t> installIdleWatch(
    const std::shared_ptr<HostedServer>& server, const std::shared_ptr<lum::LogServer>& logServer,
    const IdleWatchTiming& timing) {
    auto owned = dispatch::Owned<dispatch_source_t>::adopt(
        dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 1, 0, nullptr));
    dispatch_source_t timer = owned.get();
    if (timer == nullptr) {
        return owned;
    }
    dispatch_source_set_event_handler(timer, [server, logServer, self = SourceReference(timer)] {
        checkIdle(server, logServer, self);
    });
    dispatch_source_set_timer(timer, dispatch_time(DISPATCH_TIME_NOW, timing.firstFiringNs),
                              timing.intervalNs, timing.leewayNs);
    dispatch_activate(timer);
    return owned;
}

}  // namespace kel
