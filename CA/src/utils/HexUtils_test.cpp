// Tests of the hex and byte-order helpers, every edge case included.
#include "HexUtils.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

std::string bytes(std::initializer_list<unsigned char> list) {
  return std::string(list.begin(), list.end());
}

// ---- hex_string_to_bin --------------------------------------------------------

TEST(HexStringToBin, MixedCaseInBothOrders) {
  EXPECT_EQ(hex_string_to_bin("0a0B", Endian::Big), bytes({0x0A, 0x0B}));
  EXPECT_EQ(hex_string_to_bin("0a0B", Endian::Little), bytes({0x0B, 0x0A}));
}

TEST(HexStringToBin, BigKeepsTextOrder) {
  EXPECT_EQ(hex_string_to_bin("a1b2c3", Endian::Big), bytes({0xA1, 0xB2, 0xC3}));
  EXPECT_EQ(hex_string_to_bin("00ff", Endian::Big), bytes({0x00, 0xFF}));
}

TEST(HexStringToBin, LittleReversesTextOrder) {
  EXPECT_EQ(hex_string_to_bin("a1b2c3", Endian::Little), bytes({0xC3, 0xB2, 0xA1}));
}

TEST(HexStringToBin, ZeroBytesSurvive) {
  const std::string out = hex_string_to_bin("000100", Endian::Big);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out, bytes({0x00, 0x01, 0x00}));
}

TEST(HexStringToBin, OneDigitIsEmptyForBigAndOutOfRangeForLittle) {
  EXPECT_EQ(hex_string_to_bin("7", Endian::Big), "");
  EXPECT_THROW((void)hex_string_to_bin("7", Endian::Little), std::out_of_range);
}

TEST(HexStringToBin, EmptyTextThrowsForBigAndIsEmptyForLittle) {
  try {
    (void)hex_string_to_bin("", Endian::Big);
    FAIL() << "an empty text must not convert with Endian::Big";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "stoul");
  }
  EXPECT_EQ(hex_string_to_bin("", Endian::Little), "");
}

TEST(HexStringToBin, OddLengthLosesLastDigitForBig) {
  EXPECT_EQ(hex_string_to_bin("abc", Endian::Big), bytes({0xAB}));
  EXPECT_EQ(hex_string_to_bin("12345", Endian::Big), bytes({0x12, 0x34}));
}

TEST(HexStringToBin, OddLengthThrowsForLittle) {
  EXPECT_THROW((void)hex_string_to_bin("abc", Endian::Little), std::out_of_range);
  EXPECT_THROW((void)hex_string_to_bin("12345", Endian::Little), std::out_of_range);
}

TEST(HexStringToBin, PairWithoutDigitThrows) {
  for (Endian endian : {Endian::Big, Endian::Little}) {
    try {
      (void)hex_string_to_bin("zz", endian);
      FAIL() << "zz must not convert";
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "stoul");
    }
  }
  EXPECT_THROW((void)hex_string_to_bin("00zz", Endian::Big), std::invalid_argument);
}

TEST(HexStringToBin, ConversionStopsAtFirstNonDigit) {
  EXPECT_EQ(hex_string_to_bin("1z", Endian::Big), bytes({0x01}));
  EXPECT_EQ(hex_string_to_bin("1z", Endian::Little), bytes({0x01}));
}

TEST(HexStringToBin, StoulToleranceIsKept) {
  // A blank before a digit, a sign and an x after a zero are what std::stoul
  // accepts; the pair rule keeps them.
  EXPECT_EQ(hex_string_to_bin(" 7", Endian::Big), bytes({0x07}));
  EXPECT_EQ(hex_string_to_bin("+7", Endian::Big), bytes({0x07}));
  EXPECT_EQ(hex_string_to_bin("0x", Endian::Big), bytes({0x00}));
  // "-1" is ULONG_MAX for std::stoul; its low byte is kept.
  EXPECT_EQ(hex_string_to_bin("-1", Endian::Big), bytes({0xFF}));
}

