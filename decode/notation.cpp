// SPDX-License-Identifier: ISC
#include "decode/notation.h"

namespace notation {

namespace {

constexpr char kDigits[] = "0123456789abcdef";

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

std::string hex(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char b : bytes) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 0x0f]);
  }
  return out;
}

std::optional<std::string> from_hex(std::string_view text) {
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    if (is_blank(text[i])) {
      ++i;
      continue;
    }
    if (i + 1 >= text.size()) return std::nullopt;
    const int high = hex_digit(text[i]), low = hex_digit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    out.push_back(static_cast<char>(high << 4 | low));
    i += 2;
  }
  return out;
}

std::string escape(std::string_view bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    switch (c) {
      case '\r': out += "\\r"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\0': out += "\\0"; break;
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      default:
        if (c >= 0x20 && c < 0x7f) {
          out.push_back(static_cast<char>(c));
        } else {
          out += "\\x";
          out.push_back(kDigits[c >> 4]);
          out.push_back(kDigits[c & 0x0f]);
        }
    }
  }
  return out;
}

std::optional<std::string> unescape(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out.push_back(text[i]);
      continue;
    }
    if (++i >= text.size()) return std::nullopt;
    switch (text[i]) {
      case 'r': out.push_back('\r'); break;
      case 'n': out.push_back('\n'); break;
      case 't': out.push_back('\t'); break;
      case '0': out.push_back('\0'); break;
      case '\\': out.push_back('\\'); break;
      case '"': out.push_back('"'); break;
      case 'x': {
        if (text.size() - i < 3) return std::nullopt;
        const int high = hex_digit(text[i + 1]), low = hex_digit(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out.push_back(static_cast<char>(high << 4 | low));
        i += 2;
        break;
      }
      default: return std::nullopt;
    }
  }
  return out;
}

}  // namespace notation
