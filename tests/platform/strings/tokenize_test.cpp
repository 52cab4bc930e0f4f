#include "platform/strings/tokenize.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Only the last field reaches the path operations, so the empty fields
// between separators are checked here.
TEST(TokenizeTest, KeepsEmptyFieldsInOrder) {
    const std::pair<std::string, std::vector<std::string>> kCases[] = {
        {"", {}},
        {"/", {"", ""}},
        {"a/", {"a", ""}},
        {"a//b", {"a", "", "b"}},
    };
    for (const auto& [text, fields] : kCases) {
        EXPECT_EQ(lum::tokenize(text, '/', 0), fields) << '"' << text << '"';
    }
}

}  // namespace
