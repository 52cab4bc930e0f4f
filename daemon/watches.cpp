#include "daemon/watches.h"

#include <csignal>

#include "daemon/log_emission.h"

namespace kel {

unsigned char sShouldExit = 0;

namespace {

// A retained reference to a source, shared by the copies of a handler. The
// handler holds it for as long as the source keeps the handler, and gives the
// reference back once the last copy goes.
class SourceReference {
  public:
    explicit SourceReference(dispatch_source_t source) : source_(source) {
        dispatch_retain(source_);
    }
    SourceReference(const SourceReference& other) : SourceReference(other.source_) {}
    SourceReference& operator=(const SourceReference&) = delete;
    ~SourceReference() { dispatch_release(source_); }

    dispatch_source_t get() const { return source_; }

  private:
    dispatch_source_t source_;
};

void handleSigterm(const SourceReference& source,
                   const std::shared_ptr<lum::LogServer>& logServer) {
    dispatch_source_cancel(source.get());
    if (logServer) {
        logInfo(logServer, kSignalReceivedMessage);
    }
    sShouldExit = 1;
}

void checkIdle(const std::shared_ptr<HelperServer>& server,
               const std::shared_ptr<lum::LogServer>& logServer, const SourceReference& timer) {
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

void requestExit() {
    sShouldExit = 1;
}

dispatch_source_t installTerminationWatch(const std::shared_ptr<lum::LogServer>& logServer) {
    dispatch_source_t source =
        dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, SIGTERM, 0, dispatch_get_main_queue());
    if (source == nullptr) {
        return nullptr;
    }
    dispatch_source_set_event_handler(
        source, [self = SourceReference(source), logServer] { handleSigterm(self, logServer); });
    dispatch_activate(source);
    // Activation has blocked SIGTERM and reads it through the source; ignoring
    // it as a signal keeps a stray one from killing the process later on.
    signal(SIGTERM, SIG_IGN);
    return source;
}

dispatch_source_t installIdleWatch(const std::shared_ptr<HelperServer>& server,
                                   const std::shared_ptr<lum::LogServer>& logServer,
                                   const IdleWatchTiming& timing) {
    dispatch_source_t timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 1, 0, nullptr);
    if (timer == nullptr) {
        return nullptr;
    }
    dispatch_source_set_event_handler(timer, [server, logServer, self = SourceReference(timer)] {
        checkIdle(server, logServer, self);
    });
    dispatch_source_set_timer(timer, dispatch_time(DISPATCH_TIME_NOW, timing.firstFiringNs),
                              timing.intervalNs, timing.leewayNs);
    dispatch_activate(timer);
    return timer;
}

}  // namespace kel
