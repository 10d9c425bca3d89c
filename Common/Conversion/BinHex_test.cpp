#include "Common/Conversion/BinHex.h"

#include <cstring>
#include <string>

#include "gtest/gtest.h"
#include "tests/support/TestSupport.h"

TEST(Bin2Hex, WritesUpperCasePairs) {
  const unsigned char bytes[] = {0x00, 0xAB};
  char text[5] = {'?', '?', '?', '?', '?'};
  unsigned size = sizeof(text);
  ASSERT_EQ(CBinHex::bin2hex(bytes, 2, text, &size), 0u);
  EXPECT_STREQ(text, "00AB");
}

TEST(Bin2Hex, EveryByteValue) {
  unsigned char bytes[256];
  for (unsigned i = 0; i < 256; ++i) {
    bytes[i] = static_cast<unsigned char>(i);
  }
  std::string text(513, '?');
  unsigned size = 513;
  ASSERT_EQ(CBinHex::bin2hex(bytes, 256, &text[0], &size), 0u);
  EXPECT_EQ(text.substr(0, 8), "00010203");
  EXPECT_EQ(text.substr(20, 12), "0A0B0C0D0E0F");
  EXPECT_EQ(text.substr(508, 4), "FEFF");
  EXPECT_EQ(text[512], '\0');
}

TEST(Bin2Hex, NullTextAsksForTheSize) {
  const unsigned char bytes[] = {1, 2, 3};
  unsigned size = 0;
  EXPECT_EQ(CBinHex::bin2hex(bytes, 3, nullptr, &size), 0u);
  EXPECT_EQ(size, 7u);
}

TEST(Bin2Hex, NullBytesIsRefused) {
  char text[8];
  unsigned size = sizeof(text);
  EXPECT_EQ(CBinHex::bin2hex(nullptr, 2, text, &size), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(CBinHex::bin2hex(nullptr, 2, nullptr, &size), GLOBAL_ERROR_BAD_PARAMETER);
}

TEST(Bin2Hex, BufferWithoutRoomForTheTerminatorIsRefused) {
  const unsigned char bytes[] = {0x12, 0x34};
  char text[5] = {'?', '?', '?', '?', '?'};
  unsigned size = 4;
  EXPECT_EQ(CBinHex::bin2hex(bytes, 2, text, &size), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(text[0], '?');
}

TEST(Bin2Hex, EmptyInputIsEmptyText) {
  const unsigned char bytes[] = {0};
  char text[1] = {'?'};
  unsigned size = 1;
  EXPECT_EQ(CBinHex::bin2hex(bytes, 0, text, &size), 0u);
  EXPECT_STREQ(text, "");
}

TEST(Bin2Hex, SizeThatCannotBeExpressedIsRefused) {
  const unsigned char bytes[] = {0};
  unsigned size = 0;
  EXPECT_EQ(CBinHex::bin2hex(bytes, 0x80000000u, nullptr, &size), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(CBinHex::bin2hex(bytes, 1, nullptr, nullptr), GLOBAL_ERROR_BAD_PARAMETER);
}

TEST(HexCharToInt, AcceptsBothCases) {
  const char digits[] = "0123456789abcdefABCDEF";
  const unsigned char expected[] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10,
                                    11, 12, 13, 14, 15, 10, 11, 12, 13, 14, 15};
  for (size_t i = 0; i < sizeof(expected); ++i) {
    unsigned char value = 99;
    EXPECT_EQ(CBinHex::hexCharToInt(digits[i], &value), 0u) << digits[i];
    EXPECT_EQ(value, expected[i]) << digits[i];
  }
}

TEST(HexCharToInt, RefusesOtherCharacters) {
  for (char c : {'g', 'G', ' ', '\0', '/', ':', '@', '`', 'x', '\xff'}) {
    unsigned char value = 99;
    EXPECT_EQ(CBinHex::hexCharToInt(c, &value), GLOBAL_ERROR_BAD_PARAMETER) << int(c);
    EXPECT_EQ(value, 99);
  }
}

TEST(Hex2Bin, ConvertsPairsHighDigitFirst) {
  unsigned char bytes[3] = {0, 0, 0};
  unsigned size = 3;
  ASSERT_EQ(CBinHex::hex2bin("00aBf1", 6, bytes, &size), 0u);
  EXPECT_EQ(size, 3u);
  EXPECT_EQ(bytes[0], 0x00);
  EXPECT_EQ(bytes[1], 0xAB);
  EXPECT_EQ(bytes[2], 0xF1);
}

TEST(Hex2Bin, OddLengthIsRefused) {
  unsigned char bytes[4] = {7, 7, 7, 7};
  unsigned size = 4;
  EXPECT_EQ(CBinHex::hex2bin("0aF", 3, bytes, &size), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(bytes[0], 7);
}

TEST(Hex2Bin, TooSmallSizeIsRefused) {
  unsigned char bytes[4] = {7, 7, 7, 7};
  unsigned size = 1;
  EXPECT_EQ(CBinHex::hex2bin("0011", 4, bytes, &size), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(bytes[0], 7);
  EXPECT_EQ(CBinHex::hex2bin("0011", 4, bytes, nullptr), GLOBAL_ERROR_BAD_PARAMETER);
}

TEST(Hex2Bin, NullTextIsRefused) {
  unsigned char bytes[2];
  unsigned size = 2;
  EXPECT_EQ(CBinHex::hex2bin(nullptr, 4, bytes, &size), GLOBAL_ERROR_BAD_PARAMETER);
}

TEST(Hex2Bin, NullBytesAsksForTheSizeOnceTheSizeIsLargeEnough) {
  unsigned size = 10;
  EXPECT_EQ(CBinHex::hex2bin("001122", 6, nullptr, &size), 0u);
  EXPECT_EQ(size, 3u);
  // The room is checked before the query is answered.
  size = 0;
  EXPECT_EQ(CBinHex::hex2bin("001122", 6, nullptr, &size), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(size, 0u);
}

TEST(Hex2Bin, BadDigitIsLoggedAndItsCodeReturned) {
  unsigned char bytes[2];
  unsigned size = 2;
  keeltest::LogCapture capture;
  EXPECT_EQ(CBinHex::hex2bin("0g11", 4, bytes, &size), GLOBAL_ERROR_BAD_PARAMETER);
  const auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_NE(records[0].message.find("Function: hex2bin"), std::string::npos);
  EXPECT_NE(records[0].message.find("Invoked Function: CBinHex::hexCharToInt"), std::string::npos);
  EXPECT_NE(records[0].message.find("(0xFE000002)"), std::string::npos);
  EXPECT_EQ(records[0].level, LOG_LEVEL_E);
}

TEST(Hex2Bin, EmptyTextIsNoBytes) {
  unsigned size = 0;
  unsigned char bytes[1] = {5};
  EXPECT_EQ(CBinHex::hex2bin("", 0, bytes, &size), 0u);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(bytes[0], 5);
}

TEST(Hex2Bin, RoundTripsWithBin2Hex) {
  unsigned char original[64];
  for (unsigned i = 0; i < sizeof(original); ++i) {
    original[i] = static_cast<unsigned char>(i * 37 + 11);
  }
  char text[129];
  unsigned textSize = sizeof(text);
  ASSERT_EQ(CBinHex::bin2hex(original, sizeof(original), text, &textSize), 0u);
  unsigned char back[64];
  unsigned size = sizeof(back);
  ASSERT_EQ(CBinHex::hex2bin(text, 128, back, &size), 0u);
  EXPECT_EQ(memcmp(original, back, sizeof(back)), 0);
}
