#include "platform/strings/format.h"

#include <cstdio>

namespace platform {

std::string stringPrintfV(const char* format, va_list args) {
    // Most texts fit the stack buffer and cost one formatting pass; a longer
    // one is formatted again straight into the string's own storage.
    char stackBuffer[256];
    va_list retry;
    va_copy(retry, args);
    const int length = vsnprintf(stackBuffer, sizeof stackBuffer, format, args);
    std::string text;
    if (length > 0 && static_cast<size_t>(length) < sizeof stackBuffer) {
        text.assign(stackBuffer, static_cast<size_t>(length));
    } else if (length > 0) {
        text.resize(static_cast<size_t>(length));
        vsnprintf(text.data(), text.size() + 1, format, retry);
    }
    va_end(retry);
    return text;
}

std::string stringPrintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = stringPrintfV(format, args);
    va_end(args);
    return text;
}

}  // namespace platform
