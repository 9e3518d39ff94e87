#include <gtest/gtest.h>

#include "Common/TextValues.h"

namespace orv {
namespace {

TEST(TextValues, TruthIsReadFromTheFirstMeaningfulCharacter) {
    for (const char* yes : {"YES", "yes", "true", "T", "1", "  9", "+0007", "-3", "y"})
        EXPECT_TRUE(textBoolValue(yes)) << yes;
    for (const char* no : {"", "NO", "false", "0", "000", "-0", "x1", " ", "+", "on"})
        EXPECT_FALSE(textBoolValue(no)) << no;
}

TEST(TextValues, NumbersAreTheLeadingDigitsAndAnythingElseIsZero) {
    EXPECT_EQ(textIntValue(" 42abc"), 42);
    EXPECT_EQ(textIntValue("-16"), -16);
    EXPECT_EQ(textIntValue("abc"), 0);
    EXPECT_EQ(textIntValue("2.9"), 2);
    EXPECT_EQ(textIntValue("99999999999"), 2147483647);
    EXPECT_EQ(textIntValue("-99999999999"), -2147483647 - 1);

    EXPECT_FLOAT_EQ(textFloatValue("179.9"), 179.9f);
    EXPECT_FLOAT_EQ(textFloatValue(" +400x"), 400.0f);
    EXPECT_FLOAT_EQ(textFloatValue(".5"), 0.5f);
    EXPECT_FLOAT_EQ(textFloatValue("1e2"), 100.0f);
    EXPECT_FLOAT_EQ(textFloatValue("3e"), 3.0f);
    EXPECT_FLOAT_EQ(textFloatValue("-"), 0.0f);
    EXPECT_FLOAT_EQ(textFloatValue("fast"), 0.0f);
}

}  // namespace
}  // namespace orv
