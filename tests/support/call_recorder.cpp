#include "tests/support/call_recorder.h"

#include <unistd.h>

#include <optional>

#include <gtest/gtest.h>

#include "tests/support/outside_probes.h"

namespace kel::testing {

namespace {

thread_local CallRecorder* sActive = nullptr;

}  // namespace

CallRecorder::CallRecorder(InjectedFailure failure, std::set<std::string> guarded)
    : failure_(std::move(failure)), guarded_(std::move(guarded)), previous_(sActive) {
    sActive = this;
}

CallRecorder::~CallRecorder() {
    sActive = previous_;
}

CallRecorder* CallRecorder::active() {
    return sActive;
}

bool CallRecorder::onCall(const char* function) {
    if (armed_ == 0 && guarded_.contains(function)) {
        unguarded_ += (unguarded_.empty() ? "" : " ") + std::string(function);
    }
    if (failure_.nth <= 0 || (!failure_.function.empty() && failure_.function != function) ||
        ++counted_ != failure_.nth) {
        return false;
    }
    injected_ = function;
    errno = failure_.error;
    return true;
}

void sweepFailures(const Sweep& sweep) {
    for (int failing = 0;; ++failing) {
        sweep.prepare();
        const long fdsBefore = openDescriptors(getpid());
        std::optional<CallRecorder> recorder(std::in_place, InjectedFailure{"", failing},
                                             sweep.guarded);
        const bool result = sweep.run();
        const std::string injected = recorder->injected();
        SCOPED_TRACE("call " + std::to_string(failing) + " failing: " + injected);
        EXPECT_EQ(recorder->armedGuards(), 0);
        EXPECT_EQ(recorder->unguardedCalls(), "");
        recorder.reset();
        if (failing > 0 && injected.empty()) {
            return;
        }
        EXPECT_TRUE(failing > 0 || result);
        EXPECT_TRUE(!result || sweep.done()) << "true for work left undone";
        EXPECT_EQ(openDescriptors(getpid()), fdsBefore);
    }
}

}  // namespace kel::testing
