// Fuzzing of a domain file's parsing: any bytes give either a failure with a
// message and no values, or values that each convert only as their type
// allows. An exception escaping is a crash.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/telephony/preferences.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    lum::PreferenceMap values;
    std::string error;
    const bool parsed =
        lum::parsePreferences({reinterpret_cast<const char*>(data), size}, values, error);
    if (parsed != error.empty() || (!parsed && !values.empty())) {
        abort();
    }
    for (const auto& [key, value] : values) {
        const double* real = std::get_if<double>(&value);
        const int64_t* integer = std::get_if<int64_t>(&value);
        const double number = real ? *real : integer ? static_cast<double>(*integer) : 0;
        uint32_t asUnsigned = 0;
        int32_t asInt = 0;
        bool asBool = false;
        if ((real != nullptr && !std::isfinite(*real)) ||
            lum::preferenceToBool(value, asBool) != std::holds_alternative<bool>(value) ||
            (lum::preferenceToUInt32(value, asUnsigned) && number != asUnsigned) ||
            (lum::preferenceToInt32(value, asInt) && number != asInt)) {
            abort();
        }
    }
    return 0;
}
