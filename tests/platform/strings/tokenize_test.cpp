#include "platform/strings/tokenize.h"

#include <tuple>

#include <gtest/gtest.h>

namespace {

TEST(TokenizeTest, KeepsEmptyFieldsInOrder) {
    const std::tuple<std::string, char, std::vector<std::string>> kCases[] = {
        {"", '/', {}},
        {"a", '/', {"a"}},
        {"/", '/', {"", ""}},
        {"/a/b", '/', {"", "a", "b"}},
        {"a//b", '/', {"a", "", "b"}},
        {"a/", '/', {"a", ""}},
        {"a b  c", ' ', {"a", "b", "", "c"}},
    };
    for (const auto& [text, separator, fields] : kCases) {
        EXPECT_EQ(lum::tokenize(text, separator, 0), fields) << '"' << text << '"';
    }
}

}  // namespace
