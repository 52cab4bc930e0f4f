// printf-style formatting into a std::string.
#pragma once

#include <cstdarg>
#include <string>

namespace platform {

// The text printf would print for `format` and its arguments. An encoding
// error in the arguments gives an empty string.
std::string stringPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string stringPrintfV(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

}  // namespace platform
