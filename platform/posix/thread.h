// startThread: the one way the platform layers start a thread.
//
// The thread is created inside a ScopedThreadSignalMask, so it never runs an
// instruction with a process-directed signal unblocked (see signal_mask.h),
// and it carries `name` (at most 15 characters; a string that outlives the
// thread, such as a literal) in /proc and in debuggers.
#pragma once

#include <functional>
#include <optional>
#include <thread>

namespace platform {

// A running thread executing `body`, or nothing when the system refused one
// (EAGAIN: too many threads, or no memory for a stack). Detach or join it.
[[nodiscard]] std::optional<std::thread> startThread(const char* name, std::function<void()> body);

}  // namespace platform
