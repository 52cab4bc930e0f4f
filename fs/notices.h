// A short notice shown to the person using the device, on carrier and
// internal builds only, at most once per title unless repeats are asked for.
#pragma once

#include <stdint.h>

#include <string>

namespace fsutil {

// Shows `title` and `message` to the user for `timeoutSeconds`, on carrier and
// internal builds only. Unless `allowRepeat` is non-zero, a title (by its hash)
// is shown once per process: it is recorded before it is shown, so one whose
// texts cannot be shown (neither is ASCII) still counts. Thread-safe.
void displayNotice(const std::string& title, const std::string& message, int32_t allowRepeat,
                   double timeoutSeconds);

}  // namespace fsutil
