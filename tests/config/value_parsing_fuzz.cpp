// Differential fuzzing of the "kel." text parsers against their rules written
// out independently: the words compared in lower case, else std::stoi with
// base 0 over the whole text.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "config/value_parsing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string lower = text;
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
    constexpr std::pair<const char*, int32_t> kWords[] = {
        {"false", 0}, {"off", 0}, {"no", 0},   {"true", 1},
        {"on", 1},    {"yes", 1}, {"full", 1}, {"lite", 2},
    };
    std::optional<int32_t> expected;
    for (const auto& [word, value] : kWords) {
        expected = lower == word ? std::optional(value) : expected;
    }
    try {
        size_t used = 0;
        const int value = std::stoi(text, &used, 0);
        expected = !expected && used == size ? std::optional(value) : expected;
    } catch (const std::logic_error&) {  // no digits, or out of range
    }
    int32_t asInt = 12345;
    bool asBool = true;
    if (kel::parseIntValue(text, asInt) != expected.has_value() ||
        kel::parseBoolValue(text, asBool) != expected.has_value() ||
        asInt != expected.value_or(12345) || asBool != (expected.value_or(1) != 0)) {
        abort();
    }
    return 0;
}
