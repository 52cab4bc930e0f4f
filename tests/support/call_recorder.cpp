#include "tests/support/call_recorder.h"

#include <unistd.h>

#include <optional>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/outside_probes.h"

namespace kel::testing {

namespace {

thread_local CallRecorder* sActive = nullptr;

}  // namespace

CallRecorder::CallRecorder(InjectedFailure failure)
    : failure_(std::move(failure)), previous_(sActive) {
    sActive = this;
}

CallRecorder::~CallRecorder() {
    sActive = previous_;
}

CallRecorder* CallRecorder::active() {
    return sActive;
}

std::string CallRecorder::log() const {
    std::string text;
    for (const std::string& event : events_) {
        text += (text.empty() ? "" : " ") + event;
    }
    return text;
}

void CallRecorder::record(const char* event) {
    events_.emplace_back(event);
}

bool CallRecorder::onCall(const char* function) {
    record(function);
    if (failure_.nth <= 0 || (!failure_.function.empty() && failure_.function != function) ||
        ++counted_ != failure_.nth) {
        return false;
    }
    injected_ = true;
    events_.back() += "!";
    errno = failure_.error;
    return true;
}

uint64_t CallRecorder::onArm() {
    record("[");
    armed_.push_back(nextHandle_);
    return nextHandle_++;
}

bool CallRecorder::onDisarm(uint64_t handle) {
    const bool innermost = !armed_.empty() && armed_.back() == handle;
    if (innermost) {
        armed_.pop_back();
    }
    record(innermost ? "]" : "]!");
    return innermost;
}

std::string sweepFailures(const std::function<bool()>& run, const std::function<void()>& prepare) {
    const auto openFds = [] { return openDescriptors(getpid()); };
    std::string clean;
    std::vector<std::string> marks;
    for (int failing = 0;; ++failing) {
        prepare();
        const auto fdsBefore = openFds();
        std::optional<CallRecorder> recorder(std::in_place, InjectedFailure{"", failing});
        const bool result = run();
        EXPECT_EQ(recorder->armedGuards(), 0) << recorder->log();
        if (failing > 0 && !recorder->injected()) {
            break;
        }
        if (failing == 0) {
            EXPECT_TRUE(result) << recorder->log();
            clean = recorder->log();
        } else {
            marks.push_back(result ? "" : ":f");
        }
        recorder.reset();
        EXPECT_EQ(openFds(), fdsBefore) << "call " << failing << " failing";
    }
    std::istringstream events(clean);
    std::string annotated;
    size_t call = 0;
    for (std::string event; events >> event;) {
        annotated += (annotated.empty() ? "" : " ") + event +
                     (event == "[" || event == "]" ? "" : marks.at(call++));
    }
    return annotated;
}

}  // namespace kel::testing
