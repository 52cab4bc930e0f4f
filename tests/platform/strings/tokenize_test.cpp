#include "platform/strings/tokenize.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Only the last field reaches the path operations, so the empty fields
// between separators are checked here.
TEST(TokenizeTest, KeepsEmptyFieldsInOrder) {
    const struct {
        std::string text;
        std::vector<std::string> fields;
    } kCases[] = {
        {"", {}},
        {"a", {"a"}},
        {"/", {"", ""}},
        {"a/", {"a", ""}},
        {"a//b", {"a", "", "b"}},
        {"/a/b", {"", "a", "b"}},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(lum::tokenize(c.text, '/', 0), c.fields) << '"' << c.text << '"';
    }
}

}  // namespace
