// SPDX-License-Identifier: ISC
// The notation for bytes and texts: what it accepts, what it refuses, and
// that every byte survives a round trip.
#include "decode/notation.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

using notation::escape;
using notation::from_hex;
using notation::hex;
using notation::unescape;
using namespace std::string_literals;

TEST(Notation, HexIsTwoLowerCaseDigitsAByteAndReadsBackWithBlanksBetweenBytes) {
  const struct {
    const char* text;
    std::optional<std::string> bytes;
  } cases[] = {
      {"", ""s},
      {"00ff10", "\x00\xff\x10"s},
      {"00 FF\t10 ", "\x00\xff\x10"s},
      {"AbcD", "\xab\xcd"s},
      {"0", std::nullopt},      // half a byte
      {"0 0", std::nullopt},    // a blank inside a byte
      {"0g", std::nullopt},
      {"00:01", std::nullopt},  // blanks only between bytes
      {"0x01", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(from_hex(c.text), c.bytes) << c.text;
  EXPECT_EQ(hex("\x00\xff\x10\xab"s), "00ff10ab");
}

TEST(Notation, TextsTakeCEscapesAndRefuseAnyOther) {
  const struct {
    const char* text;
    std::optional<std::string> bytes;
  } cases[] = {
      {"AT^NDISDUP=1,1", "AT^NDISDUP=1,1"s},
      {R"(\r\n\t\0\\\")", "\r\n\t\0\\\""s},
      {R"(\x20\x7F\xff)", " \x7f\xff"s},
      {R"(\09)", "\0" "9"s},  // \0 is one byte, the digit after it another
      {R"(\s)", std::nullopt},
      {R"(\x4)", std::nullopt},
      {R"(\x4g)", std::nullopt},
      {R"(end\)", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(unescape(c.text), c.bytes) << c.text;
  EXPECT_EQ(escape("p w\"\\\r\n\t\0\x1f\x7f\x80~"s), R"(p w\"\\\r\n\t\0\x1f\x7f\x80~)");
}

TEST(Notation, EveryByteComesBackFromHexAndFromEscapes) {
  std::string all;
  for (int b = 0; b < 256; ++b) all.push_back(static_cast<char>(b));
  EXPECT_EQ(from_hex(hex(all)), all);
  EXPECT_EQ(unescape(escape(all)), all);
  // Nothing that ends a line or a word in a record survives escaping.
  EXPECT_EQ(escape(all).find_first_of("\r\n\t"), std::string::npos);
}

}  // namespace
