#include "platform/strings/tokenize.h"

namespace lum {

std::vector<std::string> tokenize(const std::string& text, char separator, int /*flags*/) {
    std::vector<std::string> fields;
    if (text.empty()) {
        return fields;
    }
    size_t begin = 0;
    for (size_t end = text.find(separator); end != std::string::npos;
         end = text.find(separator, begin)) {
        fields.emplace_back(text, begin, end - begin);
        begin = end + 1;
    }
    fields.emplace_back(text, begin);
    return fields;
}

}  // namespace lum
