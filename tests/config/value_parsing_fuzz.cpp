// Differential fuzzing of the "kel." text parsers against the rules written
// out independently: the word list compared in lower case, else std::stoi
// with base 0 over the whole text.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

#include "config/kel_properties.h"

namespace {

std::optional<int32_t> expectedValue(const std::string& text) {
    std::string lower = text;
    for (char& c : lower) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    for (const auto& [word, value] : {std::pair{"false", 0},
                                      {"off", 0},
                                      {"no", 0},
                                      {"true", 1},
                                      {"on", 1},
                                      {"yes", 1},
                                      {"full", 1},
                                      {"lite", 2}}) {
        if (lower == word) {
            return value;
        }
    }
    try {
        size_t used = 0;
        const int value = std::stoi(text, &used, 0);
        return used == text.size() ? std::optional<int32_t>(value) : std::nullopt;
    } catch (const std::logic_error&) {  // no digits, or out of range
        return std::nullopt;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::optional<int32_t> expected = expectedValue(text);
    int32_t asInt = 12345;
    const bool intRecognised = KELProperties::parseIntValue(text, asInt);
    bool asBool = true;
    const bool boolRecognised = KELProperties::parseBoolValue(text, asBool);
    if (intRecognised != expected.has_value() || boolRecognised != expected.has_value() ||
        asInt != expected.value_or(12345) || asBool != (expected.value_or(1) != 0)) {
        abort();
    }
    return 0;
}
