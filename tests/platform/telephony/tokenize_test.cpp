#include "platform/telephony/tokenize.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAreArray;

TEST(TokenizeTest, KeepsEmptyFieldsInOrder) {
    const struct {
        std::string text;
        char separator;
        std::vector<std::string> fields;
    } kCases[] = {
        {"", '/', {}},
        {"a", '/', {"a"}},
        {"/", '/', {"", ""}},
        {"/a/b", '/', {"", "a", "b"}},
        {"a//b", '/', {"a", "", "b"}},
        {"a/", '/', {"a", ""}},
        {"a b  c", ' ', {"a", "b", "", "c"}},
    };
    for (const auto& c : kCases) {
        EXPECT_THAT(lum::tokenize(c.text, c.separator, 0), ElementsAreArray(c.fields))
            << "text \"" << c.text << "\"";
    }
}

}  // namespace
