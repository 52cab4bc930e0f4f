// CallRecorder: makes one libc call of a thread fail and watches the watchdog
// guards around the calls, for tests of code that runs system calls step by
// step.
//
// Test executables that link test_libc_interposer route the libc functions
// listed in libc_interposer.cpp through here (add one line there for another
// function), and the watchdog guards' arms and disarms, which then arm
// nothing. Only the thread that made the recorder is affected; one recorder
// at a time on a thread.
//
//   CallRecorder recorder(InjectedFailure{"unlinkat", 2, EACCES});
//   EXPECT_FALSE(fsutil::removeRecursive(tree));
//   EXPECT_EQ(recorder.injected(), "unlinkat");
#pragma once

#include <errno.h>
#include <stdint.h>

#include <functional>
#include <set>
#include <string>

namespace kel::testing {

// The `nth` interposed call (1-based) of `function` fails with `error`; an
// empty function counts every interposed call.
struct InjectedFailure {
    std::string function;
    int nth = 0;
    int error = EIO;
};

class CallRecorder {
  public:
    // Calls of the functions in `guarded` made while no guard is armed are
    // noted in unguardedCalls().
    explicit CallRecorder(InjectedFailure failure = {}, std::set<std::string> guarded = {})
        : failure_(std::move(failure)), guarded_(std::move(guarded)) {
        sActive = this;
    }
    ~CallRecorder() { sActive = nullptr; }
    CallRecorder(const CallRecorder&) = delete;
    CallRecorder& operator=(const CallRecorder&) = delete;

    // The function whose call was made to fail; empty until then.
    const std::string& injected() const { return injected_; }
    int armedGuards() const { return armed_; }
    // The guarded functions called outside any guard, separated by spaces.
    const std::string& unguardedCalls() const { return unguarded_; }

    // For the interposer: true when this call must fail (errno is then set).
    bool onCall(const char* function);
    // For the watchdog service: the handle of a new guard, and its end.
    uint64_t onArm() {
        ++armed_;
        return 1;
    }
    void onDisarm(uint64_t handle) { armed_ -= handle != 0 ? 1 : 0; }

    // The recorder of the calling thread, or null.
    static CallRecorder* active() { return sActive; }

  private:
    static thread_local CallRecorder* sActive;

    const InjectedFailure failure_;
    const std::set<std::string> guarded_;
    int counted_ = 0;
    int armed_ = 0;
    std::string injected_;
    std::string unguarded_;
};

// Runs `run` with its first, second, ... interposed call failing, until a run
// meets no failure, which must give true; `prepare` sets the scene before each
// run, unrecorded. Every run must leave no descriptor open and no guard armed,
// make the calls of `guarded` under a guard, and give true only when `done`
// agrees afterwards that the work is all there: a failure is reported, or the
// work is done anyway.
void sweepFailures(const std::function<bool()>& run, const std::set<std::string>& guarded,
                   const std::function<bool()>& done, const std::function<void()>& prepare);

}  // namespace kel::testing
