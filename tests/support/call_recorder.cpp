#include "tests/support/call_recorder.h"

namespace kel::testing {

bool CallRecorder::onCall(const char* function) {
    if (armedGuards == 0) {
        unguardedCalls.insert(function);
    }
    // The count starts at 1: a failure at call 0 never comes.
    if ((!failure.function.empty() && failure.function != function) || ++counted != failure.nth) {
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

}  // namespace kel::testing
