// The helper server: a local service on a Unix-domain stream socket. It is
// busy while at least one client connection is open; a client that has only
// shut down its writing side still counts until it closes, since it may still
// be waiting for the server. Only one process on the machine hosts it at a
// time: hosting is guarded by an exclusive lock on a lock file that the
// hosting process keeps until it exits.
//
// The socket and the lock live in a runtime folder that only this user (and
// root) can write into, checked before every use (runtime_paths.h): who may
// connect is decided by who may enter that folder. A listening socket handed
// over by a service manager (LISTEN_PID and LISTEN_FDS) is used instead of
// binding one; such a socket belongs to the manager and is never unlinked.
//
// Under load the server stays responsive and small: it reaps hang-ups before
// it accepts more clients, so it holds no more descriptors than its live
// clients plus a fixed few; it reads a bounded amount per client per wake-up,
// so stop() returns within milliseconds whatever the clients send; and when
// the process nears its limit of open files (8 are kept for the rest of it)
// it stops accepting until a client leaves, or a second has passed, rather
// than failing in a loop. Newcomers then wait in the listening backlog
// instead of being accepted and dropped, as with a reserve descriptor. Why it
// refused or failed goes to the system log at the error level, one line each.
#pragma once

#include <memory>

namespace lum {
class LogServer;
}

// Non-zero when this process may host the helper server: no other process on
// the machine holds the hosting lock. The first call that answers non-zero
// takes the lock, and the process keeps it until it exits. Imported weakly: a
// library build may lack it, and callers test its address first.
extern "C" int sCanHostHelperServer() __attribute__((weak));

namespace kel {

class HelperServer {
  public:
    // A server that holds `logServer` (which may be empty). Null when the
    // listening socket cannot be made. Only a socket that nobody accepts on
    // any more (left by a holder that died) is replaced at the path; anything
    // else there is a refusal.
    [[nodiscard]] static std::shared_ptr<HelperServer> create(
        std::shared_ptr<lum::LogServer> logServer);

    ~HelperServer();
    HelperServer(const HelperServer&) = delete;
    HelperServer& operator=(const HelperServer&) = delete;

    // Starts accepting clients on a thread of its own. False when the thread
    // cannot be started (said in the system log) or the server was stopped:
    // then it never serves. Harmless when started.
    [[nodiscard]] bool start();

    // Closes every connection and the socket and joins the thread. The server
    // cannot be started again. Harmless when stopped or never started.
    void stop();

    // Whether a client connection is open. Thread-safe, also during and after
    // stop (a stopped server is never busy).
    bool isBusy() const;

  private:
    struct Impl;
    explicit HelperServer(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace kel
