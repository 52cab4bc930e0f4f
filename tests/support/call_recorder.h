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
//   EXPECT_EQ(recorder.injected, "unlinkat");
#pragma once

#include <errno.h>

#include <functional>
#include <set>
#include <string>

namespace kel::testing {

// The `nth` interposed call (1-based) of `function` fails with `error`; an
// empty function counts every interposed call. With `runFirst`, the call does
// not fail but goes ahead once that has run: a change made at an exact step.
struct InjectedFailure {
    std::string function;
    int nth = 0;
    int error = EIO;
    std::function<void()> runFirst = nullptr;
};

struct CallRecorder {
    explicit CallRecorder(InjectedFailure planned) : failure(std::move(planned)) { sActive = this; }
    ~CallRecorder() { sActive = nullptr; }
    CallRecorder(const CallRecorder&) = delete;
    CallRecorder& operator=(const CallRecorder&) = delete;

    // For the interposer: true when this call must fail (errno is then set).
    bool onCall(const char* function) {
        if (armedGuards == 0) {
            unguardedCalls.insert(function);
        }
        // The count starts at 1: a failure at call 0 never comes.
        if ((!failure.function.empty() && failure.function != function) ||
            ++counted != failure.nth) {
            return false;
        }
        injected = function;
        if (failure.runFirst) {
            failure.runFirst();
            return false;
        }
        errno = failure.error;
        return true;
    }

    // The recorder of the calling thread, or null.
    static inline thread_local CallRecorder* sActive = nullptr;

    const InjectedFailure failure;
    int counted = 0;
    // Guards armed and not yet disarmed.
    int armedGuards = 0;
    // The function whose call was made to fail (or ran late); empty until then.
    std::string injected;
    // The interposed functions called while no guard was armed.
    std::set<std::string> unguardedCalls;
};

}  // namespace kel::testing
