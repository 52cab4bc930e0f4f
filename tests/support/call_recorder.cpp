#include "tests/support/call_recorder.h"

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

}  // namespace kel::testing
