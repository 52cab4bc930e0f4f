// The value conversions and the parsing of a domain's file. Kept apart from
// any I/O so that the parser can be fuzzed on its own.
#include <charconv>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "platform/telephony/preferences.h"

namespace lum {

namespace {

// The number as a whole value within the range of Int, or nothing. NaN and
// infinities never reach here from JSON but fail the same way.
template <typename Int>
std::optional<Int> wholeNumberIn(const PreferenceValue& value) {
    if (const int64_t* integer = std::get_if<int64_t>(&value)) {
        return std::in_range<Int>(*integer) ? std::optional<Int>(static_cast<Int>(*integer))
                                            : std::nullopt;
    }
    const double* number = std::get_if<double>(&value);
    if (number == nullptr || std::trunc(*number) != *number ||
        *number < static_cast<double>(std::numeric_limits<Int>::min()) ||
        *number > static_cast<double>(std::numeric_limits<Int>::max())) {
        return std::nullopt;
    }
    return static_cast<Int>(*number);
}

// Collects the preferences of a domain's file as the parser goes, without
// building the document: the members of the top-level object that are
// numbers, booleans or texts. The parser keeps its own stack, so no depth can
// overflow ours; the depth limit keeps what others build from the file
// (copies, the pretty-printed file of an edit) small.
class PreferencesReader final : public nlohmann::json_sax<nlohmann::json> {
  public:
    explicit PreferencesReader(PreferenceMap& values) : values_(values) {}

    const std::string& error() const { return error_; }

    bool null() override { return member(std::nullopt); }
    bool boolean(bool value) override { return member(value); }
    bool number_integer(number_integer_t value) override { return member(int64_t{value}); }
    bool number_unsigned(number_unsigned_t value) override {
        return std::in_range<int64_t>(value) ? member(static_cast<int64_t>(value))
                                             : member(static_cast<double>(value));
    }
    bool number_float(number_float_t value, const string_t& /*text*/) override {
        return member(value);
    }
    bool string(string_t& value) override { return member(std::move(value)); }
    bool binary(binary_t& /*value*/) override { return member(std::nullopt); }
    bool start_object(std::size_t /*elements*/) override { return enter(); }
    bool start_array(std::size_t /*elements*/) override {
        return depth_ > 0 ? enter() : notAnObject();
    }
    bool key(string_t& key) override {
        if (depth_ == 1) {
            key_ = std::move(key);
        }
        return true;
    }
    bool end_object() override { return leave(); }
    bool end_array() override { return leave(); }
    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::json::exception& parseError) override {
        error_ = std::string("is not valid JSON: ") + parseError.what();
        return false;
    }

  private:
    // A later member of the same key replaces an earlier one, whatever its type.
    bool member(std::optional<PreferenceValue> value) {
        if (depth_ == 0) {
            return notAnObject();
        }
        if (depth_ == 1) {
            if (value) {
                values_.insert_or_assign(key_, std::move(*value));
            } else {
                values_.erase(key_);
            }
        }
        return true;
    }
    bool enter() {
        if (depth_ == 1) {
            values_.erase(key_);
        }
        if (++depth_ > kMaxPreferencesDepth) {
            error_ = "is nested deeper than " + std::to_string(kMaxPreferencesDepth) + " levels";
            return false;
        }
        return true;
    }
    bool leave() {
        --depth_;
        return true;
    }
    bool notAnObject() {
        error_ = "does not hold a JSON object";
        return false;
    }

    PreferenceMap& values_;
    std::string key_;
    size_t depth_ = 0;
    std::string error_;
};

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
    } else if (const int64_t* integer = std::get_if<int64_t>(&value)) {
        target = std::to_string(*integer);
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
    PreferencesReader reader(values);
    if (!nlohmann::json::sax_parse(bytes.begin(), bytes.end(), &reader)) {
        error = reader.error();
        values.clear();
        return false;
    }
    // The parser takes a zero byte for the end of its input: whatever follows
    // would otherwise be ignored here and lost by the next edit.
    if (bytes.find('\0') != std::string_view::npos) {
        error = "has bytes after its JSON value";
        values.clear();
        return false;
    }
    return true;
}

}  // namespace lum
