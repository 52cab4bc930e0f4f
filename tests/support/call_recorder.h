// CallRecorder: records which libc calls a thread makes, and makes one of them
// fail, for tests of code that runs system calls step by step.
//
// Test executables that link test_libc_interposer route the libc functions
// listed in libc_interposer.cpp through here (add one line there for another
// function). While a CallRecorder lives on a thread, every such call that
// thread makes is appended to the log under the function's name; the other
// threads are not affected. Linking test_watchdog_recorder as well puts the
// watchdog guards into the same log: "[" for an arm, "]" for the disarm of the
// innermost armed guard, "]!" for any other disarm.
//
//   CallRecorder recorder(InjectedFailure{"unlinkat", 2, EACCES});
//   EXPECT_FALSE(fsutil::removeRecursive(tree));
//   EXPECT_TRUE(recorder.injected());
//   EXPECT_EQ(recorder.armedGuards(), 0);
#pragma once

#include <errno.h>

#include <functional>
#include <string>
#include <vector>

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
    CallRecorder() : CallRecorder(InjectedFailure{}) {}
    explicit CallRecorder(InjectedFailure failure);
    ~CallRecorder();
    CallRecorder(const CallRecorder&) = delete;
    CallRecorder& operator=(const CallRecorder&) = delete;

    // The calls and guard marks so far, separated by spaces.
    std::string log() const;
    // Whether the injected failure was reached.
    bool injected() const { return injected_; }
    // Guards armed and not yet disarmed.
    int armedGuards() const { return static_cast<int>(armed_.size()); }

    // For the interposer: records `event`; true when this call must fail (its
    // errno is then set).
    bool onCall(const char* function);
    // For the watchdog recorder.
    uint64_t onArm();
    bool onDisarm(uint64_t handle);

    // The recorder of the calling thread, or null.
    static CallRecorder* active();

  private:
    void record(const char* event);

    InjectedFailure failure_;
    int counted_ = 0;
    bool injected_ = false;
    std::vector<std::string> events_;
    std::vector<uint64_t> armed_;
    uint64_t nextHandle_ = 1;
    CallRecorder* previous_;
};

// Runs `run` with its first, second, ... interposed call failing until a run
// meets no failure, after `prepare` each time (outside the recording). Every
// run must leave no descriptor open and no guard armed, and the run without a
// failure must succeed. Returns the calls and guards of that run, each call
// followed by ":f" when its failure made `run` give false.
std::string sweepFailures(
    const std::function<bool()>& run, const std::function<void()>& prepare = [] {});

}  // namespace kel::testing
