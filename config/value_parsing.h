// The text parsers of the "kel." preference keys: the words and numbers a
// setting stored as text may hold. Kept apart from the reader so that they can
// be fuzzed on their own.
#pragma once

#include <cstdint>
#include <string>

namespace kel {

// The whole text, in any letter case, may be one of the words false, off, no
// (false or 0), true, on, yes, full (true or 1) or lite (true or 2);
// otherwise it must be, all of it, a number for strtol with base 0 (leading
// white space, a sign, 0x for hexadecimal, 0 for octal) within the signed
// 32-bit range. A number is true when not zero. True when recognised; the
// target is written only then.
[[nodiscard]] bool parseBoolValue(const std::string& text, bool& target);
[[nodiscard]] bool parseIntValue(const std::string& text, int32_t& target);

}  // namespace kel
