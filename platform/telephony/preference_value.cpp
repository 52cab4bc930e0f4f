// The value conversions and the parsing of a domain's file. Kept apart from
// any I/O so that the parser can be fuzzed on its own.
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "platform/telephony/preferences.h"

namespace lum {

namespace {

// The number as a whole value within [low, high], or nothing. NaN and
// infinities never reach here from JSON but fail the same way.
template <typename Int>
std::optional<Int> wholeNumberIn(const PreferenceValue& value) {
    const double* number = std::get_if<double>(&value);
    if (number == nullptr || std::trunc(*number) != *number ||
        *number < static_cast<double>(std::numeric_limits<Int>::min()) ||
        *number > static_cast<double>(std::numeric_limits<Int>::max())) {
        return std::nullopt;
    }
    return static_cast<Int>(*number);
}

}  // namespace

bool preferenceToUInt32(const PreferenceValue& value, uint32_t& target) {
    const std::optional<uint32_t> number = wholeNumberIn<uint32_t>(value);
    if (number) {
        target = *number;
    }
    return number.has_value();
}

bool preferenceToInt32(const PreferenceValue& value, int32_t& target) {
    const std::optional<int32_t> number = wholeNumberIn<int32_t>(value);
    if (number) {
        target = *number;
    }
    return number.has_value();
}

bool preferenceToBool(const PreferenceValue& value, bool& target) {
    const bool* boolean = std::get_if<bool>(&value);
    if (boolean != nullptr) {
        target = *boolean;
    }
    return boolean != nullptr;
}

void preferenceToText(const PreferenceValue& value, std::string& target) {
    if (const std::string* text = std::get_if<std::string>(&value)) {
        target = *text;
    } else if (const bool* boolean = std::get_if<bool>(&value)) {
        target = *boolean ? "true" : "false";
    } else {
        const double number = std::get<double>(value);
        char buffer[32];
        // Whole numbers within 2^53 are exact: print them without exponent.
        const auto end = std::trunc(number) == number && std::fabs(number) <= 0x1p53
                             ? std::to_chars(buffer, std::end(buffer), static_cast<int64_t>(number))
                             : std::to_chars(buffer, std::end(buffer), number);
        target.assign(buffer, end.ptr);
    }
}

bool parsePreferences(std::string_view bytes, PreferenceMap& values, std::string& error) {
    values.clear();
    nlohmann::json document;
    try {
        document = nlohmann::json::parse(bytes.begin(), bytes.end());
    } catch (const nlohmann::json::exception& parseError) {
        error = std::string("is not valid JSON: ") + parseError.what();
        return false;
    }
    if (!document.is_object()) {
        error = "does not hold a JSON object";
        return false;
    }
    for (auto& [key, member] : document.items()) {
        if (member.is_number()) {
            values.emplace(key, member.get<double>());
        } else if (member.is_boolean()) {
            values.emplace(key, member.get<bool>());
        } else if (member.is_string()) {
            values.emplace(key, std::move(member.get_ref<std::string&>()));
        }
    }
    return true;
}

}  // namespace lum
