#include "Common/Log/BoundedText.h"

#include <cstring>

#include <gtest/gtest.h>

namespace {

TEST(BoundedText, CopyCutsToSizeAndReturnsSourceBoundedLength) {
  char buffer[16];
  memset(buffer, 'x', sizeof(buffer));
  EXPECT_EQ(boundedCopy(buffer, "abcdef", 4), 4u);
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(buffer[4], 'x');  // nothing written past the bound
}

TEST(BoundedText, CopyWithNullSourceDoesNothing) {
  char buffer[4] = "zz";
  EXPECT_EQ(boundedCopy(buffer, nullptr, 4), 0u);
  EXPECT_STREQ(buffer, "zz");
}

TEST(BoundedText, CopyWithoutDestinationOnlyMeasures) {
  EXPECT_EQ(boundedCopy(nullptr, "abc", 10), 3u);
  char buffer[2] = "q";
  EXPECT_EQ(boundedCopy(buffer, "abc", 0), 0u);
  EXPECT_STREQ(buffer, "q");
}

TEST(BoundedText, LengthStopsAtBound) {
  EXPECT_EQ(boundedLength("abcdef", 3), 3u);
  EXPECT_EQ(boundedLength("ab", 10), 2u);
  EXPECT_EQ(boundedLength(nullptr, 10), 0u);
  EXPECT_EQ(boundedLength("ab", 0), 0u);
}

TEST(BoundedText, AppendAddsWhatFits) {
  char buffer[6] = "ab";
  boundedAppend(buffer, "cdefg", sizeof(buffer));
  EXPECT_STREQ(buffer, "abcde");
  boundedAppend(buffer, "x", sizeof(buffer));
  EXPECT_STREQ(buffer, "abcde");
}

TEST(BoundedText, FindAnyWithinBound) {
  const char* text = "hello, world";
  EXPECT_EQ(boundedFindAny(text, ",!", 20), text + 5);
  EXPECT_EQ(boundedFindAny(text, ",!", 5), nullptr);
  EXPECT_EQ(boundedFindAny(text, "?", 20), nullptr);
  EXPECT_EQ(boundedFindAny(nullptr, "?", 20), nullptr);
}

TEST(BoundedText, FormatForcesTerminator) {
  char buffer[5];
  boundedFormat(buffer, sizeof(buffer), "%d-%s", 12, "abcdef");
  EXPECT_STREQ(buffer, "12-a");
  boundedFormat(nullptr, 5, "%d", 1);  // must not crash
}

}  // namespace