TEST(HexStringToBin, ValuesOtherThanBigBehaveAsLittle) {
  EXPECT_EQ(hex_string_to_bin("0102", static_cast<Endian>(7)), bytes({0x02, 0x01}));
  EXPECT_EQ(hex_string_to_bin("0102", static_cast<Endian>(-1)), bytes({0x02, 0x01}));
}

TEST(HexStringToBin, EnumeratorValues) {
  EXPECT_EQ(static_cast<int>(Endian::Big), 1);
  EXPECT_EQ(static_cast<int>(Endian::Little), 0);
}

// ---- uint8_to_hex_string ------------------------------------------------------

TEST(Uint8ToHexString, LowerCaseWithLeadingZeros) {
  const unsigned char data[] = {0x00, 0xFF};
  EXPECT_EQ(uint8_to_hex_string(data, 2), "00ff");
  const unsigned char more[] = {0x0A, 0xB0, 0x5C, 0x01};
  EXPECT_EQ(uint8_to_hex_string(more, 4), "0ab05c01");
}

TEST(Uint8ToHexString, EveryByteValue) {
  unsigned char all[256];
  for (int i = 0; i < 256; ++i) {
    all[i] = static_cast<unsigned char>(i);
  }
  const std::string text = uint8_to_hex_string(all, 256);
  ASSERT_EQ(text.size(), 512u);
  for (int i = 0; i < 256; ++i) {
    char expected[3];
    std::snprintf(expected, sizeof expected, "%02x", i);
    EXPECT_EQ(text.substr(2 * i, 2), expected) << "byte " << i;
  }
}

TEST(Uint8ToHexString, NullOrNonPositiveLengthIsEmpty) {
  const unsigned char data[] = {0x12};
  EXPECT_EQ(uint8_to_hex_string(nullptr, 1), "");
  EXPECT_EQ(uint8_to_hex_string(data, 0), "");
  // Read as signed 32-bit these lengths are negative: nothing is read.
  EXPECT_EQ(uint8_to_hex_string(data, 0x80000000u), "");
  EXPECT_EQ(uint8_to_hex_string(data, 0xFFFFFFFFu), "");
}

TEST(Uint8ToHexString, RoundTripsThroughHexStringToBin) {
  const unsigned char data[] = {0xDE, 0xAD, 0x00, 0xBE, 0xEF};
  const std::string text = uint8_to_hex_string(data, 5);
  EXPECT_EQ(hex_string_to_bin(text, Endian::Big), std::string(reinterpret_cast<const char*>(data), 5));
}

// ---- to_big_endian ------------------------------------------------------------

TEST(ToBigEndian, MostSignificantByteFirst) {
  EXPECT_EQ(to_big_endian(0x01020304u), bytes({0x01, 0x02, 0x03, 0x04}));
  EXPECT_EQ(to_big_endian(0u), bytes({0x00, 0x00, 0x00, 0x00}));
  EXPECT_EQ(to_big_endian(0xFFFFFFFFu), bytes({0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(to_big_endian(84u), bytes({0x00, 0x00, 0x00, 0x54}));
}

// ---- fit_string_length --------------------------------------------------------

TEST(FitStringLength, PadsOnTheLeft) {
  EXPECT_EQ(fit_string_length(bytes({0x12, 0x34}), 4), bytes({0x00, 0x00, 0x12, 0x34}));
  EXPECT_EQ(fit_string_length("", 3), bytes({0x00, 0x00, 0x00}));
}

TEST(FitStringLength, CutsTheEnd) {
  EXPECT_EQ(fit_string_length(bytes({0x12, 0x34}), 1), bytes({0x12}));
  EXPECT_EQ(fit_string_length(bytes({0x12, 0x34}), 0), "");
}

TEST(FitStringLength, SameLengthIsACopy) {
  const std::string value = bytes({0x00, 0x12, 0x00});
  EXPECT_EQ(fit_string_length(value, 3), value);
}

}  // namespace
