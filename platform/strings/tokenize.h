// Splitting text into the fields between separators.
#pragma once

#include <string>
#include <vector>

namespace lum {

// The fields of `text` between occurrences of `separator`, in order. Empty
// fields are kept: "/a/b" gives {"", "a", "b"}, "a//b" gives {"a", "", "b"},
// "a/" gives {"a", ""}. Empty text has no fields at all: "" gives {}.
//
// `flags` is reserved for other ways of splitting; pass 0. Other values are
// currently treated as 0.
std::vector<std::string> tokenize(const std::string& text, char separator, int flags);

}  // namespace lum
