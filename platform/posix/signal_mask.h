// The signal mask of every thread the platform layers start.
//
// Such threads block all asynchronous signals, so that a process-directed
// signal (SIGTERM above all) is only ever delivered to the main thread or read
// through a signal source; a single thread that left SIGTERM unblocked would
// let the kernel hand it a signal whose disposition is "ignore", and it would
// be lost. The one exception is the watchdog's stack-report signal, which is
// always aimed at one particular thread (tgkill) and must reach it wherever it
// hangs.
#pragma once

#include <pthread.h>
#include <signal.h>

namespace platform {

// The signal the watchdog service sends to a hung thread to capture its stack.
inline int stackReportSignal() {
    return SIGRTMIN + 2;
}

// Every signal a platform thread blocks.
inline sigset_t threadBlockedSignals() {
    sigset_t set;
    sigfillset(&set);
    sigdelset(&set, stackReportSignal());
    return set;
}

// Blocks threadBlockedSignals() in the calling thread for the life of the scope
// and restores the previous mask afterwards. Create threads inside such a
// scope: a new thread inherits its creator's mask, so it never runs a single
// instruction with a signal unblocked.
class ScopedThreadSignalMask {
  public:
    ScopedThreadSignalMask() {
        const sigset_t blocked = threadBlockedSignals();
        pthread_sigmask(SIG_SETMASK, &blocked, &previous_);
    }
    ~ScopedThreadSignalMask() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    ScopedThreadSignalMask(const ScopedThreadSignalMask&) = delete;
    ScopedThreadSignalMask& operator=(const ScopedThreadSignalMask&) = delete;

  private:
    sigset_t previous_;
};

}  // namespace platform
