#include "tests/fs/recording_watchdog.h"

#include <stdint.h>

#include "platform/watchdog/watchdog.h"

namespace recording {
namespace {

thread_local bool sRecording = false;
thread_local std::vector<std::string> sLog;
thread_local std::vector<uint64_t> sArmed;
thread_local uint64_t sNextHandle = 1;

}  // namespace

void start() {
    sLog.clear();
    sArmed.clear();
    sRecording = true;
}

std::vector<std::string> stop() {
    sRecording = false;
    return std::move(sLog);
}

void record(const char* name) {
    if (sRecording) {
        sLog.emplace_back(name);
    }
}

int armedCount() {
    return static_cast<int>(sArmed.size());
}

}  // namespace recording

extern "C" int TelephonyBasebandWatchdogStartWithStackshot(uint64_t* handle, int32_t, const char*) {
    *handle = recording::sNextHandle++;
    recording::sArmed.push_back(*handle);
    recording::record("arm");
    return 0;
}

extern "C" int TelephonyBasebandWatchdogStop(uint64_t* handle) {
    const bool innermost = !recording::sArmed.empty() && recording::sArmed.back() == *handle;
    if (innermost) {
        recording::sArmed.pop_back();
    }
    recording::record(innermost ? "disarm" : "disarm out of order");
    return innermost ? 0 : -1;
}
