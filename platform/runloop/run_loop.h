// The main run loop: the only place where main-queue work runs.
//
// One call runs the loop on the main thread for a time slice. It sleeps in the
// kernel until the main queue has work or the slice ends, and wakes for
// nothing else. Main-queue work counts as a handled source.
#pragma once

namespace runloop {

enum class RunResult {
    kHandledSource,  // returned after the first handled source
    kTimedOut,       // the slice ended with nothing handled
};

// Runs the main run loop in its default mode for at most `seconds`. With
// `returnAfterSourceHandled` true, returns as soon as one turn has run
// main-queue work (all the work queued at that moment runs in that turn);
// otherwise keeps serving until the slice ends. Must be called on the thread
// that started the process.
RunResult runInDefaultMode(double seconds, bool returnAfterSourceHandled);

}  // namespace runloop
