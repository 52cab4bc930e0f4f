// The watchdog service of a test executable: instead of arming anything, each
// start and stop made under a CallRecorder is counted there.
#include "platform/watchdog/watchdog.h"
#include "tests/support/call_recorder.h"

extern "C" int TelephonyBasebandWatchdogStartWithStackshot(uint64_t* handle, int32_t, const char*) {
    kel::testing::CallRecorder* recorder = kel::testing::CallRecorder::active();
    *handle = recorder != nullptr ? 1 : 0;
    if (recorder != nullptr) {
        recorder->onArm();
    }
    return 0;
}

extern "C" int TelephonyBasebandWatchdogStop(uint64_t* handle) {
    kel::testing::CallRecorder* recorder = kel::testing::CallRecorder::active();
    if (recorder != nullptr && *handle != 0) {
        recorder->onDisarm();
    }
    return 0;
}
