// SPDX-License-Identifier: ISC
#include "tests/unit/support/notation.h"

using namespace std::literals;

namespace notation {

static int hex_digit(char c) {
  const char lower = static_cast<char>(c | 0x20);  // 'A' to 'F' as 'a' to 'f'
  if (c >= '0' && c <= '9') return c - '0';
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::optional<std::string> from_hex(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); i += 2) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    if (i == text.size()) break;
    const int high = hex_digit(text[i]), low = i + 1 < text.size() ? hex_digit(text[i + 1]) : -1;
    if (high < 0 || low < 0) return std::nullopt;
    out += static_cast<char>(high << 4 | low);
  }
  return out;
}

std::optional<std::string> unescape(std::string_view text) {
  constexpr auto kEscapes = "r\rn\nt\t0\0\\\\\"\""sv;  // each escape's letter, then its byte
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
    } else if (i + 3 < text.size() && text[i + 1] == 'x' && hex_digit(text[i + 2]) >= 0 && hex_digit(text[i + 3]) >= 0) {
      out += static_cast<char>(hex_digit(text[i + 2]) << 4 | hex_digit(text[i + 3]));
      i += 3;
    } else if (const size_t e = i + 1 < text.size() ? kEscapes.find(text[i + 1]) : std::string_view::npos;
               e != std::string_view::npos && e % 2 == 0) {
      out += kEscapes[e + 1];
      ++i;
    } else {
      return std::nullopt;
    }
  }
  return out;
}

}  // namespace notation
