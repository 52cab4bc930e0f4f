#include "config/value_parsing.h"

#include <strings.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

struct Word {
    const char* text;
    int32_t value;  // as an integer; as a boolean, value != 0
};

constexpr Word kWords[] = {
    {"false", 0}, {"off", 0}, {"no", 0},   {"true", 1},
    {"on", 1},    {"yes", 1}, {"full", 1}, {"lite", 2},
};

bool parse(const std::string& text, int32_t& value) {
    for (const Word& word : kWords) {
        if (strcasecmp(text.c_str(), word.text) == 0 && text.size() == strlen(word.text)) {
            value = word.value;
            return true;
        }
    }
    const char* start = text.c_str();
    char* end = nullptr;
    errno = 0;
    const long number = strtol(start, &end, 0);
    // No digits, out of range, or anything left over (a zero byte included)
    // is not a number.
    if (end == start || errno == ERANGE || number < INT32_MIN || number > INT32_MAX ||
        static_cast<size_t>(end - start) != text.size()) {
        return false;
    }
    value = static_cast<int32_t>(number);
    return true;
}

}  // namespace

namespace kel {

bool parseBoolValue(const std::string& text, bool& target) {
    int32_t value = 0;
    if (!parse(text, value)) {
        return false;
    }
    target = value != 0;
    return true;
}

bool parseIntValue(const std::string& text, int32_t& target) {
    return parse(text, target);
}

}  // namespace kel
