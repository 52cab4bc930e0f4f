#include "tests/support/call_recorder.h"

#include <unistd.h>

#include <optional>

#include <gtest/gtest.h>

#include "tests/support/outside_probes.h"

namespace kel::testing {

thread_local CallRecorder* CallRecorder::sActive = nullptr;

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

void sweepFailures(const std::function<bool()>& run, const std::set<std::string>& guarded,
                   const std::function<bool()>& done, const std::function<void()>& prepare) {
    for (int failing = 0;; ++failing) {
        prepare();
        const long fdsBefore = openDescriptors(getpid());
        std::optional<CallRecorder> recorder(std::in_place, InjectedFailure{"", failing}, guarded);
        const bool result = run();
        const std::string injected = recorder->injected();
        SCOPED_TRACE("call " + std::to_string(failing) + " failing: " + injected);
        EXPECT_EQ(recorder->armedGuards(), 0);
        EXPECT_EQ(recorder->unguardedCalls(), "");
        recorder.reset();
        if (failing > 0 && injected.empty()) {
            return;
        }
        EXPECT_TRUE(failing > 0 || result);
        EXPECT_TRUE(!result || done()) << "true for work left undone";
        EXPECT_EQ(openDescriptors(getpid()), fdsBefore);
    }
}

}  // namespace kel::testing
