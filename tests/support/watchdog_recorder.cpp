// The watchdog service of a test executable: instead of arming anything, each
// start and stop is put into the thread's CallRecorder log.
#include "platform/watchdog/watchdog.h"
#include "tests/support/call_recorder.h"

extern "C" int TelephonyBasebandWatchdogStartWithStackshot(uint64_t* handle, int32_t, const char*) {
    kel::testing::CallRecorder* recorder = kel::testing::CallRecorder::active();
    *handle = recorder != nullptr ? recorder->onArm() : 0;
    return 0;
}

extern "C" int TelephonyBasebandWatchdogStop(uint64_t* handle) {
    kel::testing::CallRecorder* recorder = kel::testing::CallRecorder::active();
    return recorder == nullptr || recorder->onDisarm(*handle) ? 0 : -1;
}
