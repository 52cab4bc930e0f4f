// The helper server and the trace facilities that go with it.
//
// The helper server is a local service on a Unix-domain stream socket. It is
// busy while at least one client connection is open. Only one process on the
// machine hosts it at a time: hosting is guarded by an exclusive lock on a
// lock file that the hosting process keeps until it exits.
//
// The socket and lock paths have build-time defaults that work for root and
// for an ordinary user. The environment variable KEL_HELPER_RUNTIME_DIR, when
// set, moves both under that folder so that several instances can run side by
// side (tests do this). The trace folders that go with the server are in
// platform/trace.
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
    // A server that reports through `logServer` (which may be empty). Null when
    // the listening socket cannot be made.
    [[nodiscard]] static std::shared_ptr<HelperServer> create(
        std::shared_ptr<lum::LogServer> logServer);

    ~HelperServer();
    HelperServer(const HelperServer&) = delete;
    HelperServer& operator=(const HelperServer&) = delete;

    // Starts accepting clients on a thread of its own. Harmless when started.
    void start();

    // Closes every connection and the socket and joins the thread. The server
    // cannot be started again. Harmless when stopped or never started.
    void stop();

    // Whether a client connection is open. Thread-safe, also during and after
    // stop (a stopped server is never busy).
    bool isBusy() const;

    struct Impl;

  private:
    explicit HelperServer(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace kel
