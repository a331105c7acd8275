// SPDX-License-Identifier: ISC
#include "tests/unit/support/notation.h"

namespace notation {

namespace {
int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

std::optional<std::string> from_hex(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    if (text[i] == ' ' || text[i] == '\t') {
      ++i;
      continue;
    }
    if (i + 1 >= text.size()) return std::nullopt;
    const int high = hex_digit(text[i]), low = hex_digit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    out += static_cast<char>(high << 4 | low);
    i += 2;
  }
  return out;
}

std::optional<std::string> unescape(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    if (++i == text.size()) return std::nullopt;
    switch (text[i]) {
      case 'r': out += '\r'; break;
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case '0': out += '\0'; break;
      case '\\': out += '\\'; break;
      case '"': out += '"'; break;
      case 'x': {
        const int high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? hex_digit(text[i + 2]) : -1;
        if (high < 0 || low < 0) return std::nullopt;
        out += static_cast<char>(high << 4 | low);
        i += 2;
        break;
      }
      default: return std::nullopt;
    }
  }
  return out;
}

}  // namespace notation
